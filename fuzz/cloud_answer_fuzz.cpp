// The answers of the three cloud calls, and the text of a collect strategy. The first byte chooses the call
// and the size of the pieces that arrive. Nothing is sent: the root says that the clock is not synchronised.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>

#include "support/fuzz_root.h"
#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_post.h"

// Zero-filled but for what the calls need; its timers leave the loop with it.
struct FuzzContext {
    FuzzContext() {
        static const bool started = [] {
            fuzz_root().write("/etc/config/telemetry",
                              "config basic 'basic'\n\toption enable 'on'\n\n"
                              "config cloud 'cloud'\n\nconfig strategy 'strategy'\n");
            telemetry_debug_enable = 0;
            return uloop_init() == 0;
        }();
        require(started);
        memset(&ctx, 0, sizeof(ctx));
        ctx.collect_timer.cb = [](uloop_timeout *) {};
        ctx.post_timer.cb = telemetry_post_data;
        copy_text(ctx.access_secret, "secret");
    }
    ~FuzzContext() {
        uloop_timeout_cancel(&ctx.collect_timer);
        uloop_timeout_cancel(&ctx.post_timer);
        uloop_timeout_cancel(&ctx.post_retry_timer);
        cJSON_Delete(ctx.collect_list);
    }
    FuzzContext(const FuzzContext &) = delete;
    FuzzContext &operator=(const FuzzContext &) = delete;

    TelemetryCtx ctx;
};

static void try_strategy(TelemetryCtx *ctx, const std::string &content) {
    ctx->collect_interval_strategy1 = ctx->collect_interval_strategy2 = ctx->post_interval = 1;
    const bool unchanged = telemetry_update_strategy(ctx, content.c_str()) != 0;
    require(!unchanged || (ctx->collect_interval_strategy1 == 1 && ctx->collect_interval_strategy2 == 1 &&
                           ctx->post_interval == 1));
}

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
    FuzzContext context;
    if (data[0] == 's') {
        try_strategy(&context.ctx, std::string(reinterpret_cast<const char *>(data + 1), size - 1));
        return 0;
    }
    const auto &call = kCalls[data[0] % std::size(kCalls)];
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
