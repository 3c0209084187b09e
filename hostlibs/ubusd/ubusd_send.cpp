// What goes to clients: their queues, the calls that are forwarded to them, and what monitors see of all
// that.
#include "ubusd.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/random.h>
#include <sys/socket.h>

namespace {

// Answers of the bus itself are small and still fit when the queue is full of others' messages.
constexpr size_t queue_reserve = 65536;

bool queue_push(ubusd_client &client, std::vector<char> &&message, size_t bound) {
    if (client.doomed)
        return true;
    if (client.queue_bytes + message.size() > bound)
        return false;
    bool was_empty = client.queue.empty();
    if (!was_empty) // it will wait, and not with the room it was built in
        message.shrink_to_fit();
    client.queue_bytes += message.size();
    client.queue.push_back(std::move(message));
    if (was_empty)
        ubusd_client_flush(client);
    return true;
}

// A finished message, taken apart again for the monitors.
void show_sent(const ubusd_client &client, const std::vector<char> &bytes) {
    if (client.server->monitors == 0)
        return;
    ubus_msghdr hdr;
    std::memcpy(&hdr, bytes.data(), sizeof(hdr));
    constexpr size_t start = bus_header_size + sizeof(blob_attr);
    ubusd_show(
        client,
        {hdr.type, be16_to_cpu(hdr.seq), be32_to_cpu(hdr.peer), {bytes.data() + start, bytes.size() - start}},
        true);
}

} // namespace

void ubusd_client_flush(ubusd_client &client) {
    if (client.sock.fd < 0)
        return;
    while (!client.queue.empty()) {
        const std::vector<char> &message = client.queue.front();
        ssize_t len = send(client.sock.fd, message.data() + client.sent, message.size() - client.sent,
                           MSG_NOSIGNAL | MSG_DONTWAIT);
        if (len < 0 && errno == EINTR)
            continue;
        if (len < 0) {
            if (errno != EAGAIN)
                ubusd_client_drop(client);
            break;
        }
        client.sent += static_cast<size_t>(len);
        if (client.sent == message.size()) {
            client.queue_bytes -= message.size();
            client.queue.pop_front();
            client.sent = 0;
        }
    }
    unsigned events = ULOOP_READ | (client.queue.empty() ? 0u : static_cast<unsigned>(ULOOP_WRITE));
    if (!client.doomed && (client.sock.flags & ULOOP_EVENT_MASK) != events)
        uloop_fd_add(&client.sock, events);
}

bool ubusd_client_send(ubusd_client &client, std::vector<char> &&message) {
    show_sent(client, message);
    return queue_push(client, std::move(message), ubusd_max_queue);
}

void ubusd_client_send_or_drop(ubusd_client &client, std::vector<char> &&message) {
    show_sent(client, message);
    size_t bound = ubusd_max_queue + (message.size() <= 64 ? queue_reserve : 0);
    if (!queue_push(client, std::move(message), bound))
        ubusd_client_drop(client);
}

void ubusd_client_drop(ubusd_client &client) {
    if (client.doomed)
        return;
    client.doomed = true;
    client.server->doomed.push_back(client.id);
}

void ubusd_show(const ubusd_client &client, const ubusd_message &message, bool sent) {
    if (client.server->monitors == 0)
        return;
    for (auto &[id, monitor] : client.server->clients) {
        if (!monitor->monitoring)
            continue;
        bus_builder out;
        bus_put_u32(out, UBUS_MONITOR_CLIENT, client.id);
        bus_put_u32(out, UBUS_MONITOR_PEER, message.peer);
        bus_put_u32(out, UBUS_MONITOR_SEQ, message.seq);
        bus_put_u32(out, UBUS_MONITOR_TYPE, message.type);
        bus_put_u8(out, UBUS_MONITOR_SEND, sent);
        bus_put(out, UBUS_MONITOR_DATA, message.data.data(), message.data.size());
        // A monitor that is behind, and whoever it would not fit, misses this one.
        if (bus_finish(out, UBUS_MSG_MONITOR, ++monitor->monitor_seq, 0))
            queue_push(*monitor, std::move(out.bytes), ubusd_max_queue);
    }
}

uint32_t ubusd_random_id() {
    uint32_t id = 0;
    while (id < UBUS_SYSTEM_OBJECT_MAX) {
        if (getrandom(&id, sizeof(id), 0) != sizeof(id) && errno != EINTR)
            abort();
    }
    return id;
}

int ubusd_forward_call(ubusd_object &object, const ubusd_client *source, uint16_t seq,
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
    if (!bus_finish(out, UBUS_MSG_INVOKE, seq, source ? source->id : 0))
        return UBUS_STATUS_INVALID_ARGUMENT;
    // An owner that is behind is not dropped for what others send it: the caller is told instead.
    return ubusd_client_send(*object.owner, std::move(out.bytes)) ? UBUS_STATUS_OK : UBUS_STATUS_NO_MEMORY;
}
