// The lab's cloud judges the daemon in every end to end test, so it is judged here by an independent client: curl for the
// transport, this file's own signature.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "lab.h"

namespace {

constexpr char kKeyPath[] = "/api/data/device/getAccessKey";
constexpr char kStrategyPath[] = "/api/data/device/strategy/getDataCollectStrategy";
constexpr char kUploadPath[] = "/api/data/device/uploadBasicData";
constexpr char kKeyBody[] = R"({"deviceId":"D","hwId":"H","mac":"AABBCCDDEEFF"})";
constexpr char kStrategyBody[] = R"({"deviceId":"D","deviceType":"HOMEWIFISYSTEM"})";

std::string upload_body(const std::string &records) {
    return R"({"sr":"device","srp":{"di":"D","dt":"HOMEWIFISYSTEM","dhv":"1","oemId":"O","dfv":"1.0","dm":"M",)"
           R"("dcg":"router"},"el":[)" +
           records + "]}";
}

struct Answer {
    int transport = -1; // curl's result
    std::string body;
};

size_t take_body(const char *data, size_t size, size_t count, std::string *body) {
    body->append(data, size * count);
    return size * count;
}

std::string hexadecimal_hmac(const std::string &text, const std::string &secret) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    HMAC(EVP_sha1(), secret.data(), static_cast<int>(secret.size()),
         reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest, &length);
    std::string out;
    for (unsigned i = 0; i < length; i++) {
        out += "0123456789abcdef"[digest[i] >> 4];
        out += "0123456789abcdef"[digest[i] & 15];
    }
    return out;
}

std::string base64_md5(const std::string &body) {
    unsigned char digest[EVP_MAX_MD_SIZE], text[64];
    unsigned length = 0;
    EVP_Digest(body.data(), body.size(), digest, &length, EVP_md5(), nullptr);
    EVP_EncodeBlock(text, digest, static_cast<int>(length));
    return reinterpret_cast<char *>(text);
}

class LabCloudTest : public testing::Test {
  protected:
    void SetUp() override {
        cloud_.start(lab::default_bin_dir(), directory_.path());
    }

    Answer post(const char *path, const std::string &body, const std::string &authorization = "",
                long timeout_ms = 20000) {
        Answer answer;
        std::unique_ptr<CURL, void (*)(CURL *)> easy(curl_easy_init(), curl_easy_cleanup);
        curl_slist *list = curl_slist_append(nullptr, "Content-Type: application/json");
        if (!authorization.empty())
            list = curl_slist_append(list, ("X-Authorization:" + authorization).c_str());
        std::string ca = directory_.path() + "/ca.cer";
        curl_easy_setopt(easy.get(), CURLOPT_URL, ("https://" + cloud_.address() + path).c_str());
        curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, list);
        curl_easy_setopt(easy.get(), CURLOPT_CAINFO, ca.c_str());
        curl_easy_setopt(easy.get(), CURLOPT_NOPROXY, "*");
        curl_easy_setopt(easy.get(), CURLOPT_TIMEOUT_MS, timeout_ms);
        curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, take_body);
        curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &answer.body);
        answer.transport = curl_easy_perform(easy.get());
        curl_slist_free_all(list);
        return answer;
    }

    lab::CloudKey fetch_key() {
        lab::JsonTree answer = lab::parse_json(post(kKeyPath, kKeyBody).body, "key answer");
        const cJSON *result = cJSON_GetObjectItemCaseSensitive(answer.get(), "result");
        return {lab::json_text(result, "accessKey"), lab::json_text(result, "accessSecret"), false};
    }

    static std::string sign(const std::string &body, const char *path, const lab::CloudKey &key,
                            const std::string &stamp = "1700000000") {
        std::string signature = hexadecimal_hmac(base64_md5(body) + "\n" + stamp + "\n" + path, key.access_secret);
        return "Id=" + stamp + ",AccessKey=" + key.access_key + ",Signature=" + signature;
    }

    Answer signed_post(const char *path, const std::string &body, const lab::CloudKey &key) {
        return post(path, body, sign(body, path, key));
    }

    lab::RunDirectory directory_;
    lab::LabCloud cloud_;
};

constexpr char kOk[] = R"({"error_code":0})";

TEST_F(LabCloudTest, KeepsTheBytesOfASignedUpload) {
    lab::CloudKey key = fetch_key();
    EXPECT_NE(key.access_key, fetch_key().access_key);
    std::string body = upload_body(R"({"eid":"a_info","ct":1700000000,"ep":{"x":1.50,"s":"q\"}],"}},)"
                                   R"({"eid":"b_info","ct":1700000001,"ep":{"l":[1,{"m":[]}],"big":123456789012.00}})");
    EXPECT_EQ(signed_post(kUploadPath, body, key).body, kOk);

    auto records = cloud_.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].eid, "a_info");
    EXPECT_EQ(records[0].payload, R"({"x":1.50,"s":"q\"}],"})");
    EXPECT_EQ(records[1].ct, "1700000001");
    EXPECT_EQ(records[1].payload, R"({"l":[1,{"m":[]}],"big":123456789012.00})");
    auto requests = cloud_.requests("upload");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].body, body);
    EXPECT_EQ(requests[0].signature, 1);
    EXPECT_NE(requests[0].headers.find("X-Authorization: Id=1700000000,AccessKey=" + key.access_key), std::string::npos);
    EXPECT_EQ(cloud_.count("keys"), 2);
}

TEST_F(LabCloudTest, RefusesEverySignatureThatIsNotExactlyRight) {
    lab::CloudKey key = fetch_key();
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
        EXPECT_EQ(post(kUploadPath, body, authorization).body, R"({"error_code":-10301})") << name;
    EXPECT_EQ(cloud_.count("invalid_signatures"), static_cast<long>(std::size(cases)));
    EXPECT_EQ(cloud_.count("posts"), 0);
    EXPECT_EQ(post(kUploadPath, body, right).body, kOk);
}

TEST_F(LabCloudTest, RefusesBodiesThatAreNotTheContract) {
    lab::CloudKey key = fetch_key();
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
        EXPECT_EQ(signed_post(one.path, one.body, key).body, "{\"error_code\":" + std::to_string(one.code) + "}")
            << one.body;
    EXPECT_EQ(cloud_.count("records"), 0);
}

TEST_F(LabCloudTest, HandsOutStrategiesAndExpiresKeys) {
    lab::CloudKey key = fetch_key();
    EXPECT_EQ(signed_post(kStrategyPath, kStrategyBody, key).body, R"({"error_code":-20000})");
    cloud_.set_strategy("s\"1", "post_interval=1\n");
    EXPECT_EQ(signed_post(kStrategyPath, kStrategyBody, key).body,
              R"({"error_code":0,"result":{"strategyId":"s\"1","strategyContent":"post_interval=1\n"}})");
    std::string holding = R"({"deviceId":"D","deviceType":"HOMEWIFISYSTEM","strategyId":"s\"1"})";
    EXPECT_EQ(signed_post(kStrategyPath, holding, key).body, kOk);

    cloud_.expire_keys();
    EXPECT_EQ(signed_post(kStrategyPath, holding, key).body, R"({"error_code":-10304})");
    EXPECT_EQ(cloud_.count("invalid_signatures"), 0);
    EXPECT_EQ(signed_post(kStrategyPath, holding, fetch_key()).body, kOk);
    cloud_.add_key("mine", "secret");
    EXPECT_EQ(signed_post(kStrategyPath, holding, {"mine", "secret", false}).body, kOk);
}

TEST_F(LabCloudTest, MisbehavesAsScriptedAndThenBehaves) {
    cloud_.script("key", R"([{"kind":"error_code","code":-10306,"times":2},{"kind":"empty"},{"kind":"no_members"},
        {"kind":"raw","text":"[1"},{"kind":"wrong_type"},{"kind":"huge"},{"kind":"garbage"},
        {"kind":"ok","status":500}])");
    EXPECT_EQ(post(kKeyPath, kKeyBody).body, R"({"error_code":-10306})");
    EXPECT_EQ(post(kKeyPath, kKeyBody).body, R"({"error_code":-10306})");
    EXPECT_EQ(post(kKeyPath, kKeyBody).body, "");
    EXPECT_EQ(post(kKeyPath, kKeyBody).body, "{}");
    EXPECT_EQ(post(kKeyPath, kKeyBody).body, "[1");
    EXPECT_TRUE(lab::parse_json(post(kKeyPath, kKeyBody).body, "answer with wrong types"));
    EXPECT_EQ(post(kKeyPath, kKeyBody).body.size(), size_t{10} << 20);
    EXPECT_EQ(cJSON_Parse(post(kKeyPath, kKeyBody).body.c_str()), nullptr);
    EXPECT_EQ(cloud_.count("keys"), 0);
    EXPECT_FALSE(fetch_key().access_key.empty()); // with HTTP status 500
    EXPECT_FALSE(fetch_key().access_key.empty());
    EXPECT_EQ(cloud_.count("pending_steps"), 0);
    EXPECT_THROW(cloud_.script("key", R"([{"kind":"sing"}])"), std::runtime_error);
    EXPECT_THROW(cloud_.script("connect", R"([{"kind":"empty"}])"), std::runtime_error);
}

TEST_F(LabCloudTest, BreaksConnectionsAndComesBack) {
    cloud_.script("connect", R"([{"kind":"unknown_ca"},{"kind":"wrong_host"},{"kind":"expired"},{"kind":"cut"}])");
    EXPECT_EQ(post(kKeyPath, kKeyBody).transport, CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(post(kKeyPath, kKeyBody).transport, CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(post(kKeyPath, kKeyBody).transport, CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(post(kKeyPath, kKeyBody).transport, CURLE_SSL_CONNECT_ERROR);
    cloud_.script("key", R"([{"kind":"cut"},{"kind":"cut_body"},{"kind":"ok","delay_ms":60000}])");
    EXPECT_EQ(post(kKeyPath, kKeyBody).transport, CURLE_GOT_NOTHING);
    EXPECT_EQ(post(kKeyPath, kKeyBody).transport, CURLE_PARTIAL_FILE);
    EXPECT_EQ(post(kKeyPath, kKeyBody, "", 200).transport, CURLE_OPERATION_TIMEDOUT);
    cloud_.down(); // does not wait for the slow answer
    EXPECT_EQ(post(kKeyPath, kKeyBody).transport, CURLE_COULDNT_CONNECT);
    cloud_.up();
    EXPECT_FALSE(fetch_key().access_key.empty());
}

} // namespace
