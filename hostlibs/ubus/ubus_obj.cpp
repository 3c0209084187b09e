// Our own objects: registering them, and answering the calls that arrive for them.
#include "ubus_internal.h"

#include <algorithm>
#include <cstring>

namespace {

void put_signature(bus_builder &out, const ubus_object_type *type) {
    blob_buf buf = {};
    blob_buf_init(&buf, 0);
    for (int i = 0; type && i < type->n_methods; i++) {
        const ubus_method &method = type->methods[i];
        if (!method.name)
            continue;
        void *table = blobmsg_open_table(&buf, method.name);
        for (int arg = 0; arg < method.n_policy; arg++) {
            if (!method.mask ||
                (static_cast<size_t>(arg) < 8 * sizeof(method.mask) && (method.mask >> arg & 1)))
                blobmsg_add_u32(&buf, method.policy[arg].name,
                                static_cast<uint32_t>(method.policy[arg].type));
        }
        blobmsg_close_table(&buf, table);
    }
    bus_put_data(out, UBUS_ATTR_SIGNATURE, buf.head);
    blob_buf_free(&buf);
}

void take_object_ids(ubus_request *req, int, blob_attr *msg) {
    auto *obj = static_cast<ubus_object *>(req->priv);
    bus_attrs attrs;
    if (!bus_attrs_parse(msg, attrs) || !attrs[UBUS_ATTR_OBJID])
        return;
    obj->id = attrs.u32(UBUS_ATTR_OBJID);
    if (attrs[UBUS_ATTR_OBJTYPE] && obj->type)
        obj->type->id = attrs.u32(UBUS_ATTR_OBJTYPE);
}

void drop_object_type(ubus_request *req, int, blob_attr *msg) {
    auto *obj = static_cast<ubus_object *>(req->priv);
    bus_attrs attrs;
    if (bus_attrs_parse(msg, attrs) && attrs[UBUS_ATTR_OBJTYPE] && obj->type)
        obj->type->id = 0;
}

int object_register(ubus_context *ctx, ubus_object *obj) {
    bus_builder out;
    if (obj->name && obj->type) {
        bus_put_text(out, UBUS_ATTR_OBJPATH, obj->name);
        if (obj->type->id)
            bus_put_u32(out, UBUS_ATTR_OBJTYPE, obj->type->id);
        else
            put_signature(out, obj->type);
    } else if (obj->name) {
        bus_put_text(out, UBUS_ATTR_OBJPATH, obj->name);
        put_signature(out, nullptr);
    }

    ubus_request req;
    int status = ubus_start_request(ctx, &req, out, UBUS_MSG_ADD_OBJECT, 0);
    if (status != UBUS_STATUS_OK)
        return status;
    req.raw_data_cb = take_object_ids;
    req.priv = obj;
    status = ubus_complete_request(ctx, &req, bus_answer_ms);
    if (status != UBUS_STATUS_OK)
        return status;
    if (obj->id == 0)
        return UBUS_STATUS_NO_DATA;
    obj->avl.key = &obj->id;
    avl_insert(&ctx->objects, &obj->avl);
    return UBUS_STATUS_OK;
}

void object_forget_id(ubus_context *ctx, ubus_object *obj) {
    if (obj->id != 0)
        avl_delete(&ctx->objects, &obj->avl);
    obj->id = 0;
}

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
    if (!attrs[UBUS_ATTR_OBJID])
        return;
    ubus_request_data req = request_of(call, attrs);
    ubus_complete_deferred_request(ctx, &req, UBUS_STATUS_NO_MEMORY);
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
        run_call(ctx, call);
    }
}

int ubus_register_objects(ubus_context *ctx) {
    for (ubus_object *obj : ctx->conn->objects) {
        object_forget_id(ctx, obj);
        if (obj->type)
            obj->type->id = 0;
    }
    // A copy: handlers of requests that end meanwhile may add and remove objects.
    std::vector<ubus_object *> objects = ctx->conn->objects;
    for (ubus_object *obj : objects) {
        int status = object_register(ctx, obj);
        if (status == UBUS_STATUS_CONNECTION_FAILED || status == UBUS_STATUS_TIMEOUT)
            return status;
    }
    return UBUS_STATUS_OK;
}

int ubus_add_object(ubus_context *ctx, ubus_object *obj) {
    std::vector<ubus_object *> &objects = ctx->conn->objects;
    if (std::find(objects.begin(), objects.end(), obj) != objects.end())
        return UBUS_STATUS_INVALID_ARGUMENT;
    obj->id = 0;
    int status = object_register(ctx, obj);
    if (status == UBUS_STATUS_OK)
        objects.push_back(obj);
    return status;
}

int ubus_remove_object(ubus_context *ctx, ubus_object *obj) {
    std::vector<ubus_object *> &objects = ctx->conn->objects;
    auto known = std::find(objects.begin(), objects.end(), obj);
    if (known == objects.end())
        return UBUS_STATUS_NOT_FOUND;
    objects.erase(known);
    uint32_t id = obj->id;
    object_forget_id(ctx, obj);
    if (id == 0)
        return UBUS_STATUS_OK;

    bus_builder out;
    bus_put_u32(out, UBUS_ATTR_OBJID, id);
    ubus_request req;
    int status = ubus_start_request(ctx, &req, out, UBUS_MSG_REMOVE_OBJECT, 0);
    if (status != UBUS_STATUS_OK)
        return status;
    req.raw_data_cb = drop_object_type;
    req.priv = obj;
    return ubus_complete_request(ctx, &req, bus_answer_ms);
}
