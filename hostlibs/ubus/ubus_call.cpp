// What arrives for our own objects: calls, which are answered, and news about subscriptions.
#include "ubus_internal.h"

#include <cstring>

namespace {

ubus_object *object_find(ubus_context *ctx, uint32_t id) {
    return static_cast<ubus_object *>(
        avl_container(avl_find(&ctx->objects, &id), offsetof(ubus_object, avl)));
}

const ubus_method *method_find(const ubus_object *obj, const char *name) {
    for (int i = 0; i < obj->n_methods; i++) {
        if (!obj->methods[i].name || std::strcmp(obj->methods[i].name, name) == 0)
            return &obj->methods[i];
    }
    return nullptr;
}

int run_method(ubus_context *ctx, const bus_attrs &attrs, ubus_request_data &req) {
    ubus_object *obj = object_find(ctx, req.object);
    if (!obj)
        return UBUS_STATUS_NOT_FOUND;
    if (!attrs[UBUS_ATTR_METHOD])
        return UBUS_STATUS_INVALID_ARGUMENT;
    const char *name = attrs.text(UBUS_ATTR_METHOD);
    const ubus_method *method = method_find(obj, name);
    if (!method)
        return UBUS_STATUS_METHOD_NOT_FOUND;
    if (!attrs[UBUS_ATTR_DATA])
        return UBUS_STATUS_INVALID_ARGUMENT;
    req.acl.object = obj->name;
    return method->handler(ctx, obj, &req, name, attrs[UBUS_ATTR_DATA]);
}

ubus_request_data request_of(const bus_frame &call, const bus_attrs &attrs) {
    ubus_request_data req = {};
    req.object = attrs.u32(UBUS_ATTR_OBJID);
    req.peer = call.peer;
    req.seq = call.seq;
    if (attrs[UBUS_ATTR_USER])
        req.acl.user = attrs.text(UBUS_ATTR_USER);
    if (attrs[UBUS_ATTR_GROUP])
        req.acl.group = attrs.text(UBUS_ATTR_GROUP);
    req.no_reply = attrs[UBUS_ATTR_NO_REPLY] && blob_get_u8(attrs[UBUS_ATTR_NO_REPLY]) != 0;
    return req;
}

void run_call(ubus_context *ctx, bus_frame &call) {
    bus_attrs attrs;
    bus_attrs_parse(call.attr(), attrs);
    if (!attrs[UBUS_ATTR_OBJID])
        return;
    ubus_request_data req = request_of(call, attrs);
    unsigned generation = ctx->conn->generation;
    int status = run_method(ctx, attrs, req);
    // After a reconnect inside the handler the caller's ids mean nothing any more.
    if (!req.deferred && ctx->conn->generation == generation)
        ubus_complete_deferred_request(ctx, &req, status);
}

void refuse_call(ubus_context *ctx, bus_frame &call) {
    bus_attrs attrs;
    bus_attrs_parse(call.attr(), attrs);
    if (!attrs[UBUS_ATTR_OBJID] || call.type != UBUS_MSG_INVOKE)
        return;
    ubus_request_data req = request_of(call, attrs);
    ubus_complete_deferred_request(ctx, &req, UBUS_STATUS_NO_MEMORY);
}

// The bus tells whether an object of ours has subscribers at all.
void take_subscribers(ubus_context *ctx, const bus_attrs &attrs) {
    ubus_object *obj = object_find(ctx, attrs.u32(UBUS_ATTR_OBJID));
    if (!obj || !attrs[UBUS_ATTR_ACTIVE])
        return;
    obj->has_subscribers = blob_get_u8(attrs[UBUS_ATTR_ACTIVE]) != 0;
    if (obj->subscribe_cb)
        obj->subscribe_cb(ctx, obj);
}

// An object that one of ours had subscribed to is gone.
void take_end_of_target(ubus_context *ctx, const bus_attrs &attrs) {
    ubus_object *obj = object_find(ctx, attrs.u32(UBUS_ATTR_OBJID));
    if (!obj || !attrs[UBUS_ATTR_TARGET] || obj->methods != ubus_subscriber_methods)
        return;
    auto *subscriber = container_of(obj, ubus_subscriber, obj);
    if (subscriber->remove_cb)
        subscriber->remove_cb(ctx, subscriber, attrs.u32(UBUS_ATTR_TARGET));
}

int handle_notification(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method,
                        blob_attr *msg) {
    auto *subscriber = container_of(obj, ubus_subscriber, obj);
    return subscriber->cb ? subscriber->cb(ctx, obj, req, method, msg) : UBUS_STATUS_OK;
}

void run_held(ubus_context *ctx, bus_frame &frame) {
    if (frame.type == UBUS_MSG_INVOKE) {
        run_call(ctx, frame);
        return;
    }
    bus_attrs attrs;
    if (!bus_attrs_parse(frame.attr(), attrs) || !attrs[UBUS_ATTR_OBJID])
        return;
    if (frame.type == UBUS_MSG_NOTIFY)
        take_subscribers(ctx, attrs);
    else
        take_end_of_target(ctx, attrs);
}

} // namespace

void ubus_take_call(ubus_context *ctx, bus_frame &&call) {
    ubus_connection *conn = ctx->conn;
    if (conn->held_calls.size() >= held_calls_max ||
        conn->held_bytes + call.body.size() > held_calls_max_bytes) {
        refuse_call(ctx, call);
        return;
    }
    conn->held_bytes += call.body.size();
    conn->held_calls.push_back(std::move(call));
    ubus_run_held_calls(ctx);
}

void ubus_run_held_calls(ubus_context *ctx) {
    ubus_connection *conn = ctx->conn;
    while (ctx->stack_depth == 0 && !conn->held_calls.empty()) {
        bus_frame call = std::move(conn->held_calls.front());
        conn->held_calls.pop_front();
        conn->held_bytes -= call.body.size();
        run_held(ctx, call);
    }
}

int ubus_send_reply(ubus_context *ctx, ubus_request_data *req, blob_attr *msg) {
    return ubus_guarded([&]() -> int {
        bus_builder out;
        bus_put_u32(out, UBUS_ATTR_OBJID, req->object);
        bus_put_data(out, UBUS_ATTR_DATA, msg);
        if (!bus_finish(out, UBUS_MSG_DATA, req->seq, req->peer))
            return UBUS_STATUS_INVALID_ARGUMENT;
        return ubus_send(ctx, out) ? UBUS_STATUS_OK : UBUS_STATUS_CONNECTION_FAILED;
    });
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

const ubus_method ubus_subscriber_methods[] = {UBUS_METHOD_NOARG(nullptr, handle_notification)};
