#include "telemetry_status.h"

#include <algorithm>
#include <ctime>
#include <iterator>

#include "telemetry_blob.h"
#include "telemetry_bus_limit.h"
#include "telemetry_figures.h"
#include "telemetry_guarded.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_post.h"
#include "telemetry_utils.h"

// Whoever holds the name, or has no memory for the object, may not have it then.
static constexpr int kRegisterAgainMs = 10000;

static const TelemetryCtx *status_ctx;
static ubus_context *status_bus;

// --- Members ---

static void add_text(blob_buf *reply, const char *key, const char *text) {
    blobmsg_add_string(reply, key, text != nullptr ? text : "");
}

static void add_number(blob_buf *reply, const char *key, int64_t value) {
    blobmsg_add_u64(reply, key, static_cast<uint64_t>(value));
}

struct CounterRow {
    const char *key;
    uint64_t TelemetryFigures::*value;
};

static constexpr CounterRow kCounters[] = {
    {"cycles", &TelemetryFigures::cycles},
    {"records", &TelemetryFigures::records},
    {"items", &TelemetryFigures::items},
    {"items_shrunk", &TelemetryFigures::items_shrunk},
    {"items_cleared", &TelemetryFigures::items_cleared},
    {"items_in_flight", &TelemetryFigures::items_in_flight},
    {"uploads_accepted", &TelemetryFigures::uploads_accepted},
    {"uploads_failed", &TelemetryFigures::uploads_failed},
    {"bytes_sent", &TelemetryFigures::bytes_sent},
    {"keys_fetched", &TelemetryFigures::keys_fetched},
    {"bus_reconnections", &TelemetryFigures::bus_reconnections},
};

static constexpr const char *kStateNames[] = {"init", "refresh_key", "get_strategy", "ready"};

static void add_role(blob_buf *reply) {
    const char *obstacle = telemetry_collect_obstacle();
    // The last condition is the role itself: what stands before it says nothing of it.
    const bool main_node = obstacle == nullptr || (obstacle != kObstacleRole && check_if_device_is_FAP());
    add_text(reply, "role", main_node ? "main" : "satellite");
    blobmsg_add_u8(reply, "collecting", obstacle == nullptr ? 1 : 0);
    if (obstacle != nullptr)
        add_text(reply, "reason", obstacle);
}

static void add_strategy(blob_buf *reply, const TelemetryCtx *ctx) {
    const BlobTable table(reply, "strategy");
    add_text(reply, "id", ctx->strategy_id);
    blobmsg_add_u32(reply, "collect_interval", ctx->collect_interval_strategy1);
    blobmsg_add_u32(reply, "collect_interval_2", ctx->collect_interval_strategy2);
    blobmsg_add_u32(reply, "post_interval", ctx->post_interval);
}

// uloop's inquiry wants a timer that it may not change; -1: not pending.
static int64_t remaining_ms(const uloop_timeout &timer) {
    return uloop_timeout_remaining64(const_cast<uloop_timeout *>(&timer));
}

static void add_timers(blob_buf *reply, const TelemetryCtx *ctx) {
    const BlobTable table(reply, "next");
    add_number(reply, "collect_ms", remaining_ms(ctx->collect_timer));
    add_number(reply, "upload_ms", remaining_ms(ctx->post_timer));
    add_number(reply, "retry_ms", remaining_ms(ctx->post_retry_timer));
    blobmsg_add_u32(reply, "retries", ctx->post_retry_count);
}

static void add_list(blob_buf *reply, const TelemetryCtx *ctx) {
    const BlobTable table(reply, "list");
    const cJSON *oldest = cJSON_GetArrayItem(ctx->collect_list, 0);
    const cJSON *collected = cJSON_GetObjectItemCaseSensitive(oldest, "ct");
    const long bytes = ctx->collect_list == nullptr ? 0 : telemetry_json_length(ctx->collect_list);
    blobmsg_add_u32(reply, "records", static_cast<uint32_t>(cJSON_GetArraySize(ctx->collect_list)));
    blobmsg_add_u32(reply, "items", ctx->data_collect_count);
    blobmsg_add_u32(reply, "bytes", static_cast<uint32_t>(std::max(bytes, 0L)));
    if (cJSON_IsNumber(collected))
        add_number(reply, "oldest_age", time(nullptr) - static_cast<int64_t>(collected->valuedouble));
}

static void add_last_collection(blob_buf *reply) {
    const TelemetryFigures &figures = telemetry_figures;
    if (figures.collected == 0)
        return;
    const BlobTable table(reply, "last_collection");
    add_number(reply, "time", figures.collected);
    blobmsg_add_u32(reply, "ms", figures.collect_ms);
    const BlobTable modules(reply, "modules");
    for (int i = 0; i < figures.module_count; ++i) {
        const TelemetryModuleFigures &module = figures.modules[i];
        const BlobTable entry(reply, module.name);
        blobmsg_add_u32(reply, "result", static_cast<uint32_t>(module.result));
        blobmsg_add_u32(reply, "items", module.items);
        blobmsg_add_u32(reply, "ms", module.ms);
    }
}

static void add_upload(blob_buf *reply, const char *key, const TelemetryUploadFigures &upload) {
    if (upload.time == 0)
        return;
    const BlobTable table(reply, key);
    add_number(reply, "time", upload.time);
    blobmsg_add_u32(reply, "records", upload.records);
    blobmsg_add_u32(reply, "bytes", upload.bytes);
    blobmsg_add_u32(reply, "ms", upload.ms);
    add_text(reply, "transport", upload.transport);
    blobmsg_add_u32(reply, "http_status", static_cast<uint32_t>(upload.http_status));
    if (upload.has_error_code)
        blobmsg_add_u32(reply, "error_code", static_cast<uint32_t>(upload.error_code));
}

void telemetry_status_fill(blob_buf *reply, const TelemetryCtx *ctx) {
    const TelemetryFigures &figures = telemetry_figures;
    add_text(reply, "version", TELEMETRY_VERSION);
    add_number(reply, "started", figures.started);
    add_number(reply, "uptime", (telemetry_monotonic_ms() - figures.started_monotonic) / 1000);
    blobmsg_add_u8(reply, "has_device_id", ctx->dev_id[0] != '\0' ? 1 : 0);
    add_role(reply);
    add_text(reply, "state",
             ctx->post_state < std::size(kStateNames) ? kStateNames[ctx->post_state] : "unknown");
    add_text(reply, "cloud", ctx->post_api);
    blobmsg_add_u32(reply, "requests", telemetry_post_requests_in_use(ctx));
    add_strategy(reply, ctx);
    add_timers(reply, ctx);
    add_list(reply, ctx);
    add_last_collection(reply);
    add_upload(reply, "last_upload", figures.accepted);
    add_upload(reply, "last_failed_upload", figures.failed);
    const BlobTable counters(reply, "counters");
    for (const CounterRow &row : kCounters)
        blobmsg_add_u64(reply, row.key, figures.*row.value);
}

// --- Object ---

static int status_get(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
                      blob_attr *) {
    if (status_ctx == nullptr)
        return UBUS_STATUS_NO_DATA;
    return telemetry_guarded("status", static_cast<int>(UBUS_STATUS_NO_MEMORY), [&] {
        BlobBuffer reply;
        telemetry_status_fill(reply.get(), status_ctx);
        return ubus_send_reply(bus, request, reply.head());
    });
}

static const ubus_method kStatusMethods[] = {
    {"get", status_get, 0, 0, nullptr, 0},
};

static ubus_object_type status_object_type = {"telemetry.status", 0, kStatusMethods,
                                              static_cast<int>(std::size(kStatusMethods))};

static ubus_object status_object = [] {
    ubus_object object = {};
    object.name = "telemetry.status";
    object.type = &status_object_type;
    object.methods = kStatusMethods;
    object.n_methods = static_cast<int>(std::size(kStatusMethods));
    return object;
}();

// Without an answer wanted, the daemon waits for no subscriber.
static void notify_subscribers(const char *event) {
    if (status_bus == nullptr || status_ctx == nullptr || status_object.id == 0 ||
        !status_object.has_subscribers)
        return;
    telemetry_guarded("notification", [&] {
        BlobBuffer message;
        telemetry_status_fill(message.get(), status_ctx);
        const int status = ubus_notify(status_bus, &status_object, event, message.head(), -1);
        if (status != UBUS_STATUS_OK)
            LOG_ERROR("notification %s was not sent: %s", event, ubus_strerror(status));
    });
}

// --- Registration ---

static uloop_timeout register_timer;

static void register_object(uint32_t level) {
    if (status_object.id != 0)
        return;
    const TelemetryBusLimit limit;
    TelemetryBusLimit::watch(status_bus->sock.fd);
    const int status = ubus_add_object(status_bus, &status_object);
    if (status == UBUS_STATUS_OK)
        return;
    TELEMETRY_LOG(level, "registration of telemetry.status failed: %s", ubus_strerror(status));
    register_timer.cb = [](uloop_timeout *) {
        if (status_bus->sock.registered) // else whoever connects again comes by
            telemetry_guarded("status", [] { register_object(TELEMETRY_LOG_DEBUG); });
    };
    uloop_timeout_set(&register_timer, kRegisterAgainMs);
}

void telemetry_status_register(ubus_context *bus, const TelemetryCtx *ctx) {
    if (bus == nullptr || ctx == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    status_bus = bus;
    status_ctx = ctx;
    telemetry_figures_listener = notify_subscribers;
    register_object(TELEMETRY_LOG_ERROR);
}

void telemetry_status_release() {
    uloop_timeout_cancel(&register_timer);
    status_bus = nullptr;
    status_ctx = nullptr;
    status_object.id = 0;
    status_object.has_subscribers = false;
    status_object_type.id = 0;
    telemetry_figures_listener = nullptr;
}
