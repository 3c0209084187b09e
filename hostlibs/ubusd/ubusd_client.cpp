// Clients: who they are, their bytes in, their end.
#include "ubusd.h"

#include <cerrno>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// A client that sends without end gets one such piece a turn; then the others have theirs.
constexpr size_t bytes_per_turn = 65536;

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
        ubusd_client_flush(client);
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

std::vector<gid_t> groups_of(int fd, gid_t first) {
    std::vector<gid_t> groups(64);
    auto len = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &len) != 0)
        len = 0;
    groups.resize(len / sizeof(gid_t));
    groups.push_back(first);
    return groups;
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
        client.uid = cred.uid;
        client.groups = groups_of(fd, cred.gid);
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
            ubusd_show(client,
                       {frame.type, frame.seq, frame.peer, {frame.attr()->data, blob_len(frame.attr())}},
                       false);
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

void ubusd_reap(ubusd_server &server) {
    // Announcing that objects went may doom further clients.
    while (!server.doomed.empty()) {
        uint32_t id = server.doomed.back();
        server.doomed.pop_back();
        auto found = server.clients.find(id);
        ubusd_client &client = *found->second;
        ubusd_remove_objects(client);
        if (client.monitoring)
            server.monitors--;
        if (client.sock.fd >= 0) {
            uloop_fd_delete(&client.sock);
            close(client.sock.fd);
        }
        server.clients.erase(found);
    }
}
