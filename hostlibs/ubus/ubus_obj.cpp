// Our own objects: registering them and taking them off.
#include "ubus_internal.h"

#include <algorithm>

namespace {

void put_signature(bus_builder &out, const ubus_object_type *type) {
    bus_table buf;
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
    if (status != UBUS_STATUS_OK) {
        obj->id = 0; // of an answer that was not brought to its end
        return status;
    }
    if (obj->id == 0)
        return UBUS_STATUS_NO_DATA;
    obj->avl.key = &obj->id;
    avl_insert(&ctx->objects, &obj->avl);
    return UBUS_STATUS_OK;
}

// An object whose registration was cut short has an id and is in no tree.
void object_forget_id(ubus_context *ctx, ubus_object *obj) {
    if (obj->id != 0 && avl_find(&ctx->objects, &obj->id) == &obj->avl)
        avl_delete(&ctx->objects, &obj->avl);
    obj->id = 0;
    obj->has_subscribers = false;
}

} // namespace

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
        if (status == UBUS_STATUS_CONNECTION_FAILED || status == UBUS_STATUS_TIMEOUT ||
            status == UBUS_STATUS_NO_MEMORY)
            return status;
    }
    // What the bus has refused may be added again.
    std::erase_if(ctx->conn->objects, [](const ubus_object *obj) { return obj->id == 0; });
    return UBUS_STATUS_OK;
}

int ubus_add_object(ubus_context *ctx, ubus_object *obj) {
    std::vector<ubus_object *> &objects = ctx->conn->objects;
    if (std::find(objects.begin(), objects.end(), obj) != objects.end())
        return UBUS_STATUS_INVALID_ARGUMENT;
    obj->id = 0;
    return ubus_guarded([&] {
        objects.reserve(objects.size() + 1);
        int status = object_register(ctx, obj);
        if (status == UBUS_STATUS_OK)
            objects.push_back(obj);
        return status;
    });
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
