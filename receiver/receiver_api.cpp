#include "receiver_api.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include "receiver_json.h"

using namespace receiver_json;

namespace {

constexpr size_t kMaxDevice = 128, kMaxEid = 64, kMaxKeyText = 128, kMaxNumber = 32;
constexpr size_t kMaxRecords = 20000;
constexpr double kMaxTime = 1e12;

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

std::string digest_text(const EVP_MD *kind, const std::string &text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, kind, nullptr);
    return hexadecimal(digest, length);
}

std::string random_text(size_t bytes) {
    unsigned char random[64];
    RAND_bytes(random, static_cast<int>(bytes));
    return hexadecimal(random, bytes);
}

// A text that any database takes: neither empty nor long, valid UTF-8 without control characters.
bool is_plain(const cJSON *item, size_t max) {
    if (!cJSON_IsString(item) || !*item->valuestring || strlen(item->valuestring) > max)
        return false;
    int follow = 0;
    for (const char *at = item->valuestring; *at; at++) {
        const auto c = static_cast<unsigned char>(*at);
        if ((c & 0xC0) == 0x80) {
            if (follow-- == 0)
                return false;
            continue;
        }
        if (follow != 0 || c < 0x20 || c == 0xC0 || c == 0xC1 || c > 0xF4)
            return false;
        follow = c < 0x80 ? 0 : c < 0xE0 ? 1 : c < 0xF0 ? 2 : 3;
        const auto next = static_cast<unsigned char>(at[1]);
        // Overlong forms, surrogates, and what is above the last character.
        if ((c == 0xE0 && next < 0xA0) || (c == 0xED && next > 0x9F) || (c == 0xF0 && next < 0x90) ||
            (c == 0xF4 && next > 0x8F))
            return false;
    }
    return follow == 0;
}

// The object has these members as texts; in a strict judgement in this order, and no others but `more` behind
// them.
template <size_t N>
bool has_texts(const cJSON *object, const std::array<ExpectedText, N> &expected, bool strict, int more = 0) {
    if (!cJSON_IsObject(object))
        return false;
    const cJSON *next = object->child;
    for (const ExpectedText &text : expected) {
        const cJSON *item = strict ? next : cJSON_GetObjectItemCaseSensitive(object, text.name);
        if (!cJSON_IsString(item) || std::string_view(item->string) != text.name ||
            (text.value && std::string_view(item->valuestring) != text.value))
            return false;
        next = item->next;
    }
    return !strict || cJSON_GetArraySize(object) <= static_cast<int>(N) + more;
}

// Member number `position` in a strict judgement, wherever it stands otherwise; null when it is not there.
const cJSON *member(const cJSON *object, const char *name, int position, bool strict) {
    const cJSON *item =
        strict ? cJSON_GetArrayItem(object, position) : cJSON_GetObjectItemCaseSensitive(object, name);
    return item && std::string_view(item->string) == name ? item : nullptr;
}

bool is_token(std::string_view text, size_t max) {
    return !text.empty() && text.size() <= max &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return c > 0x20 && c < 0x7F; });
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
    return !stamp.empty() && stamp.size() <= 10 && stamp.find_first_not_of("0123456789") == stamp.npos &&
           is_token(key, kMaxKeyText);
}

// Of equal texts and of others in the same time, so that no digit of a signature can be found by trying.
bool same_secret(const std::string &a, const std::string &b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

// 0, or the error code for a missing, wrong, stale or expired signature. `device`: whom the key was issued
// to.
// Of all calls but the upload: a daemon's have 600 bytes, and a tree takes forty times what its text does.
constexpr size_t kMaxShortBody = 16 << 10;

int check_signature(Store &store, const ApiOptions &options, const ApiRequest &asked, StoredRequest &request,
                    std::string &device) {
    std::string signature;
    request.signature = 0;
    if (!split_authorization(asked.authorization, request.stamp, request.access_key, signature))
        return kSignatureError;
    const std::optional<StoredKey> key = store.find_key(request.access_key);
    // Only this answer makes a daemon ask for another key: after any other it keeps its own for ever.
    if (!key && !options.strict)
        return kKeyExpired;
    if (!key ||
        !same_secret(api_signature(asked.body, request.stamp, asked.path, key->access_secret), signature))
        return kSignatureError;
    if (options.max_skew > 0 && std::abs(asked.now - atoll(request.stamp.c_str())) > options.max_skew)
        return kSignatureError;
    request.signature = 1;
    device = key->device;
    const bool is_old = key->issued > 0 && asked.now - key->issued > options.key_lifetime;
    return key->expired || is_old ? kKeyExpired : 0;
}

int handle_key(const cJSON *body, const ApiOptions &options, int64_t now, ApiResult &result) {
    const cJSON *device = cJSON_GetObjectItemCaseSensitive(body, "deviceId");
    const cJSON *mac = cJSON_GetObjectItemCaseSensitive(body, "mac");
    if (!has_texts(body, kKeyBody, options.strict) || !is_plain(device, kMaxDevice) ||
        !is_plain(mac, kMaxDevice))
        return kDeviceError;
    if (!options.devices.empty() && !options.devices.contains(device->valuestring))
        return kDeviceError;
    result.issued_for_mac = mac->valuestring;
    result.issued = {"ak-" + random_text(16), random_text(32), false, device->valuestring, now};
    result.answer = R"({"error_code":0,"result":{"expiresIn":)" + std::to_string(options.key_lifetime) +
                    R"(,"accessKey":")" + result.issued.access_key + R"(","accessSecret":")" +
                    result.issued.access_secret + R"("}})";
    return 0;
}

int handle_strategy(const cJSON *body, Store &store, bool strict, const std::string &owner,
                    ApiResult &result) {
    const cJSON *device = cJSON_GetObjectItemCaseSensitive(body, "deviceId");
    const cJSON *held = cJSON_GetObjectItemCaseSensitive(body, "strategyId");
    if (!has_texts(body, kStrategyBody, strict, held ? 1 : 0) || !is_plain(device, kMaxDevice) ||
        (held && !is_plain(held, kMaxDevice)))
        return kDeviceError;
    if (!owner.empty() && owner != device->valuestring)
        return kDeviceError;
    const Strategy strategy = store.strategy(device->valuestring);
    if (strategy.id.empty())
        return kNoStrategy;
    result.answer = R"({"error_code":0})";
    if (!held || held->valuestring != strategy.id) {
        JsonTree answer(cJSON_CreateObject());
        cJSON_AddNumberToObject(answer.get(), "error_code", 0);
        cJSON *content = cJSON_AddObjectToObject(answer.get(), "result");
        cJSON_AddStringToObject(content, "strategyId", strategy.id.c_str());
        cJSON_AddStringToObject(content, "strategyContent", strategy.content.c_str());
        result.answer = print_json(answer.get());
    }
    return 0;
}

// One record of an upload, taken from its own bytes.
bool take_record(const cJSON *record, std::string_view raw, bool strict, StoredRecord &taken) {
    const cJSON *eid = member(record, "eid", 0, strict), *ct = member(record, "ct", 1, strict);
    const cJSON *ep = member(record, "ep", 2, strict);
    if (!is_plain(eid, kMaxEid) || !cJSON_IsNumber(ct) || !cJSON_IsObject(ep) ||
        (strict && cJSON_GetArraySize(record) != 3))
        return false;
    taken.eid = eid->valuestring;
    taken.ct = api_raw_member(raw, "ct");
    taken.payload = api_raw_member(raw, "ep");
    // An escaped name is found by one reader and not by the other: nobody sends that in good faith.
    if (taken.ct.empty() || taken.ct.size() > kMaxNumber || taken.payload.empty())
        return false;
    taken.at = ct->valuedouble > 0 && ct->valuedouble < kMaxTime ? static_cast<int64_t>(ct->valuedouble) : 0;
    return true;
}

int handle_upload(const cJSON *body, const ApiRequest &asked, bool strict, const std::string &owner,
                  ApiResult &result) {
    const cJSON *sender = member(body, "sr", 0, strict), *source = member(body, "srp", 1, strict);
    const cJSON *list = member(body, "el", 2, strict);
    if (!cJSON_IsString(sender) || std::string_view(sender->valuestring) != "device" ||
        !cJSON_IsObject(source) || !cJSON_IsArray(list) || (strict && cJSON_GetArraySize(body) != 3))
        return kDataError;
    const cJSON *device = cJSON_GetObjectItemCaseSensitive(source, "di");
    if (!has_texts(source, kDeviceBody, strict) || !is_plain(device, kMaxDevice) ||
        (!owner.empty() && owner != device->valuestring))
        return kDeviceError;

    const cJSON *model = cJSON_GetObjectItemCaseSensitive(source, "dm");
    const cJSON *firmware = cJSON_GetObjectItemCaseSensitive(source, "dfv");
    Upload upload;
    upload.device = device->valuestring;
    upload.model = is_plain(model, kMaxDevice) ? model->valuestring : "";
    upload.firmware = is_plain(firmware, kMaxDevice) ? firmware->valuestring : "";
    // A strict judge takes every upload: where a test's clock stands still, two cycles have the same bytes.
    upload.digest = strict ? random_text(32) : digest_text(EVP_sha256(), asked.body);
    upload.bytes = asked.body.size();
    upload.received = asked.now;
    const std::vector<std::string_view> raw = api_raw_elements(api_raw_member(asked.body, "el"));
    const cJSON *record;
    cJSON_ArrayForEach(record, list) {
        const size_t index = upload.records.size();
        StoredRecord taken;
        if (index >= std::min(raw.size(), kMaxRecords) || !take_record(record, raw[index], strict, taken))
            return kDataError;
        upload.records.push_back(std::move(taken));
    }
    result.upload = std::move(upload);
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

ApiResult api_handle(Store &store, const ApiOptions &options, const ApiRequest &asked) {
    ApiResult result;
    StoredRequest &request = result.request;
    request.call = api_call_of_path(asked.path);
    request.path = asked.path;
    request.headers = asked.headers;
    request.body = asked.body;

    int code = 0;
    std::string owner;
    if (request.call != "upload" && asked.body.size() > kMaxShortBody)
        code = kDataError;
    else if (request.call != "key" && !request.call.empty())
        code = check_signature(store, options, asked, request, owner);
    JsonTree tree;
    if (code == 0 && asked.content_type != "application/json") {
        code = kRequestRejected;
    } else if (code == 0) {
        const char *end = nullptr;
        tree.reset(cJSON_ParseWithLengthOpts(asked.body.c_str(), asked.body.size() + 1, &end, 1));
        code = cJSON_IsObject(tree.get()) ? 0 : kDataError;
    }
    if (code == 0 && request.call == "key")
        code = handle_key(tree.get(), options, asked.now, result);
    else if (code == 0 && request.call == "strategy")
        code = handle_strategy(tree.get(), store, options.strict, owner, result);
    else if (code == 0 && request.call == "upload")
        code = handle_upload(tree.get(), asked, options.strict, owner, result);
    else if (code == 0)
        code = kRequestRejected;

    request.error_code = code;
    request.verdict = code == 0 || code == kNoStrategy ? "accepted" : "refused";
    if (code != 0)
        result.answer = "{\"error_code\":" + std::to_string(code) + "}";
    return result;
}
