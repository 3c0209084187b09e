// Objects on the bus and their types: added, removed, looked up.
#include "ubusd.h"

#include <algorithm>

extern "C" {
#include <libubox/blobmsg.h>
}

namespace {

// Attributes that a lookup adds to path and signature.
constexpr size_t lookup_overhead = 4 * sizeof(blob_attr) + 2 * sizeof(uint32_t) + sizeof(blob_attr);

template <typename Map> uint32_t new_id(const Map &map) {
    uint32_t id;
    do {
        id = ubusd_random_id();
    } while (map.count(id));
    return id;
}

// A table a method, in it the type of each argument as int32.
bool signature_is_sound(const blob_attr *signature) {
    size_t left = blob_len(signature);
    const auto *method = static_cast<const blob_attr *>(blob_data(signature));
    for (; left > 0; left -= blob_pad_len(method), method = blob_next(method)) {
        if (!blob_attr_fits(method, left) || !blobmsg_check_attr(method, true) ||
            blobmsg_type(method) != BLOBMSG_TYPE_TABLE)
            return false;
        size_t args_left = blobmsg_data_len(method);
        const auto *arg = static_cast<const blob_attr *>(blobmsg_data(method));
        for (; args_left > 0; args_left -= blob_pad_len(arg), arg = blob_next(arg)) {
            if (!blob_attr_fits(arg, args_left) || !blobmsg_check_attr(arg, true))
                return false;
        }
    }
    return true;
}

ubusd_type *type_add(ubusd_server &server, const blob_attr *signature) {
    if (!signature_is_sound(signature))
        return nullptr;
    uint32_t id = new_id(server.types);
    ubusd_type &type = server.types[id];
    type.id = id;
    const char *data = signature->data;
    type.signature.assign(data, data + blob_len(signature));
    return &type;
}

ubusd_type *type_find(ubusd_server &server, uint32_t id) {
    auto found = server.types.find(id);
    return found == server.types.end() ? nullptr : &found->second;
}

void object_remove(ubusd_server &server, uint32_t id) {
    auto found = server.objects.find(id);
    ubusd_object object = found->second;
    server.objects.erase(found);
    if (!object.path.empty())
        server.paths.erase(object.path);
    if (object.type && --object.type->users == 0)
        server.types.erase(object.type->id);
    object.owner->object_bytes -= object.bytes;
    ubusd_remove_listeners(server, object);
    ubusd_remove_subscriptions(server, object);
    if (!object.path.empty())
        ubusd_announce_object(server, object, false);
}

void put_object_ids(bus_builder &out, const ubusd_object &object, bool with_type) {
    bus_put_u32(out, UBUS_ATTR_OBJID, object.id);
    if (with_type)
        bus_put_u32(out, UBUS_ATTR_OBJTYPE, object.type->id);
}

void send_object_ids(ubusd_client &client, const bus_frame &frame, const ubusd_object &object,
                     bool with_type) {
    bus_builder out;
    put_object_ids(out, object, with_type);
    bus_finish(out, UBUS_MSG_DATA, frame.seq, frame.peer);
    ubusd_client_send_or_drop(client, std::move(out.bytes));
}

// What the client may call of a signature, in `out`. False when that is nothing of something: the object is
// hidden.
bool put_allowed_methods(bus_builder &out, const ubusd_client &client, const ubusd_object &object) {
    const std::vector<char> &all = object.type->signature;
    if (client.uid == 0 || all.empty()) {
        bus_put(out, UBUS_ATTR_SIGNATURE, all.data(), all.size());
        return true;
    }
    std::vector<char> allowed;
    const auto *method = reinterpret_cast<const blob_attr *>(all.data());
    for (size_t left = all.size(); left > 0; left -= blob_pad_len(method), method = blob_next(method)) {
        const char *start = reinterpret_cast<const char *>(method);
        if (ubusd_may(client, ubusd_right::access, object.path, blobmsg_name(method)))
            allowed.insert(allowed.end(), start, start + blob_pad_len(method));
    }
    bus_put(out, UBUS_ATTR_SIGNATURE, allowed.data(), allowed.size());
    return !allowed.empty();
}

bool send_lookup_data(ubusd_client &client, const bus_frame &frame, const ubusd_object &object) {
    bus_builder out;
    bus_put_text(out, UBUS_ATTR_OBJPATH, object.path);
    put_object_ids(out, object, object.type != nullptr);
    if (object.type && !put_allowed_methods(out, client, object))
        return true;
    return bus_finish(out, UBUS_MSG_DATA, frame.seq, frame.peer) &&
           ubusd_client_send(client, std::move(out.bytes));
}

} // namespace

int ubusd_handle_add_object(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs) {
    ubusd_server &server = *client.server;
    std::string path = attrs[UBUS_ATTR_OBJPATH] ? attrs.text(UBUS_ATTR_OBJPATH) : "";
    if (attrs[UBUS_ATTR_OBJPATH] &&
        (path.empty() || server.paths.count(path) || !ubusd_may(client, ubusd_right::publish, path)))
        return UBUS_STATUS_INVALID_ARGUMENT;

    const blob_attr *signature = attrs[UBUS_ATTR_OBJTYPE] ? nullptr : attrs[UBUS_ATTR_SIGNATURE];
    ubusd_type *type = attrs[UBUS_ATTR_OBJTYPE] ? type_find(server, attrs.u32(UBUS_ATTR_OBJTYPE)) : nullptr;
    if (attrs[UBUS_ATTR_OBJTYPE] && !type)
        return UBUS_STATUS_INVALID_ARGUMENT;
    size_t signature_len = signature ? blob_len(signature) : type ? type->signature.size() : 0;
    size_t bytes = path.size() + (signature ? signature_len : 0) + sizeof(ubusd_object);
    // Whoever looks it up must be able to take the answer.
    if (path.size() + signature_len + lookup_overhead + 2 * BLOB_ATTR_ALIGN > UBUS_MAX_MSGLEN)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (client.objects.size() >= ubusd_max_objects || client.object_bytes + bytes > ubusd_max_object_bytes)
        return UBUS_STATUS_NO_MEMORY;
    if (signature && !(type = type_add(server, signature)))
        return UBUS_STATUS_INVALID_ARGUMENT;

    uint32_t id = new_id(server.objects);
    ubusd_object &object = server.objects[id];
    object = {id, path, type, &client, bytes};
    if (type)
        type->users++;
    if (!path.empty())
        server.paths[path] = id;
    client.objects.push_back(id);
    client.object_bytes += bytes;

    send_object_ids(client, frame, object, signature != nullptr);
    if (!path.empty())
        ubusd_announce_object(server, object, true);
    return UBUS_STATUS_OK;
}

int ubusd_handle_remove_object(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs) {
    ubusd_server &server = *client.server;
    if (!attrs[UBUS_ATTR_OBJID])
        return UBUS_STATUS_INVALID_ARGUMENT;
    auto found = server.objects.find(attrs.u32(UBUS_ATTR_OBJID));
    if (found == server.objects.end())
        return UBUS_STATUS_NOT_FOUND;
    ubusd_object &object = found->second;
    if (object.owner != &client)
        return UBUS_STATUS_PERMISSION_DENIED;

    // The type goes with its last object, and its owner has to know.
    send_object_ids(client, frame, object, object.type && object.type->users == 1);
    uint32_t id = object.id;
    std::erase(client.objects, id);
    object_remove(server, id);
    return UBUS_STATUS_OK;
}

int ubusd_handle_lookup(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs) {
    ubusd_server &server = *client.server;
    std::string_view path = attrs[UBUS_ATTR_OBJPATH] ? attrs.text(UBUS_ATTR_OBJPATH) : "*";
    if (path.empty())
        return UBUS_STATUS_INVALID_ARGUMENT;
    bool prefix = path.ends_with('*');
    if (prefix)
        path.remove_suffix(1);

    bool any = false;
    for (auto pos = server.paths.lower_bound(path); pos != server.paths.end(); ++pos) {
        if (prefix ? !std::string_view(pos->first).starts_with(path) : pos->first != path)
            break;
        any = true;
        if (!send_lookup_data(client, frame, server.objects.at(pos->second)))
            return UBUS_STATUS_NO_MEMORY;
    }
    return any || !attrs[UBUS_ATTR_OBJPATH] ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND;
}

void ubusd_remove_objects(ubusd_client &client) {
    std::vector<uint32_t> objects = std::move(client.objects);
    client.objects.clear();
    for (uint32_t id : objects)
        object_remove(*client.server, id);
}
