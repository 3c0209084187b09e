// The bus object: its methods, the commands among them, and the connection that carries it.
#include "telemetry_ubus.h"

#include <iterator>
#include <optional>
#include <unistd.h>

#include "telemetry_blob.h"
#include "telemetry_bus_limit.h"
#include "telemetry_collect.h"
#include "telemetry_figures.h"
#include "telemetry_guarded.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_post.h"
#include "telemetry_repeat.h"
#include "telemetry_status.h"
#include "telemetry_ubus_query.h"

static constexpr int kReconnectMs = 2000;
// A bus that drops the connection sooner than this after it was made is not tried again at once.
static constexpr int64_t kQuickLossMs = 100;

static ubus_context *telemetry_bus;

// --- Commands ---

// A command without arguments; its result is the reply's err_code.
using BusCommand = int (*)(TelemetryCtx *ctx);

template <BusCommand Command>
static int ubus_run_command(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *method,
                            blob_attr *) {
    return telemetry_guarded(method, static_cast<int>(UBUS_STATUS_NO_MEMORY), [&] {
        BlobBuffer reply; // before the command runs: it is not done and refused
        const int result = telemetry_guarded(method, -1, [] { return Command(telemetry_ubus_ctx); });
        return telemetry_ubus_reply(bus, request, reply, result);
    });
}

// A query is a topic of its own: what it misses again is no news, on nodes that have no cycles too.
template <ubus_handler_t Answer>
static int ubus_answer_query(ubus_context *bus, ubus_object *object, ubus_request_data *request,
                             const char *method, blob_attr *message) {
    const TelemetryRepeatTopic topic(method);
    topic.ran();
    return telemetry_guarded(method, static_cast<int>(UBUS_STATUS_NO_MEMORY),
                             [&] { return Answer(bus, object, request, method, message); });
}

static int collect_now(TelemetryCtx *ctx) {
    if (ctx == nullptr)
        return -1;
    telemetry_arm_collect_timer(ctx, kSoonMs);
    return 0;
}

static int post_now(TelemetryCtx *ctx) {
    if (ctx == nullptr)
        return -1;
    telemetry_post_soon(ctx);
    return 0;
}

static int clear(TelemetryCtx *ctx) {
    if (ctx == nullptr)
        return -1;
    telemetry_figures.items_cleared += ctx->data_collect_count;
    telemetry_clear_collect_list(ctx);
    return 0;
}

static int toggle_debug(TelemetryCtx *) {
    telemetry_debug_enable = telemetry_debug_enable == 0 ? 1 : 0;
    return 0;
}

static int collect_all_next_time(TelemetryCtx *ctx) {
    if (ctx == nullptr)
        return -1;
    ctx->collect_stgy2_now = 1;
    ctx->collect_periodic_now = 1;
    return 0;
}

static int collect_stgy2_and_post_now(TelemetryCtx *ctx) {
    if (ctx == nullptr)
        return -1;
    ctx->collect_stgy2_now = 1;
    telemetry_arm_collect_timer(ctx, kSoonMs);
    telemetry_post_soon(ctx);
    return 0;
}

// --- State dump ---

// Identity texts that fill their field have no terminator, so each has its field's size as precision.
static void print_ctx(const TelemetryCtx *ctx) {
    TELEMETRY_PRINT("-----------telemetry ctx start-----------");
    TELEMETRY_PRINT("dev id: %.65s", ctx->dev_id);
    TELEMETRY_PRINT("hw id: %.65s", ctx->hw_id);
    TELEMETRY_PRINT("dev mac: %.65s", ctx->dev_mac);
    TELEMETRY_PRINT("hw version: %.65s", ctx->hw_version);
    TELEMETRY_PRINT("firmware: %.65s", ctx->firmware);
    TELEMETRY_PRINT("model: %.65s", ctx->model);
    TELEMETRY_PRINT("strategyId: %.129s", ctx->strategy_id);
    TELEMETRY_PRINT("post api: %.2049s", ctx->post_api);
    TELEMETRY_PRINT("access key: %.129s", ctx->access_key);
    TELEMETRY_PRINT("access secret: %.129s", ctx->access_secret);
    TELEMETRY_PRINT("post state: %d", static_cast<int>(ctx->post_state));
    TELEMETRY_PRINT("data_collect_count: %d", static_cast<int>(ctx->data_collect_count));
    TELEMETRY_PRINT("collect_count: %d", static_cast<int>(ctx->collect_count));
    TELEMETRY_PRINT("collect_interval_strategy1: %d", static_cast<int>(ctx->collect_interval_strategy1));
    TELEMETRY_PRINT("collect_interval_strategy2: %d", static_cast<int>(ctx->collect_interval_strategy2));
    TELEMETRY_PRINT("post_interval: %d", static_cast<int>(ctx->post_interval));
    TELEMETRY_PRINT("post retry count: %d", static_cast<int>(ctx->post_retry_count));
    TELEMETRY_PRINT("post_retry_interval: %d", static_cast<int>(ctx->post_retry_interval));
    TELEMETRY_PRINT("-----------telemetry ctx end-----------");
}

static void print_collect_list(const CollectedDataList *list) {
    TELEMETRY_PRINT("-----------telemetry data start-----------");
    if (list != nullptr) {
        const long length = telemetry_json_length(list);
        const TextPtr text = telemetry_json_print_formatted(list);
        TELEMETRY_PRINT("backup data total str len: %lu",
                        static_cast<unsigned long>(length < 0 ? 0 : length));
        TELEMETRY_PRINT("%s", text ? text.get() : "");
    }
    TELEMETRY_PRINT("-----------telemetry data end-----------");
}

static const char *buffer_text(const PostBuffer &buffer) {
    return buffer.data == nullptr ? "" : buffer.data;
}

static void print_post_request(int number, const PostRequest *request) {
    TELEMETRY_PRINT("[post request %d]", number);
    if (request == nullptr)
        return;
    TELEMETRY_PRINT("used: %d", static_cast<int>(request->in_use));
    TELEMETRY_PRINT("url: %.2049s", request->url);
    TELEMETRY_PRINT("request status: %d", request->request_status);
    TELEMETRY_PRINT("finished: %d", request->finished);
    TELEMETRY_PRINT("request buffer: %s", buffer_text(request->body));
    TELEMETRY_PRINT("request buffer len: %d", request->body.capacity);
    TELEMETRY_PRINT("request data len: %d", request->body.used);
    TELEMETRY_PRINT("receive buffer: %s", buffer_text(request->response));
    TELEMETRY_PRINT("receive buffer len: %d", request->response.capacity);
    TELEMETRY_PRINT("receive data len: %d", request->response.used);
}

static int ubus_print(TelemetryCtx *ctx) {
    if (ctx == nullptr)
        return -1;
    if (!telemetry_log_enabled(TELEMETRY_LOG_INFO))
        return 0;
    print_ctx(ctx);
    print_collect_list(ctx->collect_list);
    TELEMETRY_PRINT("-----------telemetry post start-----------");
    for (int i = 0; i < kPostRequestCount; ++i)
        print_post_request(i, ctx->post_requests[i]);
    TELEMETRY_PRINT("-----------telemetry post end-----------");
    return 0;
}

// --- Log level ---

enum { LEVEL_ARGUMENT, LEVEL_ARGUMENT_COUNT };
static constexpr blobmsg_policy kLevelPolicy[LEVEL_ARGUMENT_COUNT] = {
    {"level", BLOBMSG_TYPE_STRING},
};

static void set_log_level(const char *name) {
    if (!telemetry_log_level_by_name(name, &telemetry_debug_level))
        LOG_ERROR("param error! debug/info/error");
}

static int ubus_set_debug(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *method,
                          blob_attr *message) {
    blob_attr *arguments[LEVEL_ARGUMENT_COUNT] = {};
    if (message == nullptr || blobmsg_parse(kLevelPolicy, LEVEL_ARGUMENT_COUNT, arguments, blob_data(message),
                                            static_cast<unsigned>(blob_len(message))) != 0)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (arguments[LEVEL_ARGUMENT] == nullptr)
        return UBUS_STATUS_INVALID_ARGUMENT;
    return telemetry_guarded(method, static_cast<int>(UBUS_STATUS_NO_MEMORY), [&] {
        BlobBuffer reply;
        set_log_level(blobmsg_get_string(arguments[LEVEL_ARGUMENT]));
        return telemetry_ubus_reply(bus, request, reply, 0);
    });
}

// --- Object ---

// Published for `debug` and `collect_device_info` only; `set_debug` takes its argument undeclared.
static constexpr blobmsg_policy kAddressPolicy[] = {
    {"ip_ap_addr", BLOBMSG_TYPE_STRING},
};

static const ubus_method kMethods[] = {
    {"collect_now", ubus_run_command<collect_now>, 0, 0, nullptr, 0},
    {"post_now", ubus_run_command<post_now>, 0, 0, nullptr, 0},
    {"clear", ubus_run_command<clear>, 0, 0, nullptr, 0},
    {"toggle_debug", ubus_run_command<toggle_debug>, 0, 0, nullptr, 0},
    {"set_debug", ubus_set_debug, 0, 0, nullptr, 0},
    {"print", ubus_run_command<ubus_print>, 0, 0, nullptr, 0},
    {"collect_all_next_time", ubus_run_command<collect_all_next_time>, 0, 0, nullptr, 0},
    {"collect_stgy2_and_post_now", ubus_run_command<collect_stgy2_and_post_now>, 0, 0, nullptr, 0},
    {"collect_client_info", ubus_answer_query<ubus_collect_client_info>, 0, 0, nullptr, 0},
    {"collect_system_info", ubus_answer_query<ubus_collect_system_info>, 0, 0, nullptr, 0},
    {"collect_usb_info", ubus_answer_query<ubus_collect_usb_info>, 0, 0, nullptr, 0},
    {"collect_afc_info", ubus_answer_query<ubus_collect_afc_info>, 0, 0, nullptr, 0},
    {"debug", ubus_set_debug, 0, 0, kLevelPolicy, static_cast<int>(std::size(kLevelPolicy))},
    {"collect_device_info", ubus_answer_query<ubus_collect_device_info>, 0, 0, kAddressPolicy,
     static_cast<int>(std::size(kAddressPolicy))},
};

static ubus_object_type telemetry_object_type = {"telemetry", 0, kMethods,
                                                 static_cast<int>(std::size(kMethods))};

static ubus_object telemetry_object = [] {
    ubus_object object = {};
    object.name = "telemetry";
    object.type = &telemetry_object_type;
    object.methods = kMethods;
    object.n_methods = static_cast<int>(std::size(kMethods));
    return object;
}();

// --- Connection ---

static uloop_timeout reconnect_timer;
static int64_t connected_at_ms;
static bool connecting;
static int told_status; // of the last try that failed with a line

// What others call and the connection's end come through the loop alone.
static bool watch_connection() {
    ubus_add_uloop(telemetry_bus);
    return telemetry_bus->sock.registered;
}

// A connection without the object is of no use: it counts as lost, and the next try starts afresh.
static bool restore_connection() {
    connecting = true;
    // The library registers its objects again while it connects: the limit is to see the new socket, not the
    // old one's number.
    uloop_fd &socket = telemetry_bus->sock;
    if (socket.registered)
        uloop_fd_delete(&socket);
    if (socket.fd >= 0)
        close(socket.fd);
    socket.fd = -1;
    std::optional<TelemetryBusLimit> limit(std::in_place);
    TelemetryBusLimit::watch(socket.fd);
    int status = ubus_reconnect(telemetry_bus, telemetry_bus_default_socket());
    // The library has closed its socket then, and would close the number again, whoever has it by the next
    // try.
    if (status != UBUS_STATUS_OK)
        socket.fd = -1;
    else if (telemetry_object.id == 0)
        status = ubus_add_object(telemetry_bus, &telemetry_object);
    const bool watched = status != UBUS_STATUS_OK || watch_connection();
    if (!watched)
        status = UBUS_STATUS_UNKNOWN_ERROR;
    limit.reset();
    connecting = false;
    if (status != UBUS_STATUS_OK) {
        // An absent bus has been told as a lost one; anything else, such as a name that another process
        // holds, would go unseen.
        const bool told = status == told_status || status == UBUS_STATUS_CONNECTION_FAILED;
        told_status = status;
        TELEMETRY_LOG(told ? TELEMETRY_LOG_DEBUG : TELEMETRY_LOG_ERROR, "ubus reconnect failed: %s",
                      watched ? ubus_strerror(status) : "the loop cannot watch it");
        return false;
    }
    told_status = UBUS_STATUS_OK;
    connected_at_ms = telemetry_monotonic_ms();
    telemetry_figures.bus_reconnections++;
    LOG_INFO("ubus connection is back");
    telemetry_status_register(telemetry_bus, telemetry_ubus_ctx);
    return true;
}

static void handle_reconnect_timer(uloop_timeout *timer) {
    if (!telemetry_guarded("bus", false, restore_connection))
        uloop_timeout_set(timer, kReconnectMs);
}

static void handle_connection_lost(ubus_context *bus) {
    // The library may notice the loss of a connection that is just being made: its caller sees that too.
    if (connecting)
        return;
    LOG_ERROR("ubus connection is lost");
    if (bus->sock.registered)
        uloop_fd_delete(&bus->sock);
    const bool at_once = telemetry_monotonic_ms() - connected_at_ms >= kQuickLossMs;
    if (at_once && telemetry_guarded("bus", false, restore_connection))
        return;
    reconnect_timer.cb = handle_reconnect_timer;
    uloop_timeout_set(&reconnect_timer, kReconnectMs);
}

// --- Public ---

static int connect_and_register(TelemetryCtx *ctx) {
    const TelemetryBusLimit limit;
    telemetry_bus = ubus_connect(telemetry_bus_default_socket());
    if (telemetry_bus == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    TelemetryBusLimit::watch(telemetry_bus->sock.fd);
    telemetry_bus->connection_lost = handle_connection_lost;
    telemetry_ubus_ctx = ctx;
    if (ctx == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    connected_at_ms = telemetry_monotonic_ms();
    if (!watch_connection()) {
        LOG_ERROR("the loop cannot watch the ubus connection");
        return -1;
    }
    const int status = ubus_add_object(telemetry_bus, &telemetry_object);
    if (status != UBUS_STATUS_OK) {
        LOG_ERROR("registration of the bus object failed: %s", ubus_strerror(status));
        return -1;
    }
    return 0;
}

int telemetry_init_ubus(TelemetryCtx *ctx) {
    telemetry_free_ubus();
    connecting = true; // a loss ends the start
    const int result = connect_and_register(ctx);
    connecting = false;
    if (result == 0)
        telemetry_status_register(telemetry_bus, ctx);
    return result;
}

void telemetry_free_ubus() {
    uloop_timeout_cancel(&reconnect_timer);
    telemetry_status_release();
    if (telemetry_bus != nullptr)
        ubus_free(telemetry_bus);
    telemetry_bus = nullptr;
    telemetry_ubus_ctx = nullptr;
    telemetry_object.id = 0;
    telemetry_object_type.id = 0;
}
