// The lab's cloud judges the daemon in every end to end test, so it is judged here by what it must refuse;
// and a receiver as it stands in the open, by what it must bear.
#include <filesystem>

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include "cloud_client.h"
#include "postgresql.h"

using ::testing::HasSubstr;

namespace {

class LabCloudTest : public testing::Test {
  protected:
    void SetUp() override {
        cloud_.start(lab::default_bin_dir(), directory_.path());
        client_ = {"https://" + cloud_.address(), directory_.path() + "/ca.cer"};
    }
    std::string post(const char *path, const std::string &body, const std::string &authorization = "") {
        return client_.post(path, body, authorization);
    }

    lab::RunDirectory directory_;
    lab::LabCloud cloud_;
    CloudClient client_;
};

TEST_F(LabCloudTest, RefusesEverySignatureThatIsNotExactlyRight) {
    lab::CloudKey key = client_.fetch_key();
    std::string body = upload_body(R"({"eid":"a","ct":1,"ep":{}})");
    std::string right = sign(body, kUploadPath, key);
    std::string upper = right;
    for (size_t i = upper.rfind('='); i < upper.size(); i++)
        upper[i] = upper[i] >= 'a' ? static_cast<char>(upper[i] - 'a' + 'A') : upper[i];
    lab::CloudKey other_secret = {key.access_key, key.access_secret + "0", false};
    lab::CloudKey unknown = {"ak-unknown", key.access_secret, false};
    const std::pair<const char *, std::string> cases[] = {
        {"none", ""},
        {"not a signature", "Basic abc"},
        {"other body", sign(body + " ", kUploadPath, key)},
        {"other path", sign(body, kStrategyPath, key)},
        {"path without the slash", sign(body, kUploadPath + 1, key)},
        {"other stamp", sign(body, kUploadPath, key, "1700000001").replace(3, 10, "1700000000")},
        {"stamp that is no number", sign(body, kUploadPath, key, "now")},
        {"other secret", sign(body, kUploadPath, other_secret)},
        {"unknown key", sign(body, kUploadPath, unknown)},
        {"upper case digits", upper},
        {"one digit short", right.substr(0, right.size() - 1)},
    };
    for (const auto &[name, authorization] : cases)
        EXPECT_EQ(post(kUploadPath, body, authorization), R"({"error_code":-10301})") << name;
    EXPECT_EQ(cloud_.count("invalid_signatures"), static_cast<long>(std::size(cases)));
    EXPECT_EQ(cloud_.count("posts"), 0);
    EXPECT_EQ(post(kUploadPath, body, right), R"({"error_code":0})");
}

TEST_F(LabCloudTest, RefusesBodiesThatAreNotTheContract) {
    lab::CloudKey key = client_.fetch_key();
    struct {
        const char *path;
        std::string body;
        int code;
    } const cases[] = {
        {kUploadPath, "{", -20105},
        {kUploadPath, upload_body("") + "x", -20105},
        {kUploadPath, upload_body(R"({"eid":"a","ct":1,"ep":{},"cnt":1})"), -20105},
        {kUploadPath, upload_body(R"({"ct":1,"eid":"a","ep":{}})"), -20105},
        {kUploadPath, upload_body(R"({"eid":"a","ct":"1","ep":{}})"), -20105},
        {kUploadPath, R"({"sr":"device","srp":{"di":"D"},"el":[]})", -20501},
        {kStrategyPath, R"({"deviceId":"D"})", -20501},
        {kStrategyPath, R"({"deviceId":"D","deviceType":"HOMEWIFISYSTEM","strategyId":""})", -20501},
        {kKeyPath, R"({"deviceId":"D","mac":"M","hwId":"H"})", -20501},
        {"/api/other", "{}", -10306},
    };
    for (const auto &one : cases)
        EXPECT_EQ(post(one.path, one.body, sign(one.body, one.path, key)),
                  "{\"error_code\":" + std::to_string(one.code) + "}")
            << one.body;
    EXPECT_EQ(cloud_.count("records"), 0);
    EXPECT_THROW(cloud_.script("key", R"([{"kind":"sing"}])"), std::runtime_error);
    EXPECT_THROW(cloud_.script("connect", R"([{"kind":"empty"}])"), std::runtime_error);
}

// A receiver as one runs it, without orders.
class ReceiverTest : public testing::Test {
  protected:
    void start(std::vector<std::string> options = {}) {
        for (const char *file : {"/port", "/page_port"})
            std::filesystem::remove(directory_.path() + file);
        std::vector<std::string> command = {lab::default_bin_dir() + "/telemetry-receiver", "--dir",
                                            directory_.path(), "--page", "127.0.0.1:0"};
        command.insert(command.end(), options.begin(), options.end());
        process_.start({command, {}, directory_.path() + "/log"});
        ASSERT_TRUE(lab::wait_until([&] { return lab::file_exists(directory_.path() + "/port"); }, 20000))
            << lab::read_file(directory_.path() + "/log");
        client_ = {"https://127.0.0.1:" + std::to_string(port("port")), directory_.path() + "/ca.cer"};
    }
    int port(const char *name) const {
        return atoi(lab::read_file(directory_.path() + "/" + name).c_str());
    }
    int code_of(const std::string &answer) const {
        return static_cast<int>(lab::json_number(lab::parse_json(answer, "answer").get(), "error_code", -1));
    }
    std::string page(const std::string &what) {
        return lab::run_command(
                   {"curl", "-s", "http://127.0.0.1:" + std::to_string(port("page_port")) + what}, {}, 10000)
            .out;
    }

    lab::RunDirectory directory_;
    lab::Process process_;
    CloudClient client_;
};

std::string replaced(std::string text, const std::string &what, const std::string &by) {
    return text.replace(text.find(what), what.size(), by);
}

TEST_F(ReceiverTest, TakesABodyOnceInAnyOrderFromKnownDevicesInTime) {
    lab::write_file(directory_.path() + "/devices", "D # ours\nE fixed-key fixed-secret\n");
    start({"--devices", directory_.path() + "/devices", "--strategy-id", "s1", "--strategy",
           "post_interval=240"});
    const lab::CloudKey key = client_.fetch_key();
    const std::string body = upload_body(R"({"ep":{"a":[1,{}]},"ct":5,"more":1,"eid":"a"})");
    EXPECT_EQ(client_.upload(body, key), R"({"error_code":0})");
    EXPECT_EQ(client_.upload(body, key), R"({"error_code":0})");
    EXPECT_THAT(page("/api/meshes"), HasSubstr(R"("uploads":1,"records":1)"));
    EXPECT_THAT(page("/metrics"),
                HasSubstr(R"(telemetry_requests_total{call="upload",result="duplicate"} 1)"));

    const std::string late = std::to_string(time(nullptr) - 1000);
    EXPECT_EQ(code_of(client_.post(kUploadPath, body, sign(body, kUploadPath, key, late))), -10301);
    EXPECT_EQ(code_of(client_.upload(body, {"forgotten", "x", false})), -10304); // it asks for another
    EXPECT_EQ(code_of(client_.upload(body, {"fixed-key", "fixed-secret", false})),
              -20501); // of another device
    EXPECT_EQ(code_of(client_.post(kKeyPath, replaced(kKeyBody, "\"D\"", "\"F\""))), -20501);
    const std::string asked = R"({"deviceType":"HOMEWIFISYSTEM","deviceId":"D"})";
    EXPECT_THAT(client_.post(kStrategyPath, asked, sign(asked, kStrategyPath, key)),
                HasSubstr("post_interval=240"));
}

TEST_F(ReceiverTest, BearsEveryFieldMissingWrongHugeOrDeep) {
    start({"--max-body", "300000"});
    const lab::CloudKey key = client_.fetch_key();
    const std::string right = upload_body(R"({"eid":"a","ct":5,"ep":{}})");
    const std::string deep = std::string(1200, '[') + std::string(1200, ']');
    const std::string values[] = {
        "null",        "true",         "-1e400",      "\"\"",
        "{}",          "[]",           "[{}]",        "\"" + std::string(5000, 'x') + "\"",
        "\"\\ud800\"", "\"\xff\xc0\"", "\"\\u0000\"", deep};
    const std::string fields[] = {"\"sr\":\"device\"",  "\"di\":\"D\"",  "\"dt\":\"HOMEWIFISYSTEM\"",
                                  "\"dcg\":\"router\"", "\"eid\":\"a\"", "\"ct\":5"};
    for (const std::string &field : fields) {
        const std::string name = field.substr(0, field.find(':') + 1);
        for (const std::string &value : values) {
            const std::string body = replaced(right, field, name + value);
            if (field == fields[5] && value == values[2])
                continue; // a number all the same
            EXPECT_THAT(code_of(client_.upload(body, key)), testing::AnyOf(-20105, -20501))
                << name << value.substr(0, 20);
        }
        EXPECT_THAT(code_of(client_.upload(replaced(right, field, "\"x\":1"), key)),
                    testing::AnyOf(-20105, -20501))
            << field;
    }
    for (const std::string &part : {std::string("\"ep\":{}"), std::string("\"el\":[")}) {
        for (const std::string &value : {std::string("3"), deep})
            EXPECT_EQ(
                code_of(client_.upload(replaced(right, part, part.substr(0, 5) + value + ",\"z\":["), key)),
                -20105);
    }
    client_.upload(std::string(400000, ' '), key);
    EXPECT_EQ(client_.status, 413);
    EXPECT_EQ(code_of(client_.upload(right, key)), 0);
    EXPECT_THAT(page("/api/meshes"), HasSubstr(R"("uploads":1,"records":1)"));
}

TEST_F(ReceiverTest, TenThousandIdleConnectionsKeepNobodyOut) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 10200);
    setrlimit(RLIMIT_NOFILE, &limit);
    start({"--connections", "200"});
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port("port")));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::vector<int> idle;
    while (idle.size() < limit.rlim_cur - 200) {
        idle.push_back(socket(AF_INET, SOCK_STREAM, 0));
        ASSERT_EQ(connect(idle.back(), reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0)
            << idle.size();
    }
    EXPECT_EQ(code_of(client_.upload(upload_body(""), client_.fetch_key())), 0);
    for (int fd : idle)
        close(fd);
}

TEST_F(ReceiverTest, AFullDiskAcknowledgesNothing) {
    const std::string disk = directory_.path() + "/disk";
    lab::make_directories(disk);
    if (mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=400k") != 0)
        GTEST_SKIP() << "no file system of a given size can be mounted here";
    const std::unique_ptr<const std::string, void (*)(const std::string *)> mounted(
        &disk, [](const std::string *path) { umount2(path->c_str(), MNT_DETACH); });
    start({"--store", disk + "/store.db"});
    const lab::CloudKey key = client_.fetch_key();
    const std::string filler(20000, 'x');
    int acknowledged = 0, refused = 0;
    for (int i = 0; i < 40; i++) {
        client_.upload(
            upload_body(R"({"eid":"a","ct":)" + std::to_string(i) + R"(,"ep":{"f":")" + filler + "\"}}"),
            key);
        acknowledged += client_.status == 200;
        refused += client_.status == 503;
    }
    EXPECT_GT(acknowledged, 0);
    EXPECT_GT(refused, 0);
    EXPECT_EQ(acknowledged + refused, 40);
    EXPECT_THAT(page("/api/meshes"), HasSubstr("\"uploads\":" + std::to_string(acknowledged) + ","));
    process_.stop();
}

TEST_F(ReceiverTest, ADatabaseThatGoesAndComesBackLosesAndDoublesNothing) {
    if (const std::string missing = Postgresql::missing(); !missing.empty())
        GTEST_SKIP() << missing;
    Postgresql database;
    start({"--store", database.where()});
    const lab::CloudKey key = client_.fetch_key();
    const auto body = [](int i) {
        return upload_body(R"({"eid":"a","ct":)" + std::to_string(i) + R"(,"ep":{}})");
    };
    EXPECT_EQ(code_of(client_.upload(body(1), key)), 0);
    database.crash();
    for (int i = 1; i <= 3; i++) {
        client_.upload(body(i), key);
        EXPECT_EQ(client_.status, 503);
    }
    database.start();
    // A worker's connection from before may be found broken once.
    for (int i = 1; i <= 3; i++)
        EXPECT_TRUE(lab::wait_until(
            [&] {
                client_.upload(body(i), key);
                return client_.status == 200;
            },
            20000));
    EXPECT_THAT(page("/api/meshes"), HasSubstr(R"("uploads":3,"records":3)"));
    process_.stop();
}

} // namespace
