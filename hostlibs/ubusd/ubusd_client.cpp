// Clients: their bytes in, their queue out, their end.
#include "ubusd.h"

#include <cerrno>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// A client that sends without end gets one such piece a turn; then the others have theirs.
constexpr size_t bytes_per_turn = 65536;

// Answers of the bus itself are small and still fit when the queue is full of others' messages.
constexpr size_t queue_reserve = 65536;

void queue_flush(ubusd_client &client) {
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

bool queue_push(ubusd_client &client, std::vector<char> &&message, size_t bound) {
    if (client.doomed)
        return true;
    if (client.queue_bytes + message.size() > bound)
        return false;
    bool was_empty = client.queue.empty();
    client.queue_bytes += message.size();
    client.queue.push_back(std::move(message));
    if (was_empty)
        queue_flush(client);
    return true;
}

// False when there was nothing to read.
bool read_input(ubusd_client &client) {
    // Without room for ancillary data the kernel closes descriptors that come along.
    char buf[bytes_per_turn];
    ssize_t len = recv(client.sock.fd, buf, sizeof(buf), MSG_DONTWAIT);
    if (len > 0)
        ubusd_client_input(client, std::string_view(buf, static_cast<size_t>(len)));
    else if (len == 0 || (errno != EAGAIN && errno != EINTR))
        ubusd_client_drop(client);
    return len > 0;
}

void socket_ready(uloop_fd *sock, unsigned int events) {
    ubusd_client &client = *container_of(sock, ubusd_client, sock);
    ubusd_server &server = *client.server;
    if (events & ULOOP_WRITE)
        queue_flush(client);
    // Of a client that is gone all of its last words are read; after an error the loop does not call again.
    bool gone = sock->eof || sock->error;
    bool more = !client.doomed && read_input(client);
    while (more && gone && !client.doomed)
        more = read_input(client);
    if (sock->error)
        ubusd_client_drop(client);
    ubusd_reap(server);
}

std::string user_name(uid_t uid) {
    const passwd *entry = getpwuid(uid);
    return entry ? entry->pw_name : std::to_string(uid);
}

std::string group_name(gid_t gid) {
    const group *entry = getgrgid(gid);
    return entry ? entry->gr_name : std::to_string(gid);
}

uint32_t new_client_id(const ubusd_server &server) {
    uint32_t id;
    do {
        id = ubusd_random_id();
    } while (server.clients.count(id));
    return id;
}

} // namespace

ubusd_client *ubusd_client_add(ubusd_server &server, int fd) {
    uint32_t id = new_client_id(server);
    ubusd_client &client = *(server.clients[id] = std::make_unique<ubusd_client>());
    client.server = &server;
    client.id = id;
    client.sock.fd = fd;
    client.sock.cb = socket_ready;
    ucred cred = {};
    socklen_t cred_len = sizeof(cred);
    if (fd >= 0 && getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &cred_len) == 0) {
        client.user = user_name(cred.uid);
        client.group = group_name(cred.gid);
    }
    if (fd >= 0 && uloop_fd_add(&client.sock, ULOOP_READ) < 0) {
        ubusd_client_drop(client);
        return &client;
    }

    bus_builder hello;
    bus_finish(hello, UBUS_MSG_HELLO, 0, id);
    ubusd_client_send_or_drop(client, std::move(hello.bytes));
    return &client;
}

void ubusd_client_input(ubusd_client &client, std::string_view bytes) {
    while (!client.doomed) {
        bus_frame frame;
        switch (bus_reader_take(client.reader, bytes, frame)) {
        case bus_read::message:
            ubusd_handle(client, frame);
            break;
        case bus_read::broken:
            ubusd_client_drop(client);
            return;
        case bus_read::more:
            return;
        }
    }
}

bool ubusd_client_send(ubusd_client &client, std::vector<char> &&message) {
    return queue_push(client, std::move(message), ubusd_max_queue);
}

void ubusd_client_send_or_drop(ubusd_client &client, std::vector<char> &&message) {
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

void ubusd_reap(ubusd_server &server) {
    // Announcing that objects went may doom further clients.
    while (!server.doomed.empty()) {
        uint32_t id = server.doomed.back();
        server.doomed.pop_back();
        auto found = server.clients.find(id);
        ubusd_client &client = *found->second;
        ubusd_remove_objects(client);
        if (client.sock.fd >= 0) {
            uloop_fd_delete(&client.sock);
            close(client.sock.fd);
        }
        server.clients.erase(found);
    }
}
