// What a message makes the bus do: a table of handlers by type, calls forwarded to owners, answers back to
// callers.
#include "ubusd.h"

#include <array>

namespace {

using handler = int (*)(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs);

void send_data(ubusd_client &client, const bus_frame &frame) {
    bus_builder out;
    out.bytes.reserve(out.bytes.size() + frame.body.size());
    out.bytes.insert(out.bytes.end(), frame.body.begin() + sizeof(blob_attr), frame.body.end());
    bus_finish(out, UBUS_MSG_DATA, frame.seq, frame.peer);
    ubusd_client_send_or_drop(client, std::move(out.bytes));
}

// What was sent comes back.
int handle_ping(ubusd_client &client, bus_frame &frame, const bus_attrs &) {
    send_data(client, frame);
    return UBUS_STATUS_OK;
}

// The bus's own object 3: "add" and "remove" the caller as one who sees all that goes over the bus.
int handle_monitor_call(ubusd_client &client, const bus_attrs &attrs) {
    std::string_view method = attrs.text(UBUS_ATTR_METHOD);
    if (client.uid != 0)
        return UBUS_STATUS_PERMISSION_DENIED;
    if (method != "add" && method != "remove")
        return UBUS_STATUS_METHOD_NOT_FOUND;
    client.server->monitors -= client.monitoring;
    client.monitoring = method == "add";
    client.server->monitors += client.monitoring;
    client.monitor_seq = 0;
    return UBUS_STATUS_OK;
}

int handle_invoke(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs) {
    if (!attrs[UBUS_ATTR_OBJID] || !attrs[UBUS_ATTR_METHOD])
        return UBUS_STATUS_INVALID_ARGUMENT;
    uint32_t id = attrs.u32(UBUS_ATTR_OBJID);
    if (id == UBUS_SYSTEM_OBJECT_EVENT)
        return ubusd_handle_event_call(client, attrs);
    if (id == UBUS_SYSTEM_OBJECT_MONITOR)
        return handle_monitor_call(client, attrs);
    auto found = client.server->objects.find(id);
    if (found == client.server->objects.end())
        return UBUS_STATUS_NOT_FOUND;
    ubusd_object &object = found->second;
    if (!object.path.empty() &&
        !ubusd_may(client, ubusd_right::access, object.path, attrs.text(UBUS_ATTR_METHOD)))
        return UBUS_STATUS_PERMISSION_DENIED;
    bool no_reply = attrs[UBUS_ATTR_NO_REPLY] && blob_get_u8(attrs[UBUS_ATTR_NO_REPLY]) != 0;
    int status = ubusd_forward_call(object, &client, frame.seq, attrs.text(UBUS_ATTR_METHOD),
                                    attrs[UBUS_ATTR_DATA], no_reply);
    return status == UBUS_STATUS_OK ? ubusd_no_status : status;
}

// DATA and STATUS of an owner; with anything wrong about them they go nowhere.
int handle_answer(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs) {
    ubusd_server &server = *client.server;
    if (!attrs[UBUS_ATTR_OBJID] || (frame.type == UBUS_MSG_STATUS && !attrs[UBUS_ATTR_STATUS]))
        return ubusd_no_status;
    auto object = server.objects.find(attrs.u32(UBUS_ATTR_OBJID));
    auto caller = server.clients.find(frame.peer);
    if (object == server.objects.end() || object->second.owner != &client || caller == server.clients.end())
        return ubusd_no_status;

    bus_builder out;
    out.bytes.reserve(out.bytes.size() + frame.body.size());
    out.bytes.insert(out.bytes.end(), frame.body.begin() + sizeof(blob_attr), frame.body.end());
    if (bus_finish(out, frame.type, frame.seq, object->first))
        ubusd_client_send_or_drop(*caller->second, std::move(out.bytes));
    return ubusd_no_status;
}

constexpr std::array<handler, __UBUS_MSG_LAST> handlers = {
    nullptr,                    // HELLO
    handle_answer,              // STATUS
    handle_answer,              // DATA
    handle_ping,                // PING
    ubusd_handle_lookup,        // LOOKUP
    handle_invoke,              // INVOKE
    ubusd_handle_add_object,    // ADD_OBJECT
    ubusd_handle_remove_object, // REMOVE_OBJECT
    ubusd_handle_subscribe,     // SUBSCRIBE
    ubusd_handle_unsubscribe,   // UNSUBSCRIBE
    ubusd_handle_notify,        // NOTIFY
    nullptr,                    // MONITOR
};

int run_handler(ubusd_client &client, bus_frame &frame) {
    if (frame.type >= handlers.size() || !handlers[frame.type])
        return UBUS_STATUS_INVALID_COMMAND;
    bus_attrs attrs;
    bool sound = bus_attrs_parse(frame.attr(), attrs);
    if (sound)
        return handlers[frame.type](client, frame, attrs);
    bool answer = frame.type == UBUS_MSG_STATUS || frame.type == UBUS_MSG_DATA;
    return answer ? ubusd_no_status : UBUS_STATUS_INVALID_ARGUMENT;
}

} // namespace

void ubusd_handle(ubusd_client &client, bus_frame &frame) {
    int status = run_handler(client, frame);
    if (status == ubusd_no_status)
        return;
    bus_builder out;
    bus_put_u32(out, UBUS_ATTR_STATUS, static_cast<uint32_t>(status));
    bus_finish(out, UBUS_MSG_STATUS, frame.seq, frame.peer);
    ubusd_client_send_or_drop(client, std::move(out.bytes));
}
