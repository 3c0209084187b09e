// Calls a receiver as a daemon does, or as one would that means harm.
#pragma once

#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include <curl/curl.h>
#include <openssl/evp.h>

#include "lab.h"
#include "telemetry_utils.h"

inline constexpr char kKeyPath[] = "/api/data/device/getAccessKey";
inline constexpr char kStrategyPath[] = "/api/data/device/strategy/getDataCollectStrategy";
inline constexpr char kUploadPath[] = "/api/data/device/uploadBasicData";
inline constexpr char kKeyBody[] = R"({"deviceId":"D","hwId":"H","mac":"AABBCCDDEEFF"})";

inline std::string upload_body(const std::string &records) {
    return R"({"sr":"device","srp":{"di":"D","dt":"HOMEWIFISYSTEM","dhv":"1","oemId":"O","dfv":"1.0","dm":"M",)"
           R"("dcg":"router"},"el":[)" +
           records + "]}";
}

inline std::string sign(const std::string &body, const char *path, const lab::CloudKey &key,
                        const std::string &stamp = std::to_string(time(nullptr))) {
    uint8_t digest[16], base64[25];
    char signature[41];
    md5_calc(digest, body.data(), body.size());
    EVP_EncodeBlock(base64, digest, sizeof(digest));
    const std::string text = reinterpret_cast<char *>(base64) + ("\n" + stamp + "\n") + path;
    hmac_sha1_encode(text.c_str(), 20, signature, key.access_secret.c_str());
    return "Id=" + stamp + ",AccessKey=" + key.access_key + ",Signature=" + signature;
}

struct CloudClient {
    std::string base, ca_file; // "https://127.0.0.1:PORT"
    long status = 0;           // of the last answer; 0: none came

    std::string post(const char *path, const std::string &body, const std::string &authorization = "") {
        std::string answer;
        const std::unique_ptr<CURL, void (*)(CURL *)> easy(curl_easy_init(), curl_easy_cleanup);
        curl_slist *list = curl_slist_append(nullptr, "Content-Type: application/json");
        if (!authorization.empty())
            list = curl_slist_append(list, ("X-Authorization:" + authorization).c_str());
        curl_easy_setopt(easy.get(), CURLOPT_URL, (base + path).c_str());
        curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
        curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, list);
        curl_easy_setopt(easy.get(), CURLOPT_CAINFO, ca_file.c_str());
        curl_easy_setopt(easy.get(), CURLOPT_NOPROXY, "*");
        curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, take);
        curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &answer);
        status = 0;
        if (curl_easy_perform(easy.get()) == CURLE_OK)
            curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
        curl_slist_free_all(list);
        return answer;
    }
    lab::CloudKey fetch_key() {
        const lab::JsonTree answer = lab::parse_json(post(kKeyPath, kKeyBody), "key answer");
        const cJSON *result = cJSON_GetObjectItemCaseSensitive(answer.get(), "result");
        return {lab::json_text(result, "accessKey"), lab::json_text(result, "accessSecret"), false};
    }
    std::string upload(const std::string &body, const lab::CloudKey &key) {
        return post(kUploadPath, body, sign(body, kUploadPath, key));
    }

  private:
    static size_t take(const char *data, size_t size, size_t count, std::string *body) {
        body->append(data, size * count);
        return size * count;
    }
};
