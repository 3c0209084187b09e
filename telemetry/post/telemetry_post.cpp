// The post state machine: key, strategy, uploads, and how long a failure waits.
#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <iterator>

#include "telemetry_log.h"
#include "telemetry_post.h"

static constexpr uint32_t kRetryMax = 5;
static constexpr uint32_t kRetryResetMs = 1000;
static constexpr uint32_t kRetryCapMs = 60000;
static constexpr uint32_t kRefreshKeyCapMs = 1800000;

static bool has_context(const TelemetryCtx *ctx) {
    if (ctx != nullptr)
        return true;
    LOG_ERROR("param error");
    return false;
}

static void enter_ready(TelemetryCtx *ctx) {
    telemetry_arm_post_timer(ctx, ctx->post_interval);
}

struct PostStateRow {
    const char *name;
    void (*action)(TelemetryCtx *ctx);
};

// By state value.
static constexpr PostStateRow kStates[] = {
    {"TELEMETRY_POST_STATE_INIT", telemetry_post_init_state},
    {"TELEMETRY_POST_STATE_REFRESH_KEY", telemetry_post_refresh_key},
    {"TELEMETRY_POST_STATE_GET_STRATEGY", telemetry_post_get_strategy},
    {"TELEMETRY_POST_STATE_READY_FOR_UPLOAD", enter_ready},
};

static void go_refresh_key(TelemetryCtx *ctx) {
    telemetry_post_enter_state(ctx, TELEMETRY_POST_STATE_REFRESH_KEY);
}

static void go_ready(TelemetryCtx *ctx) {
    telemetry_post_enter_state(ctx, TELEMETRY_POST_STATE_READY_FOR_UPLOAD);
}

// After an upload the new key is asked for with a delay.
static void retry_with_new_key(TelemetryCtx *ctx) {
    ctx->post_state = TELEMETRY_POST_STATE_REFRESH_KEY;
    telemetry_post_retry(ctx);
}

struct ErrorCodeRow {
    int code;
    const char *message;
    void (*on_strategy)(TelemetryCtx *ctx);
    void (*on_upload)(TelemetryCtx *ctx);
};

static constexpr ErrorCodeRow kErrorCodes[] = {
    {-10301, "singature calculate error!", telemetry_post_retry, telemetry_post_reset_retry},
    {-10303, "singature calculate error!", telemetry_post_retry, telemetry_post_reset_retry},
    {-10304, "access_key overdue!", go_refresh_key, retry_with_new_key},
    {-10306, "request rejected!", telemetry_post_retry, telemetry_post_reset_retry},
    {-20105, "data error!", telemetry_post_retry, telemetry_post_reset_retry},
    {-20107, "data error!", telemetry_post_retry, telemetry_post_reset_retry},
    {-20501, "device information error!", telemetry_post_retry, telemetry_post_reset_retry},
    {-20511, "device information error!", telemetry_post_retry, telemetry_post_reset_retry},
    {-20000, "no strategy, use default strategy!", go_ready, telemetry_post_retry},
    {-29004, "no strategy, use default strategy!", go_ready, telemetry_post_retry},
};
static constexpr ErrorCodeRow kOtherErrorCode = {0, nullptr, telemetry_post_retry,
                                                 telemetry_post_reset_retry};

static const ErrorCodeRow &find_error_code(int error_code) {
    for (const ErrorCodeRow &row : kErrorCodes) {
        if (row.code == error_code) {
            LOG_ERROR("%s", row.message);
            return row;
        }
    }
    LOG_ERROR("invalid error_code:%d", error_code);
    return kOtherErrorCode;
}

static void double_retry_interval(TelemetryCtx *ctx, uint32_t cap) {
    ctx->post_retry_interval = std::min(ctx->post_retry_interval, cap / 2) * 2;
}

// The fifth failure in a row. Gives true when the call is to be retried all the same.
static bool handle_retry_limit(TelemetryCtx *ctx) {
    const uint32_t count = ctx->post_retry_count;
    switch (ctx->post_state) {
    case TELEMETRY_POST_STATE_REFRESH_KEY:
        LOG_ERROR("retry %d times, continue retry refresh key", static_cast<int>(count));
        ctx->post_retry_count = 0;
        double_retry_interval(ctx, kRefreshKeyCapMs);
        return true;
    case TELEMETRY_POST_STATE_GET_STRATEGY:
        LOG_ERROR("retry %d times, use default strategy", static_cast<int>(count));
        telemetry_post_enter_state(ctx, TELEMETRY_POST_STATE_READY_FOR_UPLOAD);
        return false;
    case TELEMETRY_POST_STATE_READY_FOR_UPLOAD:
        LOG_ERROR("retry %d times, stop retry uploading data", static_cast<int>(count));
        telemetry_post_reset_retry(ctx);
        telemetry_arm_post_timer(ctx, ctx->post_interval);
        return false;
    default:
        return true;
    }
}

void telemetry_post_state_FSM(TelemetryCtx *ctx) {
    if (!has_context(ctx))
        return;
    if (ctx->post_state >= std::size(kStates))
        return;
    const PostStateRow &row = kStates[ctx->post_state];
    LOG_DEBUG("%s", row.name);
    row.action(ctx);
}

void telemetry_post_init_state(TelemetryCtx *ctx) {
    if (!has_context(ctx))
        return;
    const bool has_key = ctx->access_key[0] != '\0' && ctx->access_secret[0] != '\0';
    ctx->post_state = has_key ? TELEMETRY_POST_STATE_GET_STRATEGY : TELEMETRY_POST_STATE_REFRESH_KEY;
    telemetry_post_state_FSM(ctx);
}

void telemetry_post_enter_state(TelemetryCtx *ctx, TelemetryPostState state) {
    ctx->post_state = state;
    telemetry_post_reset_retry(ctx);
    telemetry_post_state_FSM(ctx);
}

void telemetry_post_arm_retry_timer(TelemetryCtx *ctx, uint32_t ms) {
    ctx->post_retry_timer.cb = post_state_FSM_retry_cb;
    uloop_timeout_set(&ctx->post_retry_timer, static_cast<int>(ms));
}

void telemetry_post_reset_retry(TelemetryCtx *ctx) {
    ctx->post_retry_count = 0;
    ctx->post_retry_interval = kRetryResetMs;
}

void telemetry_post_retry(TelemetryCtx *ctx) {
    if (!has_context(ctx))
        return;
    if (ctx->post_retry_count != 0) {
        double_retry_interval(ctx, kRetryCapMs);
    } else {
        srand(static_cast<unsigned>(time(nullptr)));
        ctx->post_retry_interval = (static_cast<uint32_t>(rand()) % 9 + 1) * 1000;
    }
    ctx->post_retry_count++;
    LOG_DEBUG("retry count:%d, max:%d", static_cast<int>(ctx->post_retry_count), static_cast<int>(kRetryMax));
    LOG_DEBUG("telemetry_ctx->telemetry_post_state:%d,", static_cast<int>(ctx->post_state));
    if (ctx->post_retry_count >= kRetryMax && !handle_retry_limit(ctx))
        return;
    LOG_ERROR("retry %d times, interval = %d ms", static_cast<int>(ctx->post_retry_count),
              static_cast<int>(ctx->post_retry_interval));
    if (ctx->post_state == TELEMETRY_POST_STATE_READY_FOR_UPLOAD)
        telemetry_arm_post_timer(ctx, ctx->post_retry_interval);
    else
        telemetry_post_arm_retry_timer(ctx, ctx->post_retry_interval);
}

void post_state_FSM_retry_cb(uloop_timeout *timer) {
    if (timer == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    telemetry_post_state_FSM(TELEMETRY_RECORD_OF(timer, TelemetryCtx, post_retry_timer));
}

void get_strategy_handle_error_code(TelemetryCtx *ctx, int error_code) {
    if (has_context(ctx))
        find_error_code(error_code).on_strategy(ctx);
}

void upload_data_handle_error_code(TelemetryCtx *ctx, int error_code) {
    if (has_context(ctx))
        find_error_code(error_code).on_upload(ctx);
}
