// What the home scenario uploads: its very bytes, against the data dictionary, and what must not be in it.
#include <cctype>
#include <memory>
#include <set>

#include <gmock/gmock.h>

#include "home_lab.h"
#include "telemetry_utils.h"

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr char kGoldenFile[] = TEST_SOURCE_DIR "/tests/golden/home_upload.json";

std::string lower(std::string text) {
    for (char &c : text)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

// "02:00:00:01:00:0a" with another separator.
std::string separated(const std::string &mac, const std::string &by) {
    std::string text;
    for (const char c : mac)
        text += c == ':' ? by : std::string(1, c);
    return text;
}

std::string digest_of(const std::string &mac) {
    std::string form = separated(mac, "-");
    for (char &c : form)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    char digest[33] = {};
    md5_encode_str(reinterpret_cast<const uint8_t *>(form.data()), static_cast<int32_t>(form.size()), digest);
    return digest;
}

class HomeRecords : public ::testing::Test {
  protected:
    // The first upload is what most of the tests look at.
    static void SetUpTestSuite() {
        home = new HomeLab;
        home->lab.node().write("/tmp/cloud_heartbeat_timeout_count", "4\n"); // started anew
        home->lab.node().write("/tmp/telemetry/telemetry", "config 'cut"); // what was reported before is lost
        first = new std::vector<UploadedRecord>(home->cycle());
        EXPECT_TRUE(home->lab.node().exists("/tmp/telemetry/telemetry.broken"));
        body = home->lab.cloud().requests("upload").back().body;
    }
    static void TearDownTestSuite() {
        EXPECT_EQ(home->stop(), "");
        delete first;
        delete home;
    }

    static inline HomeLab *home;
    static inline std::vector<UploadedRecord> *first;
    static inline std::string body;
};

// UPDATE_GOLDEN=1 in the environment writes the file anew, after a change that is meant.
TEST_F(HomeRecords, AreTheGoldenBytes) {
    if (getenv("UPDATE_GOLDEN") != nullptr)
        lab::write_file(kGoldenFile, body + "\n");
    const std::string golden = lab::read_file(kGoldenFile);
    ASSERT_FALSE(golden.empty());
    const auto difference = std::mismatch(body.begin(), body.end(), golden.begin(), golden.end() - 1);
    const auto at = static_cast<size_t>(difference.first - body.begin());
    EXPECT_EQ(body + "\n" == golden, true)
        << "first difference at byte " << at << "\nsent:   " << body.substr(at > 60 ? at - 60 : 0, 160)
        << "\ngolden: " << golden.substr(at > 60 ? at - 60 : 0, 160);
}

TEST_F(HomeRecords, AreWhatTheDictionarySays) {
    const std::string file = home->lab.directory() + "/upload.json";
    lab::write_file(file, body);
    const lab::CommandResult checked = lab::run_command(
        {"/usr/bin/python3", TEST_SOURCE_DIR "/scripts/records_schema.py", "--check", file}, {}, 30000);
    EXPECT_EQ(checked.status, 0) << checked.out;
}

TEST_F(HomeRecords, NameNobody) {
    const lab::Scenario &scenario = home->lab.scenario();
    std::set<std::string> forbidden = {"hush", "198.51.100.1", "2001:db8", "203.0.113."};
    std::set<std::string> digests;
    const auto forbid_mac = [&](const std::string &mac) {
        for (const char *by : {":", "-", ""})
            forbidden.insert(lower(separated(mac, by)));
        digests.insert(digest_of(mac));
    };
    for (const lab::ScenarioNode &node : scenario.nodes) {
        forbid_mac(node.mac);
        forbidden.insert(node.ip);
    }
    for (const lab::ScenarioClient &client : scenario.clients) {
        forbid_mac(client.mac);
        forbidden.insert({client.ip, lower(client.hostname)});
    }
    for (const auto &[package, section] : {std::pair("wifi", "ap"), {"wifi", "guest"}, {"iot_wifi", "iot"}}) {
        const std::string ssid = home->lab.node().config(package, section, "ssid");
        ASSERT_NE(ssid, "") << package << " " << section;
        forbidden.insert(lower(ssid));
    }
    ASSERT_GT(forbidden.size(), 28U * 3 + 28 + 25);
    const std::string sent = lower(body);
    for (const std::string &text : forbidden)
        EXPECT_THAT(sent, Not(HasSubstr(text)));

    // Whatever looks like a digest is one of an address of the scenario, and each address has one.
    std::set<std::string> found;
    for (size_t at = 0; (at = sent.find('"', at)) != sent.npos; ++at) {
        const std::string text = sent.substr(at + 1, sent.find('"', at + 1) - at - 1);
        if (text.size() == 32 && text.find_first_not_of("0123456789abcdef") == text.npos)
            found.insert(text);
    }
    EXPECT_EQ(found, digests);
}

} // namespace
