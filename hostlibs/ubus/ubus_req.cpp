// Requests: sent, matched with what comes back by sequence number and peer, waited for or left to the event
// loop.
#include "ubus_internal.h"

#include <array>
#include <cstdio>

namespace {

constexpr std::array<const char *, __UBUS_STATUS_LAST> status_texts = {
    "Success",
    "Invalid command",
    "Invalid argument",
    "Method not found",
    "Not found",
    "No response",
    "Permission denied",
    "Request timed out",
    "Operation not supported",
    "Unknown error",
    "Connection failed",
    "Out of memory",
    "Parsing message data failed",
    "System error",
};

// The answer's place among those who were notified, -1 when it is none of theirs.
int notified_place(const ubus_request *req, uint32_t peer) {
    if (!req->notify || peer == 0)
        return -1;
    const auto *notification = container_of(req, ubus_notify_request, req);
    for (int i = 0; notification->id[i]; i++) {
        if (notification->id[i] == peer)
            return i;
    }
    return -1;
}

ubus_request *request_find(ubus_context *ctx, uint16_t seq, uint32_t peer) {
    ubus_request *req;
    list_for_each_entry(req, &ctx->requests, list) {
        if (req->seq == seq && (req->peer == peer || notified_place(req, peer) >= 0))
            return req;
    }
    return nullptr;
}

bool request_listed(const ubus_request *req) {
    return req->list.next && !list_empty(&req->list);
}

void request_finish(ubus_request *req, int status) {
    list_del_init(&req->list);
    req->status_code = status;
    req->status_msg = true;
    // The callback may free the request, so it comes last.
    if (!req->blocked && req->complete_cb)
        req->complete_cb(req, status);
}

// The bus's own answer to a notification names those who will answer it.
void take_subscriber_ids(ubus_notify_request *notification, blob_attr *ids) {
    blob_attr *pos;
    size_t left;
    blob_for_each_attr(pos, ids, left) {
        if (blob_len(pos) == sizeof(uint32_t) && notification->pending < UBUS_MAX_NOTIFY_PEERS)
            notification->id[notification->pending++] = blob_get_u32(pos);
    }
}

void handle_notify_status(ubus_request *req, uint32_t peer, const bus_attrs &attrs, int status) {
    auto *notification = container_of(req, ubus_notify_request, req);
    int place = notified_place(req, peer);
    if (place < 0) {
        take_subscriber_ids(notification, attrs[UBUS_ATTR_SUBSCRIBERS]);
    } else {
        if (notification->status_cb)
            notification->status_cb(notification, place, status);
        notification->pending--;
    }
    if (notification->pending == 0)
        request_finish(req, place < 0 ? status : UBUS_STATUS_OK);
}

void handle_answer(ubus_context *ctx, bus_frame &frame) {
    ubus_request *req = request_find(ctx, frame.seq, frame.peer);
    if (!req)
        return;
    bus_attrs attrs;
    bus_attrs_parse(frame.attr(), attrs);

    if (frame.type == UBUS_MSG_STATUS) {
        int status = attrs[UBUS_ATTR_STATUS] ? static_cast<int>(attrs.u32(UBUS_ATTR_STATUS))
                                             : UBUS_STATUS_INVALID_ARGUMENT;
        if (req->notify)
            handle_notify_status(req, frame.peer, attrs, status);
        else
            request_finish(req, status);
        return;
    }
    if (req->raw_data_cb)
        req->raw_data_cb(req, frame.type, frame.attr());
    else if (req->data_cb)
        req->data_cb(req, frame.type, attrs[UBUS_ATTR_DATA]);
}

// Waits until the status is there; what else arrives meanwhile is dispatched, calls are held.
int request_wait(ubus_context *ctx, ubus_request *req, int timeout) {
    ubus_connection *conn = ctx->conn;
    unsigned generation = conn->generation;
    bool no_memory = false;
    auto end = ubus_clock::now() + std::chrono::milliseconds(timeout);
    const auto step = [&](auto action) { // without memory an answer is lost: the connection with it
        if (ubus_guarded([&] {
                action();
                return int{UBUS_STATUS_OK};
            }) != UBUS_STATUS_OK) {
            ubus_end_connection(ctx);
            no_memory = true;
        }
    };
    for (;;) {
        step([&] { ubus_dispatch(ctx); });
        if (req->status_msg)
            return req->status_code;
        if (req->cancelled || conn->generation != generation)
            return UBUS_STATUS_CONNECTION_FAILED;
        if (conn->ended)
            return no_memory ? UBUS_STATUS_NO_MEMORY : UBUS_STATUS_CONNECTION_FAILED;
        int64_t left = -1;
        if (timeout > 0) {
            left = std::chrono::ceil<std::chrono::milliseconds>(end - ubus_clock::now()).count();
            if (left <= 0)
                return UBUS_STATUS_TIMEOUT;
        }
        if (ubus_wait_readable(ctx, left))
            step([&] { ubus_receive(ctx); });
    }
}

} // namespace

int ubus_start_request(ubus_context *ctx, ubus_request *req, bus_builder &msg, uint8_t type, uint32_t peer) {
    *req = {};
    INIT_LIST_HEAD(&req->list);
    req->ctx = ctx;
    req->peer = peer;
    do {
        req->seq = ++ctx->request_seq;
    } while (request_find(ctx, req->seq, peer));

    if (!bus_finish(msg, type, req->seq, peer))
        return UBUS_STATUS_INVALID_ARGUMENT;
    return ubus_send(ctx, msg) ? UBUS_STATUS_OK : UBUS_STATUS_CONNECTION_FAILED;
}

void ubus_dispatch(ubus_context *ctx) {
    std::deque<bus_frame> &incoming = ctx->conn->incoming;
    while (!incoming.empty()) {
        bus_frame frame = std::move(incoming.front());
        incoming.pop_front();
        if (frame.type == UBUS_MSG_STATUS || frame.type == UBUS_MSG_DATA)
            handle_answer(ctx, frame);
        else if (frame.type == UBUS_MSG_INVOKE || frame.type == UBUS_MSG_NOTIFY ||
                 frame.type == UBUS_MSG_UNSUBSCRIBE)
            ubus_take_call(ctx, std::move(frame));
        else if (frame.type == UBUS_MSG_MONITOR && ctx->monitor_cb)
            ctx->monitor_cb(ctx, frame.seq, frame.attr());
    }
}

void ubus_fail_requests(ubus_context *ctx, int status) {
    // Requests that a callback starts meanwhile are not ours to end.
    list_head failing;
    INIT_LIST_HEAD(&failing);
    list_splice_tail_init(&ctx->requests, &failing);
    while (!list_empty(&failing))
        request_finish(list_first_entry(&failing, ubus_request, list), status);
}

const char *ubus_strerror(int error) {
    static char unknown[32];
    if (error < 0 || error >= __UBUS_STATUS_LAST) {
        std::snprintf(unknown, sizeof(unknown), "Unknown error: %d", error);
        return unknown;
    }
    return status_texts[static_cast<size_t>(error)];
}

int ubus_invoke_async(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg,
                      ubus_request *req) {
    return ubus_guarded([&] {
        bus_builder out;
        bus_put_u32(out, UBUS_ATTR_OBJID, obj);
        bus_put_text(out, UBUS_ATTR_METHOD, method);
        if (msg)
            bus_put_data(out, UBUS_ATTR_DATA, msg);
        else
            bus_put(out, UBUS_ATTR_DATA, nullptr, 0);
        return ubus_start_request(ctx, req, out, UBUS_MSG_INVOKE, obj);
    });
}

int ubus_invoke(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg, ubus_data_handler_t cb,
                void *priv, int timeout) {
    ubus_request req;
    int status = ubus_invoke_async(ctx, obj, method, msg, &req);
    if (status != UBUS_STATUS_OK)
        return status;
    req.data_cb = cb;
    req.priv = priv;
    return ubus_complete_request(ctx, &req, timeout);
}

int ubus_complete_request(ubus_context *ctx, ubus_request *req, int timeout) {
    req->blocked = true;
    if (!req->status_msg)
        ubus_complete_request_async(ctx, req);

    ctx->stack_depth++;
    int status = request_wait(ctx, req, timeout);
    ctx->stack_depth--;

    if (request_listed(req))
        list_del_init(&req->list);
    req->status_code = status;
    req->blocked = false;
    if (ctx->stack_depth == 0 && !ctx->conn->held_calls.empty())
        uloop_timeout_set(&ctx->pending_timer, 1);
    if (req->complete_cb)
        req->complete_cb(req, status);
    return status;
}

void ubus_complete_request_async(ubus_context *ctx, ubus_request *req) {
    if (!request_listed(req))
        list_add_tail(&req->list, &ctx->requests);
}

void ubus_abort_request(ubus_context *, ubus_request *req) {
    req->cancelled = true;
    if (request_listed(req))
        list_del_init(&req->list);
}
