// The three calls of the cloud's API: checks the signature and the body of a request, and makes the regular
// answer.
#pragma once

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

struct Strategy {
    std::string id, content; // no id: none for anybody
};

// What the API makes of one request.
struct ApiResult {
    StoredRequest request; // to be stored; its verdict is the API's own until a script changes it
    std::string answer;
    std::string device;
    StoredKey issued; // by an accepted "key" call
    std::string issued_for_mac;
    std::vector<StoredRecord> records; // of an accepted "upload" call
};

// "key", "strategy", "upload", or "" for a path that is none of them.
std::string api_call_of_path(const std::string &path);

// Judges one request. `headers` is the text to be stored, the two others are single header values ("" when
// absent).
ApiResult api_handle(Store &store, const Strategy &strategy, const std::string &path,
                     const std::string &headers, const std::string &content_type,
                     const std::string &authorization, const std::string &body);

// The signature that belongs to a request: 40 lowercase hexadecimal digits.
std::string api_signature(const std::string &body, const std::string &stamp, const std::string &path,
                          const std::string &secret);

// Raw text of the elements of a JSON array and of an object's member; the text is known to be JSON.
std::vector<std::string_view> api_raw_elements(std::string_view array);
std::string_view api_raw_member(std::string_view object, std::string_view name);
