// Requests: sent, matched with what comes back by sequence number and peer, waited for or left to the event
// loop.
#include "ubus_internal.h"

#include <array>

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

ubus_request *request_find(ubus_context *ctx, uint16_t seq, uint32_t peer) {
    ubus_request *req;
    list_for_each_entry(req, &ctx->requests, list) {
        if (req->seq == seq && req->peer == peer)
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

void handle_answer(ubus_context *ctx, bus_frame &frame) {
    ubus_request *req = request_find(ctx, frame.seq, frame.peer);
    if (!req)
        return;
    bus_attrs attrs;
    bus_attrs_parse(frame.attr(), attrs);

    if (frame.type == UBUS_MSG_STATUS) {
        request_finish(req, attrs[UBUS_ATTR_STATUS] ? static_cast<int>(attrs.u32(UBUS_ATTR_STATUS))
                                                    : UBUS_STATUS_INVALID_ARGUMENT);
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
    auto end = ubus_clock::now() + std::chrono::milliseconds(timeout);
    for (;;) {
        ubus_dispatch(ctx);
        if (req->status_msg)
            return req->status_code;
        if (req->cancelled || conn->generation != generation)
            return UBUS_STATUS_CONNECTION_FAILED;
        if (conn->ended)
            return UBUS_STATUS_CONNECTION_FAILED;
        int64_t left = -1;
        if (timeout > 0) {
            left = std::chrono::ceil<std::chrono::milliseconds>(end - ubus_clock::now()).count();
            if (left <= 0)
                return UBUS_STATUS_TIMEOUT;
        }
        if (ubus_wait_readable(ctx, left))
            ubus_receive(ctx);
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
        else if (frame.type == UBUS_MSG_INVOKE)
            ubus_take_call(ctx, std::move(frame));
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
    if (error < 0 || error >= __UBUS_STATUS_LAST)
        return status_texts[UBUS_STATUS_UNKNOWN_ERROR];
    return status_texts[static_cast<size_t>(error)];
}

int ubus_invoke_async(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg,
                      ubus_request *req) {
    bus_builder out;
    bus_put_u32(out, UBUS_ATTR_OBJID, obj);
    bus_put_text(out, UBUS_ATTR_METHOD, method);
    if (msg)
        bus_put_data(out, UBUS_ATTR_DATA, msg);
    else
        bus_put(out, UBUS_ATTR_DATA, nullptr, 0);
    return ubus_start_request(ctx, req, out, UBUS_MSG_INVOKE, obj);
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

int ubus_send_reply(ubus_context *ctx, ubus_request_data *req, blob_attr *msg) {
    bus_builder out;
    bus_put_u32(out, UBUS_ATTR_OBJID, req->object);
    bus_put_data(out, UBUS_ATTR_DATA, msg);
    if (!bus_finish(out, UBUS_MSG_DATA, req->seq, req->peer))
        return UBUS_STATUS_INVALID_ARGUMENT;
    return ubus_send(ctx, out) ? UBUS_STATUS_OK : UBUS_STATUS_CONNECTION_FAILED;
}

void ubus_complete_deferred_request(ubus_context *ctx, ubus_request_data *req, int ret) {
    if (req->no_reply)
        return;
    bus_builder out;
    bus_put_u32(out, UBUS_ATTR_STATUS, static_cast<uint32_t>(ret));
    bus_put_u32(out, UBUS_ATTR_OBJID, req->object);
    bus_finish(out, UBUS_MSG_STATUS, req->seq, req->peer);
    ubus_send(ctx, out);
}
