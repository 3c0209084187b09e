#include "telemetry_ctx.h"

#include "telemetry_log.h"

// uloop takes a signed time-out, and one of 0 would run again at once.
static int checked_delay(uint32_t ms, uint32_t fallback, const char *what) {
    if (ms == 0 || ms > INT32_MAX) {
        LOG_ERROR("%s interval of %u ms is out of range, wait %u ms", what, ms, fallback);
        ms = fallback;
    }
    return static_cast<int>(ms);
}

void telemetry_arm_collect_timer(TelemetryCtx *ctx, uint32_t ms) {
    if (ctx == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    uloop_timeout_set(&ctx->collect_timer, checked_delay(ms, kDefaultCollectInterval1Ms, "collect"));
}

void telemetry_arm_post_timer(TelemetryCtx *ctx, uint32_t ms) {
    if (ctx == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    uloop_timeout_set(&ctx->post_timer, checked_delay(ms, kDefaultPostIntervalMs, "post"));
}

void telemetry_post_soon(TelemetryCtx *ctx) {
    telemetry_arm_post_timer(ctx, kSoonMs);
}
