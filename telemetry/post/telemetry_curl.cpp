// Transport: slots are handed to libcurl's multi interface, which timers of the event loop poll.
#include <cstdlib>
#include <cstring>
#include <string>

#include "telemetry_ca.h"
#include "telemetry_figures.h"
#include "telemetry_guarded.h"
#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_post.h"
#include "telemetry_utils.h"

// Shared by all slots for the whole run.
static CURLM *multi_handle;

static bool set_headers(PostRequest *request) {
    for (uint32_t i = 0; i < request->header_count; i++) {
        curl_slist *longer = curl_slist_append(request->header_list, request->headers[i]);
        if (longer == nullptr) {
            LOG_ERROR("curl_slist_append failed");
            return false;
        }
        request->header_list = longer;
    }
    return request->header_list == nullptr ||
           curl_easy_setopt(request->easy, CURLOPT_HTTPHEADER, request->header_list) == CURLE_OK;
}

// A libcurl whose TLS library knows no directories of certificates has none to forget.
static bool forget_ca_directory(CURL *easy) {
    const CURLcode result = curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    return result == CURLE_OK || result == CURLE_NOT_BUILT_IN || result == CURLE_UNKNOWN_OPTION;
}

// Without one of them the request would be another one, or would trust others: then it is not sent.
static bool set_options(PostRequest *request) {
    const std::string certificate = telemetry_ca_file();
    const auto set = [&](CURLoption option, auto value) {
        return curl_easy_setopt(request->easy, option, value) == CURLE_OK;
    };
    // What a handle remembers of TLS sessions goes with it, and libcurl 7 frees one twice for which it finds
    // no memory.
    curl_easy_setopt(request->easy, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    // Without a text libcurl would read the body from standard input.
    return set(CURLOPT_POST, 1L) && set(CURLOPT_URL, request->url) &&
           set(CURLOPT_POSTFIELDS, request->body.data != nullptr ? request->body.data : "") &&
           set_headers(request) && set(CURLOPT_WRITEFUNCTION, write_response_data_) &&
           set(CURLOPT_WRITEDATA, request) && set(CURLOPT_PRIVATE, request) &&
           set(CURLOPT_TIMEOUT_MS, static_cast<long>(request->timeout_ms)) &&
           set(CURLOPT_CAINFO, certificate.c_str()) &&
           (!telemetry_ca_file_is_configured() || forget_ca_directory(request->easy));
}

static void log_request(const PostRequest *request) {
    const char *body = request->body.data != nullptr ? request->body.data : "";
    LOG_DEBUG("POST: %s", request->url);
    for (uint32_t i = 0; i < request->header_count; i++)
        LOG_DEBUG("%s", request->headers[i]);
    LOG_DEBUG("%s", body);
    LOG_DEBUG("buf_len:%lu", static_cast<unsigned long>(strlen(body)));
}

static int32_t status_of_result(CURLcode result) {
    if (result == CURLE_OK) {
        LOG_DEBUG("CURLE_OK");
        return POST_REQUEST_OK;
    }
    const bool timed_out = result == CURLE_OPERATION_TIMEDOUT;
    if (timed_out)
        LOG_ERROR("CURLE_OPERATION_TIMEDOUT");
    else
        LOG_DEBUG("default");
    LOG_ERROR("curl failed! code: %d", static_cast<int>(result));
    return timed_out ? POST_REQUEST_TIMED_OUT : POST_REQUEST_FAILED;
}

// The callback may start transfers of other slots; this one stays taken until its own timer releases it.
static void finish_transfer(PostRequest *request, CURLcode result) {
    request->request_status = status_of_result(result);
    telemetry_figures.transport = curl_easy_strerror(result);
    request->response_code = 0;
    if (request->easy != nullptr)
        curl_easy_getinfo(request->easy, CURLINFO_RESPONSE_CODE, &request->response_code);
    LOG_DEBUG("curl response code: %ld", request->response_code);
    if (request->on_complete != nullptr)
        telemetry_guarded("answer", [&] { request->on_complete(request); });
    curl_easy_cleanup(request->easy);
    request->easy = nullptr;
    curl_slist_free_all(request->header_list);
    request->header_list = nullptr;
    request->finished = 1;
}

// For a slot whose transfer never reached libcurl: its callback still runs once, from the loop.
static void fail_unsent_request(uloop_timeout *timer) {
    PostRequest *request = TELEMETRY_RECORD_OF(timer, PostRequest, poll_timer);
    finish_transfer(request, CURLE_FAILED_INIT);
    telemetry_post_free_request(request);
}

static void read_finished_transfers() {
    int left = 0;
    while (CURLMsg *message = curl_multi_info_read(multi_handle, &left)) {
        if (message->msg != CURLMSG_DONE)
            continue;
        // The message goes with the handle's removal.
        const CURLcode result = message->data.result;
        CURL *easy = message->easy_handle;
        char *owner = nullptr;
        curl_easy_getinfo(easy, CURLINFO_PRIVATE, &owner);
        curl_multi_remove_handle(multi_handle, easy);
        finish_transfer(reinterpret_cast<PostRequest *>(owner), result);
    }
}

bool telemetry_post_uses_libcrypto() {
    const char *const library = curl_version_info(CURLVERSION_NOW)->ssl_version;
    return library != nullptr && strstr(library, "OpenSSL/") != nullptr;
}

int telemetry_init_post_request(TelemetryCtx *ctx) {
    if (ctx == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    if (const CURLcode code = curl_global_init(CURL_GLOBAL_ALL); code != CURLE_OK) {
        LOG_ERROR("curl_global_init failed: %s", curl_easy_strerror(code));
        return -1;
    }
    if (multi_handle == nullptr)
        multi_handle = curl_multi_init();
    if (multi_handle == nullptr) {
        LOG_ERROR("curl_multi_init failed");
        return -1;
    }
    for (PostRequest *&slot : ctx->post_requests) {
        slot = static_cast<PostRequest *>(calloc(1, sizeof(PostRequest)));
        if (slot == nullptr) {
            LOG_ERROR("POST_REQUEST_ST malloc failed");
            return -1;
        }
        slot->owner = ctx;
    }
    return 0;
}

void telemetry_request_send(PostRequest *request) {
    if (request == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    request->finished = 0;
    request->poll_timer.cb = poll_curl_status;
    request->easy = curl_easy_init();
    const bool ready =
        request->easy != nullptr && telemetry_guarded("request", false, [&] { return set_options(request); });
    if (!ready || curl_multi_add_handle(multi_handle, request->easy) != CURLM_OK) {
        LOG_ERROR("request not started");
        request->poll_timer.cb = fail_unsent_request;
    }
    log_request(request);
    uloop_timeout_set(&request->poll_timer, kPostPollMs);
}

void poll_curl_status(uloop_timeout *timer) {
    if (timer == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    PostRequest *request = TELEMETRY_RECORD_OF(timer, PostRequest, poll_timer);
    int running = 0;
    curl_multi_perform(multi_handle, &running);
    read_finished_transfers();
    if (request->finished == 0) {
        uloop_timeout_set(&request->poll_timer, kPostPollMs);
        return;
    }
    const TelemetryCtx *const ctx = request->owner;
    telemetry_post_free_request(request);
    if (telemetry_post_requests_in_use(ctx) == 0)
        telemetry_memory_give_back();
}

size_t write_response_data_(const char *data, size_t size, size_t count, PostRequest *request) {
    if (data == nullptr || request == nullptr) {
        LOG_ERROR("param error");
        return 0;
    }
    const auto room = static_cast<size_t>(kPostMaxResponse - request->response.used);
    if (size != 0 && count > room / size) {
        LOG_ERROR("answer longer than %d bytes refused", kPostMaxResponse);
        return 0;
    }
    const auto length = static_cast<int32_t>(size * count);
    // Anything but the full count ends the transfer.
    return static_cast<size_t>(telemetry_post_append_data(&request->response, data, length));
}
