// The socket: connecting, the greeting, bytes in and out. No call of this file waits without a limit unless
// asked to.
#include "ubus_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using deadline = ubus_clock::time_point;

deadline deadline_in(int ms) {
    return ubus_clock::now() + std::chrono::milliseconds(ms);
}

int ms_until(deadline end) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(end - ubus_clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

// A bus with a full backlog does not block us: it is tried again until the deadline.
int connect_until(const sockaddr_un &addr, deadline end) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    while (connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) < 0) {
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN || ms_until(end) == 0) {
            close(fd);
            return -1;
        }
        poll(nullptr, 0, 10);
    }
    return fd;
}

// The first message must be HELLO and gives us our id.
bool await_hello(ubus_context *ctx, deadline end) {
    ubus_connection *conn = ctx->conn;
    while (conn->incoming.empty()) {
        if (conn->ended || !ubus_wait_readable(ctx, ms_until(end)))
            return false;
        ubus_receive(ctx);
    }
    bus_frame hello = std::move(conn->incoming.front());
    conn->incoming.pop_front();
    if (hello.type != UBUS_MSG_HELLO || hello.peer == 0)
        return false;
    ctx->local_id = hello.peer;
    return true;
}

} // namespace

void ubus_end_connection(ubus_context *ctx) {
    ctx->conn->ended = true;
    ctx->sock.eof = true;
    // An event loop that watches the socket hears of it, too.
    if (ctx->sock.fd >= 0)
        shutdown(ctx->sock.fd, SHUT_RDWR);
}

bool ubus_wait_readable(ubus_context *ctx, int64_t ms) {
    deadline end = deadline_in(static_cast<int>(std::clamp<int64_t>(ms, 0, INT32_MAX)));
    for (;;) {
        pollfd pfd = {.fd = ctx->sock.fd, .events = POLLIN, .revents = 0};
        int ready = poll(&pfd, 1, ms < 0 ? -1 : ms_until(end));
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            return true; // the read tells what is wrong
        if (ready == 0 || (ms >= 0 && ms_until(end) == 0))
            return false;
    }
}

bool ubus_receive(ubus_context *ctx) {
    ubus_connection *conn = ctx->conn;
    if (conn->ended)
        return false;

    // Descriptors that come along are not wanted: a read without room for them makes the kernel drop them.
    char buf[16384];
    ssize_t len;
    do {
        len = recv(ctx->sock.fd, buf, sizeof(buf), MSG_DONTWAIT);
    } while (len < 0 && errno == EINTR);
    if (len < 0 && errno == EAGAIN)
        return false;
    if (len <= 0) {
        ubus_end_connection(ctx);
        return false;
    }

    std::string_view in(buf, static_cast<size_t>(len));
    for (;;) {
        bus_frame frame;
        switch (bus_reader_take(conn->reader, in, frame)) {
        case bus_read::message:
            conn->incoming.push_back(std::move(frame));
            break;
        case bus_read::broken:
            ubus_end_connection(ctx);
            return true;
        case bus_read::more:
            return true;
        }
    }
}

bool ubus_send(ubus_context *ctx, const bus_builder &msg) {
    if (ctx->sock.fd < 0 || ctx->conn->ended)
        return false;
    deadline end = deadline_in(bus_send_ms);
    size_t done = 0;
    while (done < msg.bytes.size()) {
        ssize_t len =
            send(ctx->sock.fd, msg.bytes.data() + done, msg.bytes.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (len >= 0) {
            done += static_cast<size_t>(len);
            continue;
        }
        if (errno == EINTR)
            continue;
        pollfd pfd = {.fd = ctx->sock.fd, .events = POLLOUT, .revents = 0};
        if (errno == EAGAIN && poll(&pfd, 1, ms_until(end)) != 0)
            continue;
        // A message that is partly written cannot be taken back. What the bus still sent stays readable.
        if (done > 0 || errno == EAGAIN)
            ubus_end_connection(ctx);
        return false;
    }
    return true;
}

bool ubus_open(ubus_context *ctx, const char *path) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (!path)
        path = UBUS_UNIX_SOCKET;
    if (std::strlen(path) >= sizeof(addr.sun_path))
        return false;
    std::memcpy(addr.sun_path, path, std::strlen(path) + 1);

    deadline end = deadline_in(bus_hello_ms);
    int fd = connect_until(addr, end);
    return fd >= 0 && ubus_adopt_socket(ctx, fd, ms_until(end));
}

bool ubus_adopt_socket(ubus_context *ctx, int fd, int hello_ms) {
    ctx->sock.fd = fd;
    ctx->sock.eof = false;
    ctx->sock.error = false;
    ctx->conn->ended = false;
    ctx->conn->loss_told = false;
    ctx->conn->generation++;
    if (await_hello(ctx, deadline_in(hello_ms)))
        return true;
    ubus_close(ctx);
    return false;
}

void ubus_close(ubus_context *ctx) {
    ubus_connection *conn = ctx->conn;
    if (ctx->sock.registered)
        uloop_fd_delete(&ctx->sock);
    if (ctx->sock.fd >= 0)
        close(ctx->sock.fd);
    ctx->sock.fd = -1;
    conn->ended = true;
    conn->in_loop = false;
    conn->reader = {};
    conn->incoming.clear();
    conn->held_calls.clear();
    conn->held_bytes = 0;
}
