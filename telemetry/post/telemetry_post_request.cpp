// Slots of the request pool, their growable buffers, and the signature of a request.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>

#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_post.h"
#include "telemetry_utils.h"

static constexpr int64_t kBufferStep = 1024;

static bool is_empty(const char *text) {
    return text == nullptr || text[0] == '\0';
}

// Keeps the allocation: the next request of the slot needs about as much.
static void clear_buffer(PostBuffer *buffer) {
    if (buffer->data != nullptr && buffer->capacity > 0)
        memset(buffer->data, 0, static_cast<size_t>(buffer->capacity));
    buffer->used = 0;
}

PostRequest *telemetry_post_alloc_request(TelemetryCtx *ctx) {
    if (ctx == nullptr) {
        LOG_ERROR("param error");
        return nullptr;
    }
    for (PostRequest *request : ctx->post_requests) {
        if (request != nullptr && request->in_use == 0) {
            request->in_use = 1;
            return request;
        }
    }
    return nullptr;
}

uint32_t telemetry_post_requests_in_use(const TelemetryCtx *ctx) {
    uint32_t count = 0;
    for (int i = 0; ctx != nullptr && i < kPostRequestCount; ++i)
        count += ctx->post_requests[i] != nullptr ? ctx->post_requests[i]->in_use : 0;
    return count;
}

void telemetry_post_free_request(PostRequest *request) {
    if (request == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    memset(request->headers, 0, sizeof(request->headers[0]) * request->header_count);
    request->header_count = 0;
    memset(request->url, 0, sizeof(request->url));
    clear_buffer(&request->body);
    request->timeout_ms = 0;
    request->on_complete = nullptr;
    request->easy = nullptr;
    request->header_list = nullptr;
    clear_buffer(&request->response);
    request->in_use = 0;
    request->finished = 0;
}

void telemetry_post_set_timeout(PostRequest *request, uint32_t ms) {
    if (request == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    request->timeout_ms = ms;
}

void telemetry_post_set_url(PostRequest *request, const char *base, const char *path) {
    if (request == nullptr || base == nullptr || path == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    const size_t length = strlen(base);
    if (length == 0)
        return;
    const char *separator = base[length - 1] == '/' ? "" : "/";
    const int needed = snprintf(request->url, sizeof(request->url), "%s%s%s", base, separator, path);
    if (needed >= static_cast<int>(sizeof(request->url)))
        LOG_ERROR("url of %d characters cut to %zu", needed, sizeof(request->url) - 1);
}

int32_t telemetry_post_append_data(PostBuffer *buffer, const char *bytes, int32_t count) {
    if (buffer == nullptr || bytes == nullptr || count <= 0) {
        LOG_ERROR("invalid input!");
        return -1;
    }
    int64_t space = static_cast<int64_t>(buffer->capacity) - buffer->used;
    if (space < 0) {
        LOG_ERROR("POST_REQUEST_BUFFER invalid status! reset now");
        free(buffer->data);
        *buffer = PostBuffer{};
        space = 0;
    }
    // Strictly less: one zero byte stays behind the text.
    if (count < space) {
        LOG_DEBUG("buffer enough! just memcpy!");
        memcpy(buffer->data + buffer->used, bytes, static_cast<size_t>(count));
        buffer->used += count;
        return count;
    }
    const int64_t needed = static_cast<int64_t>(buffer->used) + count;
    const int64_t capacity = (needed / kBufferStep + 1) * kBufferStep;
    if (capacity > std::numeric_limits<int32_t>::max()) {
        LOG_ERROR("buffer of %lld bytes refused", static_cast<long long>(capacity));
        return -1;
    }
    LOG_DEBUG("buffer not enough! need to re malloc %d!", static_cast<int>(capacity));
    TextPtr grown(static_cast<char *>(calloc(1, static_cast<size_t>(capacity))));
    if (grown == nullptr)
        return -1;
    if (buffer->used > 0)
        memcpy(grown.get(), buffer->data, static_cast<size_t>(buffer->used));
    memcpy(grown.get() + buffer->used, bytes, static_cast<size_t>(count));
    free(buffer->data);
    buffer->data = grown.release();
    buffer->capacity = static_cast<int32_t>(capacity);
    buffer->used += count;
    return count;
}

int add_curl_request_content(PostRequest *request, const char *text) {
    if (request == nullptr || text == nullptr) {
        LOG_ERROR("invalid input!");
        return -1;
    }
    const size_t length = strlen(text);
    const bool fits = length <= static_cast<size_t>(std::numeric_limits<int32_t>::max());
    if (!fits || telemetry_post_append_data(&request->body, text, static_cast<int32_t>(length)) <
                     static_cast<int32_t>(length)) {
        LOG_ERROR("iot_events_append_data failed");
        return -1;
    }
    return 0;
}

int add_curl_request_signature(PostRequest *request, const char *body, const char *secret, const char *path) {
    if (request == nullptr || is_empty(body) || is_empty(secret) || is_empty(path) ||
        request->owner == nullptr || request->header_count >= kPostHeaderLines) {
        LOG_ERROR("param error");
        return -1;
    }
    const TelemetryCtx *ctx = request->owner;
    char text[1024] = {};
    char body_digest[80] = {};
    uint8_t digest[16] = {};
    char signature[128] = {};

    const size_t length = strlen(body);
    if (length > static_cast<size_t>(std::numeric_limits<int32_t>::max()) ||
        md5_encode(reinterpret_cast<const uint8_t *>(body), static_cast<int32_t>(length), digest) != 0) {
        LOG_ERROR("md5_encode error");
        return -1;
    }
    if (base64_encode(digest, sizeof(digest), body_digest) != 0) {
        LOG_ERROR("base64_encode error");
        return -1;
    }
    // One reading: the signed time and the id of the header are the same number.
    const auto now = static_cast<uint32_t>(time(nullptr));
    snprintf(text, sizeof(text), "%s\n%u\n%s", body_digest, now, path);
    // The key that is announced and the secret that signs stand in the context, always as a pair.
    if (hmac_sha1_encode(text, 20, signature, ctx->access_secret) != 0) {
        LOG_ERROR("hmac_sha1_encode error");
        return -1;
    }
    // The service expects no blank after the colon.
    snprintf(request->headers[request->header_count], kPostLineSize,
             "X-Authorization:Id=%u,AccessKey=%s,Signature=%s", now, ctx->access_key, signature);
    request->header_count++;
    return 0;
}
