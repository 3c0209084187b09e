// The answers of the three cloud calls. The first byte chooses the call and the size of the pieces that
// arrive.
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>

#include "support/fuzz_upload.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    constexpr struct {
        uint32_t state;
        void (*on_complete)(PostRequest *request);
    } kCalls[] = {
        {TELEMETRY_POST_STATE_REFRESH_KEY, post_refresh_key_cb},
        {TELEMETRY_POST_STATE_GET_STRATEGY, post_get_strategy_cb},
        {TELEMETRY_POST_STATE_READY_FOR_UPLOAD, post_upload_data_cb},
    };
    const auto &call = kCalls[data[0] % std::size(kCalls)];
    FuzzContext context;
    context.ctx.post_state = call.state;
    context.ctx.post_retry_count = data[0] / 3U % 5;
    context.ctx.data_collect_count = 1;
    context.ctx.collect_list = cJSON_CreateArray();

    const auto request = std::make_unique<PostRequest>();
    request->owner = &context.ctx;
    const size_t piece = 1 + data[0] * 8U;
    for (size_t at = 1; at < size; at += piece) {
        const size_t count = std::min(piece, size - at);
        if (write_response_data_(reinterpret_cast<const char *>(data) + at, 1, count, request.get()) != count)
            request->request_status = POST_REQUEST_FAILED;
    }
    call.on_complete(request.get());
    require(context.ctx.post_state <= TELEMETRY_POST_STATE_READY_FOR_UPLOAD &&
            context.ctx.post_retry_count < 5);
    free(request->response.data);
    return 0;
}
