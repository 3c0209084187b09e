#include "receiver_api.h"

#include <array>
#include <cctype>
#include <cstdio>

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include "receiver_json.h"

namespace {

struct ApiPath {
    std::string_view call, path;
};
constexpr std::array<ApiPath, 3> kPaths = {{
    {"key", "/api/data/device/getAccessKey"},
    {"strategy", "/api/data/device/strategy/getDataCollectStrategy"},
    {"upload", "/api/data/device/uploadBasicData"},
}};

struct ExpectedText {
    const char *name;
    const char *value; // null: any text
};
constexpr std::array<ExpectedText, 3> kKeyBody = {
    {{"deviceId", nullptr}, {"hwId", nullptr}, {"mac", nullptr}}};
constexpr std::array<ExpectedText, 2> kStrategyBody = {
    {{"deviceId", nullptr}, {"deviceType", "HOMEWIFISYSTEM"}}};
constexpr std::array<ExpectedText, 7> kDeviceBody = {{{"di", nullptr},
                                                      {"dt", "HOMEWIFISYSTEM"},
                                                      {"dhv", nullptr},
                                                      {"oemId", nullptr},
                                                      {"dfv", nullptr},
                                                      {"dm", nullptr},
                                                      {"dcg", "router"}}};

std::string hexadecimal(const unsigned char *bytes, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; i++) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", bytes[i]);
        text += digits;
    }
    return text;
}

std::string random_text(size_t bytes) {
    unsigned char random[64];
    RAND_bytes(random, static_cast<int>(bytes));
    return hexadecimal(random, bytes);
}

// The members from `item` on are exactly these texts, in this order; `item` moves behind them.
template <size_t N> bool take_texts(const cJSON *&item, const std::array<ExpectedText, N> &expected) {
    for (const ExpectedText &text : expected) {
        if (!cJSON_IsString(item) || std::string_view(item->string) != text.name ||
            (text.value && std::string_view(item->valuestring) != text.value))
            return false;
        item = item->next;
    }
    return true;
}

// Takes "Id=...,AccessKey=...,Signature=..." apart; false when it is anything else.
bool split_authorization(const std::string &text, std::string &stamp, std::string &key,
                         std::string &signature) {
    constexpr std::string_view kId = "Id=", kKey = ",AccessKey=", kSignature = ",Signature=";
    size_t key_at = text.find(kKey), signature_at = text.find(kSignature);
    if (!text.starts_with(kId) || key_at == text.npos || signature_at == text.npos || signature_at < key_at)
        return false;
    stamp = text.substr(kId.size(), key_at - kId.size());
    key = text.substr(key_at + kKey.size(), signature_at - key_at - kKey.size());
    signature = text.substr(signature_at + kSignature.size());
    return !stamp.empty() && stamp.size() <= 10 && stamp.find_first_not_of("0123456789") == stamp.npos;
}

// 0, or the error code for a missing, wrong or expired signature.
int check_signature(Store &store, const std::string &authorization, const std::string &body,
                    StoredRequest &request) {
    std::string signature;
    request.signature = 0;
    if (!split_authorization(authorization, request.stamp, request.access_key, signature))
        return kSignatureError;
    std::optional<StoredKey> key = store.find_key(request.access_key);
    if (!key || api_signature(body, request.stamp, request.path, key->access_secret) != signature)
        return kSignatureError;
    request.signature = 1;
    return key->expired ? kKeyExpired : 0;
}

int handle_key(const cJSON *body, ApiResult &result) {
    const cJSON *item = body->child;
    if (!take_texts(item, kKeyBody) || item)
        return kDeviceError;
    result.device = json_text(body, "deviceId");
    result.issued_for_mac = json_text(body, "mac");
    result.issued = {"ak-" + random_text(16), random_text(32), false};
    result.answer = R"({"error_code":0,"result":{"expiresIn":86400,"accessKey":")" +
                    result.issued.access_key + R"(","accessSecret":")" + result.issued.access_secret +
                    R"("}})";
    return 0;
}

int handle_strategy(const cJSON *body, const Strategy &strategy, ApiResult &result) {
    const cJSON *item = body->child;
    if (!take_texts(item, kStrategyBody))
        return kDeviceError;
    result.device = json_text(body, "deviceId");
    std::string held;
    if (item) {
        if (!cJSON_IsString(item) || std::string_view(item->string) != "strategyId" || item->next ||
            !*item->valuestring)
            return kDeviceError;
        held = item->valuestring;
    }
    if (strategy.id.empty())
        return kNoStrategy;
    result.answer = R"({"error_code":0})";
    if (held != strategy.id) {
        JsonTree answer(cJSON_CreateObject());
        cJSON_AddNumberToObject(answer.get(), "error_code", 0);
        cJSON *content = cJSON_AddObjectToObject(answer.get(), "result");
        cJSON_AddStringToObject(content, "strategyId", strategy.id.c_str());
        cJSON_AddStringToObject(content, "strategyContent", strategy.content.c_str());
        result.answer = print_json(answer.get());
    }
    return 0;
}

int handle_upload(const cJSON *body, const std::string &raw, ApiResult &result) {
    const cJSON *sender = body->child;
    const cJSON *device = sender ? sender->next : nullptr;
    const cJSON *list = device ? device->next : nullptr;
    if (!list || list->next || std::string_view(sender->string) != "sr" || !cJSON_IsString(sender) ||
        std::string_view(sender->valuestring) != "device" || std::string_view(device->string) != "srp" ||
        !cJSON_IsObject(device) || std::string_view(list->string) != "el" || !cJSON_IsArray(list))
        return kDataError;
    const cJSON *item = device->child;
    if (!take_texts(item, kDeviceBody) || item)
        return kDeviceError;
    result.device = json_text(device, "di");

    std::vector<std::string_view> raw_records = api_raw_elements(api_raw_member(raw, "el"));
    size_t index = 0;
    const cJSON *record;
    cJSON_ArrayForEach(record, list) {
        const cJSON *eid = record->child;
        const cJSON *ct = eid ? eid->next : nullptr;
        const cJSON *ep = ct ? ct->next : nullptr;
        if (!ep || ep->next || !cJSON_IsString(eid) || std::string_view(eid->string) != "eid" ||
            !cJSON_IsNumber(ct) || std::string_view(ct->string) != "ct" || !cJSON_IsObject(ep) ||
            std::string_view(ep->string) != "ep" || index >= raw_records.size()) {
            result.records.clear();
            return kDataError;
        }
        std::string_view text = raw_records[index++];
        result.records.push_back({eid->valuestring, std::string(api_raw_member(text, "ct")),
                                  std::string(api_raw_member(text, "ep"))});
    }
    result.answer = R"({"error_code":0})";
    return 0;
}

size_t skip_space(std::string_view text, size_t at) {
    while (at < text.size() && isspace(static_cast<unsigned char>(text[at])))
        at++;
    return at;
}

size_t skip_string(std::string_view text, size_t at) {
    for (at++; at < text.size() && text[at] != '"'; at++) {
        if (text[at] == '\\')
            at++;
    }
    return at + 1;
}

// Position behind the value that begins at `at`.
size_t skip_value(std::string_view text, size_t at) {
    int depth = 0;
    while (at < text.size()) {
        char c = text[at];
        if (c == '"') {
            at = skip_string(text, at);
        } else if (c == '{' || c == '[') {
            depth++;
            at++;
        } else if (c == '}' || c == ']' || c == ',' || isspace(static_cast<unsigned char>(c))) {
            if (depth == 0)
                return at;
            depth -= c == '}' || c == ']' ? 1 : 0;
            at++;
        } else {
            at++;
        }
        if (depth == 0 && (c == '"' || c == '}' || c == ']'))
            return at;
    }
    return text.size();
}

} // namespace

std::string api_call_of_path(const std::string &path) {
    for (const ApiPath &entry : kPaths) {
        if (entry.path == path)
            return std::string(entry.call);
    }
    return "";
}

std::string api_signature(const std::string &body, const std::string &stamp, const std::string &path,
                          const std::string &secret) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(body.data(), body.size(), digest, &length, EVP_md5(), nullptr);
    unsigned char encoded[32];
    EVP_EncodeBlock(encoded, digest, static_cast<int>(length));
    std::string text = std::string(reinterpret_cast<char *>(encoded)) + "\n" + stamp + "\n" + path;
    HMAC(EVP_sha1(), secret.data(), static_cast<int>(secret.size()),
         reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest, &length);
    return hexadecimal(digest, length);
}

std::vector<std::string_view> api_raw_elements(std::string_view array) {
    std::vector<std::string_view> elements;
    size_t at = skip_space(array, skip_space(array, 0) + 1);
    while (at < array.size() && array[at] != ']') {
        size_t end = skip_value(array, at);
        elements.push_back(array.substr(at, end - at));
        at = skip_space(array, end);
        if (at < array.size() && array[at] == ',')
            at = skip_space(array, at + 1);
    }
    return elements;
}

std::string_view api_raw_member(std::string_view object, std::string_view name) {
    size_t at = skip_space(object, skip_space(object, 0) + 1);
    while (at < object.size() && object[at] == '"') {
        size_t key_end = skip_string(object, at);
        std::string_view key = object.substr(at + 1, key_end - at - 2);
        at = skip_space(object, skip_space(object, key_end) + 1);
        size_t end = skip_value(object, at);
        if (key == name)
            return object.substr(at, end - at);
        at = skip_space(object, end);
        if (at < object.size() && object[at] == ',')
            at = skip_space(object, at + 1);
    }
    return {};
}

ApiResult api_handle(Store &store, const Strategy &strategy, const std::string &path,
                     const std::string &headers, const std::string &content_type,
                     const std::string &authorization, const std::string &body) {
    ApiResult result;
    StoredRequest &request = result.request;
    request.call = api_call_of_path(path);
    request.path = path;
    request.headers = headers;
    request.body = body;

    int code = 0;
    if (request.call != "key" && !request.call.empty())
        code = check_signature(store, authorization, body, request);
    const char *end = nullptr;
    JsonTree tree(cJSON_ParseWithLengthOpts(body.c_str(), body.size() + 1, &end, 1));
    if (code == 0 && content_type != "application/json")
        code = kRequestRejected;
    else if (code == 0 && !cJSON_IsObject(tree.get()))
        code = kDataError;
    if (code == 0 && request.call == "key")
        code = handle_key(tree.get(), result);
    else if (code == 0 && request.call == "strategy")
        code = handle_strategy(tree.get(), strategy, result);
    else if (code == 0 && request.call == "upload")
        code = handle_upload(tree.get(), body, result);
    else if (code == 0)
        code = kRequestRejected;

    request.error_code = code;
    request.verdict = code == 0 || code == kNoStrategy ? "accepted" : "refused";
    if (code != 0)
        result.answer = "{\"error_code\":" + std::to_string(code) + "}";
    return result;
}
