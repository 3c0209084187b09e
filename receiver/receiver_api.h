// The three calls of the cloud's API: checks the signature and the body of a request, and makes the regular
// answer.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "receiver_store.h"

// Error codes that the cloud answers.
inline constexpr int kSignatureError = -10301;
inline constexpr int kKeyExpired = -10304;
inline constexpr int kRequestRejected = -10306;
inline constexpr int kDataError = -20105;
inline constexpr int kDeviceError = -20501;
inline constexpr int kNoStrategy = -20000;

struct ApiOptions {
    // Exactly what the daemon sends, members in its order and no others: for benches that judge the daemon.
    bool strict = false;
    // Largest distance between the signed time and ours, in s; 0: not checked.
    int64_t max_skew = 900;
    // Age in s at which a key has to be replaced; told with every key.
    int64_t key_lifetime = 86400;
    // Devices that may ask for keys; empty: any.
    std::set<std::string> devices = {};
};

struct ApiRequest {
    std::string path;
    std::string headers; // text to be kept
    std::string content_type, authorization;
    std::string body;
    int64_t now = 0; // s since 1970
};

// What the API makes of one request. Nothing is stored yet.
struct ApiResult {
    StoredRequest request; // its verdict is the API's own until a script changes it
    std::string answer;
    StoredKey issued; // by an accepted "key" call
    std::string issued_for_mac;
    Upload upload; // of an accepted "upload" call
};

// "key", "strategy", "upload", or "" for a path that is none of them.
std::string api_call_of_path(const std::string &path);

// Judges one request; the store is asked for keys and strategies. Throws StoreError.
ApiResult api_handle(Store &store, const ApiOptions &options, const ApiRequest &asked);

// The signature that belongs to a request: 40 lowercase hexadecimal digits.
std::string api_signature(const std::string &body, const std::string &stamp, const std::string &path,
                          const std::string &secret);

// Raw text of the elements of a JSON array and of an object's member; the text is known to be JSON.
std::vector<std::string_view> api_raw_elements(std::string_view array);
std::string_view api_raw_member(std::string_view object, std::string_view name);
