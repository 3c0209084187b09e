// Upload: the pool of HTTP requests, the state machine that keeps key and strategy fresh, the three cloud
// calls.
#pragma once

#include <cstdint>
#include <type_traits>

#include <curl/curl.h>

#include "telemetry_ctx.h"

inline constexpr int kPostHeaderLines = 8;
inline constexpr int kPostLineSize = 2049;
inline constexpr uint32_t kPostTimeoutMs = 8000;
inline constexpr uint32_t kPostPollMs = 100;
// Retry of the key and strategy calls when they could not be sent.
inline constexpr uint32_t kPostWaitMs = 30000;
// Largest answer that is kept; a longer one fails its transfer.
inline constexpr int32_t kPostMaxResponse = 1024 * 1024;

// Growable text: at least one zero byte always follows the used bytes.
struct PostBuffer {
    char *data; // malloc; null while nothing was appended
    int32_t used;
    int32_t capacity;
};

enum PostRequestStatus : int32_t {
    POST_REQUEST_OK = 0,
    POST_REQUEST_TIMED_OUT = 1,
    POST_REQUEST_FAILED = 2,
};

// One slot of the pool.
struct PostRequest {
    TelemetryCtx *owner; // set once
    uint32_t in_use;
    char headers[kPostHeaderLines][kPostLineSize];
    uint32_t header_count;
    char url[kPostLineSize];
    PostBuffer body;
    uint32_t timeout_ms; // whole transfer
    void (*on_complete)(PostRequest *request);
    uint8_t finished; // the transfer is over and its callback has run
    CURL *easy;
    curl_slist *header_list;
    uloop_timeout poll_timer;
    int32_t request_status; // PostRequestStatus of the last transfer
    long response_code;     // HTTP status of the last transfer
    PostBuffer response;
};

static_assert(std::is_standard_layout_v<PostRequest>, "the poll timer finds its slot by offset");

// --- Pool and buffers (telemetry_post_request.cpp) ---

// First free slot, taken; null when all are busy.
PostRequest *telemetry_post_alloc_request(TelemetryCtx *ctx);
// Slots that are taken; 0 without a context.
uint32_t telemetry_post_requests_in_use(const TelemetryCtx *ctx);
// Returns a slot to the pool; buffers keep their allocation.
void telemetry_post_free_request(PostRequest *request);
void telemetry_post_set_timeout(PostRequest *request, uint32_t ms);
// Base and path joined by one "/", at most 2048 characters; an empty base leaves the URL empty.
void telemetry_post_set_url(PostRequest *request, const char *base, const char *path);
// Appends a text to the body.
int add_curl_request_content(PostRequest *request, const char *text);
// Appends `count` bytes, growing in steps of 1024: the count, or -1.
int32_t telemetry_post_append_data(PostBuffer *buffer, const char *bytes, int32_t count);
// Appends the signature header: HMAC over the body's digest, the time and the path.
int add_curl_request_signature(PostRequest *request, const char *body, const char *secret, const char *path);

// --- Transport (telemetry_curl.cpp) ---

// Starts libcurl and allocates the slots.
int telemetry_init_post_request(TelemetryCtx *ctx);
// Whether libcurl's TLS library is OpenSSL and not another one, by its own word.
bool telemetry_post_uses_libcrypto();
// Starts the transfer of a prepared slot and its polling, every 100 ms.
void telemetry_request_send(PostRequest *request);
// Callback of a slot's poll timer.
void poll_curl_status(uloop_timeout *timer);
// Receive callback of libcurl.
size_t write_response_data_(const char *data, size_t size, size_t count, PostRequest *request);

// --- State machine (telemetry_post.cpp) ---

// Runs the action of the current state.
void telemetry_post_state_FSM(TelemetryCtx *ctx);
void telemetry_post_init_state(TelemetryCtx *ctx);
// Called by every failed call: doubles the wait, gives up after the fifth.
void telemetry_post_retry(TelemetryCtx *ctx);
void telemetry_post_reset_retry(TelemetryCtx *ctx);
// Sets the state, resets the retries and runs the new state's action.
void telemetry_post_enter_state(TelemetryCtx *ctx, TelemetryPostState state);
// Runs the state machine again in `ms`.
void telemetry_post_arm_retry_timer(TelemetryCtx *ctx, uint32_t ms);
void post_state_FSM_retry_cb(uloop_timeout *timer);
// What an `error_code` other than 0 means for the two signed calls.
void get_strategy_handle_error_code(TelemetryCtx *ctx, int error_code);
void upload_data_handle_error_code(TelemetryCtx *ctx, int error_code);

// --- Cloud calls (telemetry_post_message.cpp) ---

// Bodies: compact JSON from malloc, null on failure; the caller frees.
char *get_post_refresh_key_content(const TelemetryCtx *ctx);
char *get_post_get_strategy_content(const TelemetryCtx *ctx);
char *get_post_collect_data_content(const TelemetryCtx *ctx);
// Senders. telemetry_post_data is the callback of the upload timer.
void telemetry_post_refresh_key(TelemetryCtx *ctx);
void telemetry_post_get_strategy(TelemetryCtx *ctx);
void telemetry_post_data(uloop_timeout *timer);
// Completion callbacks.
void post_refresh_key_cb(PostRequest *request);
void post_get_strategy_cb(PostRequest *request);
void post_upload_data_cb(PostRequest *request);
// Applies "collect_interval_strategy1=%d,collect_interval_strategy2=%d,post_interval=%d" (minutes), keeps it
// in the configuration. -1 leaves the intervals as they were.
int telemetry_update_strategy(TelemetryCtx *ctx, const char *content);
