// What a message makes the bus do: a table of handlers by type, calls forwarded to owners, answers back to
// callers.
#include "ubusd.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <sys/random.h>

namespace {

// The handler has seen to the answer, or there is none.
constexpr int no_status = -1;

using handler = int (*)(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs);

int handle_ping(ubusd_client &, bus_frame &, const bus_attrs &) {
    return UBUS_STATUS_OK;
}

int handle_invoke(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs) {
    if (!attrs[UBUS_ATTR_OBJID] || !attrs[UBUS_ATTR_METHOD])
        return UBUS_STATUS_INVALID_ARGUMENT;
    uint32_t id = attrs.u32(UBUS_ATTR_OBJID);
    if (id == UBUS_SYSTEM_OBJECT_EVENT)
        return ubusd_handle_event_call(client, frame, attrs);
    auto found = client.server->objects.find(id);
    if (found == client.server->objects.end())
        return UBUS_STATUS_NOT_FOUND;
    bool no_reply = attrs[UBUS_ATTR_NO_REPLY] && blob_get_u8(attrs[UBUS_ATTR_NO_REPLY]) != 0;
    int status = ubusd_forward_call(found->second, &client, frame, attrs.text(UBUS_ATTR_METHOD),
                                    attrs[UBUS_ATTR_DATA], no_reply);
    return status == UBUS_STATUS_OK ? no_status : status;
}

// DATA and STATUS of an owner; with anything wrong about them they go nowhere.
int handle_answer(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs) {
    ubusd_server &server = *client.server;
    if (!attrs[UBUS_ATTR_OBJID] || (frame.type == UBUS_MSG_STATUS && !attrs[UBUS_ATTR_STATUS]))
        return no_status;
    auto object = server.objects.find(attrs.u32(UBUS_ATTR_OBJID));
    auto caller = server.clients.find(frame.peer);
    if (object == server.objects.end() || object->second.owner != &client || caller == server.clients.end())
        return no_status;

    bus_builder out;
    out.bytes.reserve(out.bytes.size() + frame.body.size());
    out.bytes.insert(out.bytes.end(), frame.body.begin() + sizeof(blob_attr), frame.body.end());
    if (bus_finish(out, frame.type, frame.seq, object->first))
        ubusd_client_send_or_drop(*caller->second, std::move(out.bytes));
    return no_status;
}

int handle_unsupported(ubusd_client &, bus_frame &, const bus_attrs &) {
    return UBUS_STATUS_NOT_SUPPORTED;
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
    handle_unsupported,         // SUBSCRIBE
    handle_unsupported,         // UNSUBSCRIBE
    handle_unsupported,         // NOTIFY
    handle_unsupported,         // MONITOR
};

int run_handler(ubusd_client &client, bus_frame &frame) {
    if (frame.type >= handlers.size() || !handlers[frame.type])
        return UBUS_STATUS_INVALID_COMMAND;
    bus_attrs attrs;
    bool sound = bus_attrs_parse(frame.attr(), attrs);
    if (sound)
        return handlers[frame.type](client, frame, attrs);
    bool answer = frame.type == UBUS_MSG_STATUS || frame.type == UBUS_MSG_DATA;
    return answer ? no_status : UBUS_STATUS_INVALID_ARGUMENT;
}

} // namespace

uint32_t ubusd_random_id() {
    uint32_t id = 0;
    while (id < UBUS_SYSTEM_OBJECT_MAX) {
        if (getrandom(&id, sizeof(id), 0) != sizeof(id) && errno != EINTR)
            abort();
    }
    return id;
}

int ubusd_forward_call(ubusd_object &object, const ubusd_client *source, const bus_frame &frame,
                       std::string_view method, const blob_attr *data, bool no_reply) {
    bus_builder out;
    bus_put_u32(out, UBUS_ATTR_OBJID, object.id);
    bus_put_text(out, UBUS_ATTR_METHOD, method);
    if (source && !source->user.empty())
        bus_put_text(out, UBUS_ATTR_USER, source->user);
    if (source && !source->group.empty())
        bus_put_text(out, UBUS_ATTR_GROUP, source->group);
    bus_put_data(out, UBUS_ATTR_DATA, data);
    if (no_reply)
        bus_put_u8(out, UBUS_ATTR_NO_REPLY, 1);
    // User and group may lengthen it beyond what its owner would accept.
    if (!bus_finish(out, UBUS_MSG_INVOKE, frame.seq, source ? source->id : 0))
        return UBUS_STATUS_INVALID_ARGUMENT;
    // An owner that is behind is not dropped for what others send it: the caller is told instead.
    return ubusd_client_send(*object.owner, std::move(out.bytes)) ? UBUS_STATUS_OK : UBUS_STATUS_NO_MEMORY;
}

void ubusd_handle(ubusd_client &client, bus_frame &frame) {
    int status = run_handler(client, frame);
    if (status == no_status)
        return;
    bus_builder out;
    bus_put_u32(out, UBUS_ATTR_STATUS, static_cast<uint32_t>(status));
    bus_finish(out, UBUS_MSG_STATUS, frame.seq, frame.peer);
    ubusd_client_send_or_drop(client, std::move(out.bytes));
}
