// The bus's own object: clients register for events by name, and send them to each other.
#include "ubusd.h"

#include <algorithm>
#include <array>

extern "C" {
#include <libubox/blobmsg.h>
}

namespace {

enum { register_object, register_pattern, register_count };
constexpr blobmsg_policy register_policy[register_count] = {
    {"object", BLOBMSG_TYPE_INT32},
    {"pattern", BLOBMSG_TYPE_STRING},
};

enum { send_id, send_data, send_count };
constexpr blobmsg_policy send_policy[send_count] = {
    {"id", BLOBMSG_TYPE_STRING},
    {"data", BLOBMSG_TYPE_TABLE},
};

bool listener_matches(const ubusd_listener &listener, std::string_view name) {
    return listener.prefix ? name.starts_with(listener.pattern) : name == listener.pattern;
}

// `source` does not hear its own events, and nobody hears one twice. Listeners that are behind miss this one.
void send_event(ubusd_server &server, const ubusd_client *source, std::string_view name,
                const blob_attr *data) {
    std::vector<uint32_t> told;
    for (const ubusd_listener &listener : server.listeners) {
        auto object = server.objects.find(listener.object);
        if (object == server.objects.end() || object->second.owner == source ||
            !listener_matches(listener, name) || std::count(told.begin(), told.end(), listener.object))
            continue;
        told.push_back(listener.object);
        ubusd_forward_call(object->second, nullptr, ++object->second.owner->told, name, data, true);
    }
}

int handle_register(ubusd_client &client, blob_attr *data) {
    std::array<blob_attr *, register_count> tb;
    if (blobmsg_parse(register_policy, register_count, tb.data(), blob_data(data),
                      static_cast<unsigned>(blob_len(data))) != 0 ||
        !tb[register_object])
        return UBUS_STATUS_INVALID_ARGUMENT;
    ubusd_server &server = *client.server;
    auto object = server.objects.find(blobmsg_get_u32(tb[register_object]));
    // Events go to objects that nobody can call by name.
    if (object == server.objects.end() || object->second.owner != &client || !object->second.path.empty())
        return UBUS_STATUS_INVALID_ARGUMENT;
    std::string_view pattern = tb[register_pattern] ? blobmsg_get_string(tb[register_pattern]) : "*";
    if (pattern.empty() || !ubusd_may(client, ubusd_right::listen, pattern))
        return UBUS_STATUS_PERMISSION_DENIED;
    if (client.listeners >= ubusd_max_listeners)
        return UBUS_STATUS_NO_MEMORY;

    ubusd_listener listener;
    listener.object = object->first;
    listener.pattern = pattern;
    listener.prefix = listener.pattern.ends_with('*');
    if (listener.prefix)
        listener.pattern.pop_back();
    server.listeners.push_back(std::move(listener));
    client.listeners++;
    return UBUS_STATUS_OK;
}

int handle_send(ubusd_client &client, blob_attr *data) {
    std::array<blob_attr *, send_count> tb;
    if (blobmsg_parse(send_policy, send_count, tb.data(), blob_data(data),
                      static_cast<unsigned>(blob_len(data))) != 0 ||
        !tb[send_id] || !tb[send_data])
        return UBUS_STATUS_INVALID_ARGUMENT;
    std::string_view name = blobmsg_get_string(tb[send_id]);
    // Names of the bus's own events are not for others to send.
    if (name.starts_with("ubus.") || !ubusd_may(client, ubusd_right::send, name))
        return UBUS_STATUS_PERMISSION_DENIED;

    bus_table event;
    blob_put_raw(&event, blobmsg_data(tb[send_data]), static_cast<unsigned>(blobmsg_data_len(tb[send_data])));
    send_event(*client.server, &client, name, event.head);
    return UBUS_STATUS_OK;
}

} // namespace

int ubusd_handle_event_call(ubusd_client &client, const bus_attrs &attrs) {
    std::string_view method = attrs.text(UBUS_ATTR_METHOD);
    if (method != "register" && method != "send")
        return UBUS_STATUS_INVALID_COMMAND;
    if (!attrs[UBUS_ATTR_DATA])
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (method == "register")
        return handle_register(client, attrs[UBUS_ATTR_DATA]);
    return handle_send(client, attrs[UBUS_ATTR_DATA]);
}

void ubusd_announce_object(ubusd_server &server, const ubusd_object &object, bool added) {
    if (server.listeners.empty())
        return;
    bus_table event;
    blobmsg_add_u32(&event, "id", object.id);
    blobmsg_add_string(&event, "path", object.path.c_str());
    send_event(server, nullptr, added ? "ubus.object.add" : "ubus.object.remove", event.head);
}

void ubusd_announce_rights(ubusd_server &server) {
    bus_table event;
    blobmsg_add_u32(&event, "sequence", server.acl_sequence);
    send_event(server, nullptr, "ubus.acl.sequence", event.head);
}

void ubusd_remove_listeners(ubusd_server &server, const ubusd_object &object) {
    object.owner->listeners -= std::erase_if(
        server.listeners, [&object](const ubusd_listener &listener) { return listener.object == object.id; });
}
