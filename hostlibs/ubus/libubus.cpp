// The connection's life: connect, event loop, loss, reconnect, end; and what the bus itself answers: lookups,
// events.
#include "ubus_internal.h"

#include <cstdlib>
#include <memory>
#include <new>

namespace {

// Bytes read in one turn of the event loop stay bounded, so that timers get theirs.
constexpr int reads_per_turn = 16;

int compare_ids(const void *a, const void *b, void *) {
    uint32_t left = *static_cast<const uint32_t *>(a);
    uint32_t right = *static_cast<const uint32_t *>(b);
    return left < right ? -1 : left > right;
}

void default_connection_lost(ubus_context *ctx) {
    if (ctx->conn->in_loop)
        uloop_end();
}

void connection_ended(ubus_context *ctx) {
    if (ctx->conn->loss_told)
        return;
    ctx->conn->loss_told = true;
    // The loop would report the end of this socket again and again.
    ctx->conn->in_loop |= ctx->sock.registered;
    if (ctx->sock.registered)
        uloop_fd_delete(&ctx->sock);
    ctx->sock.eof = true;
    unsigned generation = ctx->conn->generation;
    ubus_fail_requests(ctx, UBUS_STATUS_TIMEOUT);
    // A callback above may have connected again already. Our caller does not touch the context after this.
    if (ctx->conn->generation == generation && ctx->connection_lost)
        ctx->connection_lost(ctx);
}

int serve(ubus_context *ctx) {
    uloop_fd *sock = &ctx->sock;
    // After a hang-up the loop does not call again: then all that is left is read now.
    bool last_turn = sock->eof || sock->error || !sock->registered;
    unsigned generation = ctx->conn->generation;
    ubus_run_held_calls(ctx);
    ubus_dispatch(ctx);
    for (int turn = 0; (last_turn || turn < reads_per_turn) && ctx->conn->generation == generation; turn++) {
        bool more = ubus_receive(ctx);
        ubus_dispatch(ctx);
        if (!more || (!last_turn && uloop_cancelling()))
            break;
    }
    return UBUS_STATUS_OK;
}

// A message that there was no memory for is lost, and with it what it belonged to.
void socket_ready(uloop_fd *sock, unsigned int) {
    auto *ctx = container_of(sock, ubus_context, sock);
    unsigned generation = ctx->conn->generation;
    if (ubus_guarded([&] { return serve(ctx); }) != UBUS_STATUS_OK && ctx->conn->generation == generation)
        ubus_end_connection(ctx);
    if (ctx->conn->ended && ctx->conn->generation == generation)
        connection_ended(ctx);
}

void run_pending(uloop_timeout *timer) {
    auto *ctx = container_of(timer, ubus_context, pending_timer);
    if (ctx->sock.fd >= 0)
        socket_ready(&ctx->sock, ULOOP_READ);
}

struct lookup_request {
    ubus_lookup_handler_t cb;
    void *priv;
};

void take_lookup_data(ubus_request *req, int, blob_attr *msg) {
    auto *lookup = static_cast<lookup_request *>(req->priv);
    bus_attrs attrs;
    if (!bus_attrs_parse(msg, attrs) || !attrs[UBUS_ATTR_OBJID] || !attrs[UBUS_ATTR_OBJPATH])
        return;
    ubus_object_data obj = {};
    obj.id = attrs.u32(UBUS_ATTR_OBJID);
    obj.path = attrs.text(UBUS_ATTR_OBJPATH);
    if (attrs[UBUS_ATTR_OBJTYPE])
        obj.type_id = attrs.u32(UBUS_ATTR_OBJTYPE);
    obj.signature = attrs[UBUS_ATTR_SIGNATURE];
    if (lookup->cb)
        lookup->cb(req->ctx, &obj, lookup->priv);
}

int handle_event_call(ubus_context *ctx, ubus_object *obj, ubus_request_data *, const char *method,
                      blob_attr *msg) {
    auto *ev = container_of(obj, ubus_event_handler, obj);
    ev->cb(ctx, ev, method, msg);
    return UBUS_STATUS_OK;
}

constexpr ubus_method event_methods[] = {UBUS_METHOD_NOARG(nullptr, handle_event_call)};

} // namespace

void ubus_init(ubus_context *ctx) {
    *ctx = {};
    INIT_LIST_HEAD(&ctx->requests);
    avl_init(&ctx->objects, compare_ids, false, nullptr);
    ctx->sock.fd = -1;
    ctx->sock.cb = socket_ready;
    ctx->pending_timer.cb = run_pending;
    ctx->connection_lost = default_connection_lost;
    ctx->conn = new ubus_connection;
}

ubus_context *ubus_connect(const char *path) {
    auto *ctx = new (std::nothrow) ubus_context;
    if (ctx != nullptr && ubus_connect_ctx(ctx, path) == 0)
        return ctx;
    delete ctx;
    return nullptr;
}

int ubus_connect_ctx(ubus_context *ctx, const char *path) {
    const bool made = ubus_guarded(false, [&] {
        ubus_init(ctx);
        return true;
    });
    if (!made)
        return -1;
    if (ubus_guarded(false, [&] { return ubus_open(ctx, path); }))
        return 0;
    ubus_close(ctx);
    delete ctx->conn;
    ctx->conn = nullptr;
    return -1;
}

int ubus_reconnect(ubus_context *ctx, const char *path) {
    ubus_close(ctx);
    uloop_timeout_cancel(&ctx->pending_timer);
    ubus_fail_requests(ctx, UBUS_STATUS_TIMEOUT);
    int status = ubus_guarded([&] {
        return ubus_open(ctx, path) ? ubus_register_objects(ctx) : int{UBUS_STATUS_CONNECTION_FAILED};
    });
    if (status != UBUS_STATUS_OK)
        ubus_close(ctx);
    return status;
}

void ubus_shutdown(ubus_context *ctx) {
    if (!ctx || !ctx->conn)
        return;
    ubus_close(ctx);
    uloop_timeout_cancel(&ctx->pending_timer);
    ubus_fail_requests(ctx, UBUS_STATUS_TIMEOUT);
    delete ctx->conn;
    ctx->conn = nullptr;
}

void ubus_free(ubus_context *ctx) {
    ubus_shutdown(ctx);
    delete ctx;
}

void ubus_add_uloop(ubus_context *ctx) {
    if (ctx->sock.fd < 0)
        return;
    ctx->conn->in_loop = uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ) == 0;
    // What a blocking call has read already makes the socket ready no more.
    if (!ctx->conn->held_calls.empty() || !ctx->conn->incoming.empty())
        uloop_timeout_set(&ctx->pending_timer, 1);
}

void ubus_handle_event(ubus_context *ctx) {
    ctx->sock.cb(&ctx->sock, ULOOP_READ);
}

int ubus_lookup(ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv) {
    ubus_request req;
    int status = ubus_guarded([&] {
        bus_builder out;
        if (path)
            bus_put_text(out, UBUS_ATTR_OBJPATH, path);
        return ubus_start_request(ctx, &req, out, UBUS_MSG_LOOKUP, 0);
    });
    if (status != UBUS_STATUS_OK)
        return status;
    lookup_request lookup = {cb, priv};
    req.raw_data_cb = take_lookup_data;
    req.priv = &lookup;
    return ubus_complete_request(ctx, &req, bus_answer_ms);
}

int ubus_lookup_id(ubus_context *ctx, const char *path, uint32_t *id) {
    auto take_id = [](ubus_context *, ubus_object_data *obj, void *priv) {
        *static_cast<uint32_t *>(priv) = obj->id;
    };
    *id = 0;
    // An object that we may not see is answered with nothing: a success whose id is 0, which no object has.
    return ubus_lookup(ctx, path, take_id, id);
}

int ubus_register_event_handler(ubus_context *ctx, ubus_event_handler *ev, const char *pattern) {
    ev->obj.methods = event_methods;
    ev->obj.n_methods = static_cast<int>(ARRAY_SIZE(event_methods));
    if (ev->obj.id == 0) {
        int status = ubus_add_object(ctx, &ev->obj);
        if (status != UBUS_STATUS_OK)
            return status;
    }
    blob_buf buf = {};
    blob_buf_init(&buf, 0);
    blobmsg_add_u32(&buf, "object", ev->obj.id);
    if (pattern)
        blobmsg_add_string(&buf, "pattern", pattern);
    int status =
        ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "register", buf.head, nullptr, nullptr, bus_answer_ms);
    blob_buf_free(&buf);
    return status;
}
