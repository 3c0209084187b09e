// Subscriptions to others' objects, notifications to the subscribers of ours, and monitoring.
#include "ubus_internal.h"

namespace {

int send_subscription(ubus_context *ctx, const ubus_subscriber *subscriber, uint32_t target, uint8_t type) {
    bus_builder out;
    bus_put_u32(out, UBUS_ATTR_OBJID, subscriber->obj.id);
    bus_put_u32(out, UBUS_ATTR_TARGET, target);
    ubus_request req;
    int status = ubus_start_request(ctx, &req, out, type, 0);
    return status == UBUS_STATUS_OK ? ubus_complete_request(ctx, &req, bus_answer_ms) : status;
}

int send_notification(ubus_context *ctx, const ubus_object *obj, const char *type, blob_attr *msg,
                      bool no_reply, ubus_request *req) {
    return ubus_guarded([&] {
        bus_builder out;
        bus_put_u32(out, UBUS_ATTR_OBJID, obj->id);
        bus_put_text(out, UBUS_ATTR_METHOD, type);
        if (no_reply)
            bus_put_u8(out, UBUS_ATTR_NO_REPLY, 1);
        if (msg)
            bus_put_data(out, UBUS_ATTR_DATA, msg);
        return ubus_start_request(ctx, req, out, UBUS_MSG_NOTIFY, 0);
    });
}

void pass_on_data(ubus_request *req, int type, blob_attr *msg) {
    auto *notification = container_of(req, ubus_notify_request, req);
    if (notification->data_cb)
        notification->data_cb(notification, type, msg);
}

void pass_on_completion(ubus_request *req, int) {
    auto *notification = container_of(req, ubus_notify_request, req);
    if (notification->complete_cb)
        notification->complete_cb(notification, 0, 0);
}

} // namespace

int ubus_register_subscriber(ubus_context *ctx, ubus_subscriber *subscriber) {
    subscriber->obj.methods = ubus_subscriber_methods;
    subscriber->obj.n_methods = 1;
    return ubus_add_object(ctx, &subscriber->obj);
}

int ubus_subscribe(ubus_context *ctx, ubus_subscriber *subscriber, uint32_t id) {
    return send_subscription(ctx, subscriber, id, UBUS_MSG_SUBSCRIBE);
}

int ubus_unsubscribe(ubus_context *ctx, ubus_subscriber *subscriber, uint32_t id) {
    return send_subscription(ctx, subscriber, id, UBUS_MSG_UNSUBSCRIBE);
}

int ubus_notify_async(ubus_context *ctx, ubus_object *obj, const char *type, blob_attr *msg,
                      ubus_notify_request *req) {
    *req = {};
    int status = send_notification(ctx, obj, type, msg, false, &req->req);
    req->req.notify = true;
    req->req.data_cb = pass_on_data;
    req->req.complete_cb = pass_on_completion;
    return status;
}

int ubus_notify(ubus_context *ctx, ubus_object *obj, const char *type, blob_attr *msg, int timeout) {
    if (timeout < 0) {
        ubus_request unanswered;
        return send_notification(ctx, obj, type, msg, true, &unanswered);
    }
    ubus_notify_request req;
    int status = ubus_notify_async(ctx, obj, type, msg, &req);
    return status == UBUS_STATUS_OK ? ubus_complete_request(ctx, &req.req, timeout) : status;
}

int __ubus_monitor(ubus_context *ctx, const char *type) {
    return ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_MONITOR, type, nullptr, nullptr, nullptr, bus_answer_ms);
}

int ubus_send_event(ubus_context *ctx, const char *id, blob_attr *data) {
    blob_buf buf = {};
    blob_buf_init(&buf, 0);
    blobmsg_add_string(&buf, "id", id);
    blobmsg_add_field(&buf, BLOBMSG_TYPE_TABLE, "data", blob_data(data),
                      static_cast<unsigned>(blob_len(data)));
    int status =
        ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "send", buf.head, nullptr, nullptr, bus_answer_ms);
    blob_buf_free(&buf);
    return status;
}
