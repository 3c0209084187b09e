// The lab's cloud judges the daemon in every end to end test, so it is judged here by what it must refuse.
// That it takes what is right and misbehaves as scripted shows there.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "lab.h"
#include "telemetry_utils.h"

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

size_t take_body(const char *data, size_t size, size_t count, std::string *body) {
    body->append(data, size * count);
    return size * count;
}

class LabCloudTest : public testing::Test {
  protected:
    void SetUp() override {
        cloud_.start(lab::default_bin_dir(), directory_.path());
    }

    std::string post(const char *path, const std::string &body, const std::string &authorization = "") {
        std::string answer;
        const std::unique_ptr<CURL, void (*)(CURL *)> easy(curl_easy_init(), curl_easy_cleanup);
        curl_slist *list = curl_slist_append(nullptr, "Content-Type: application/json");
        if (!authorization.empty())
            list = curl_slist_append(list, ("X-Authorization:" + authorization).c_str());
        curl_easy_setopt(easy.get(), CURLOPT_URL, ("https://" + cloud_.address() + path).c_str());
        curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, list);
        curl_easy_setopt(easy.get(), CURLOPT_CAINFO, (directory_.path() + "/ca.cer").c_str());
        curl_easy_setopt(easy.get(), CURLOPT_NOPROXY, "*");
        curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, take_body);
        curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &answer);
        EXPECT_EQ(curl_easy_perform(easy.get()), CURLE_OK);
        curl_slist_free_all(list);
        return answer;
    }

    lab::CloudKey fetch_key() {
        lab::JsonTree answer = lab::parse_json(post(kKeyPath, kKeyBody), "key answer");
        const cJSON *result = cJSON_GetObjectItemCaseSensitive(answer.get(), "result");
        return {lab::json_text(result, "accessKey"), lab::json_text(result, "accessSecret"), false};
    }

    static std::string sign(const std::string &body, const char *path, const lab::CloudKey &key,
                            const std::string &stamp = "1700000000") {
        uint8_t digest[16], base64[25];
        char signature[41];
        md5_calc(digest, body.data(), body.size());
        EVP_EncodeBlock(base64, digest, sizeof(digest));
        const std::string text = reinterpret_cast<char *>(base64) + ("\n" + stamp + "\n") + path;
        hmac_sha1_encode(text.c_str(), 20, signature, key.access_secret.c_str());
        return "Id=" + stamp + ",AccessKey=" + key.access_key + ",Signature=" + signature;
    }

    lab::RunDirectory directory_;
    lab::LabCloud cloud_;
};

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
        EXPECT_EQ(post(kUploadPath, body, authorization), R"({"error_code":-10301})") << name;
    EXPECT_EQ(cloud_.count("invalid_signatures"), static_cast<long>(std::size(cases)));
    EXPECT_EQ(cloud_.count("posts"), 0);
    EXPECT_EQ(post(kUploadPath, body, right), R"({"error_code":0})");
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
        EXPECT_EQ(post(one.path, one.body, sign(one.body, one.path, key)),
                  "{\"error_code\":" + std::to_string(one.code) + "}")
            << one.body;
    EXPECT_EQ(cloud_.count("records"), 0);
    EXPECT_THROW(cloud_.script("key", R"([{"kind":"sing"}])"), std::runtime_error);
    EXPECT_THROW(cloud_.script("connect", R"([{"kind":"empty"}])"), std::runtime_error);
}

} // namespace
