// Both ends of the bus protocol byte by byte: a client without the library, and a bus that does what a test
// says.
#pragma once

#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "../../hostlibs/ubus/ubus_frame.h"
#include "telemetry_handles.h"

inline sockaddr_un socket_address(const std::string &path) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return addr;
}

inline size_t open_descriptors() {
    using files = std::filesystem::directory_iterator;
    return static_cast<size_t>(std::distance(files("/proc/self/fd"), files()));
}

inline std::string message(uint8_t type, uint16_t seq, uint32_t peer, bus_builder &&body = {}) {
    bus_finish(body, type, seq, peer);
    return std::string(body.bytes.begin(), body.bytes.end());
}

// A stream socket of the bus. Takes the descriptor over.
class RawPeer {
  public:
    explicit RawPeer(int fd) : fd_(fd) {}
    explicit RawPeer(const std::string &path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un addr = socket_address(path);
        if (connect(fd_.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0)
            return;
        if (auto hello = receive(); hello && hello->type == UBUS_MSG_HELLO)
            id_ = hello->peer;
    }
    // Ours on the bus, from its greeting; 0 when none came.
    uint32_t id() const {
        return id_;
    }

    // False when the other end has gone or takes nothing for 10 seconds.
    bool send(std::string_view bytes) const {
        while (!bytes.empty()) {
            pollfd pfd = {fd_.get(), POLLOUT, 0};
            if (poll(&pfd, 1, 10000) <= 0)
                return false;
            const ssize_t len = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (len < 0)
                return false;
            bytes.remove_prefix(static_cast<size_t>(len));
        }
        return true;
    }
    // The next message; none when the stream ends or nothing comes for 10 seconds.
    std::optional<bus_frame> receive() {
        for (;;) {
            std::string_view in(buffered_);
            bus_frame frame;
            bus_read result = bus_reader_take(reader_, in, frame);
            buffered_.erase(0, buffered_.size() - in.size());
            if (result == bus_read::message)
                return frame;
            pollfd pfd = {fd_.get(), POLLIN, 0};
            char buf[65536];
            if (result == bus_read::broken || poll(&pfd, 1, 10000) <= 0)
                return {};
            ssize_t len = recv(fd_.get(), buf, sizeof(buf), 0);
            if (len <= 0)
                return {};
            buffered_.assign(buf, static_cast<size_t>(len));
        }
    }
    // Whether the other end closes, reading away what it still sends.
    bool closed_by_other() {
        while (receive()) {
        }
        char byte;
        return recv(fd_.get(), &byte, 1, MSG_DONTWAIT) == 0 || errno != EAGAIN;
    }
    // The next status for this request, -1 without one; DATA before it goes to `data`.
    int status(uint16_t seq, std::vector<bus_frame> *data = nullptr) {
        while (auto frame = receive()) {
            bus_attrs attrs;
            bus_attrs_parse(frame->attr(), attrs);
            if (frame->seq == seq && frame->type == UBUS_MSG_STATUS && attrs[UBUS_ATTR_STATUS])
                return static_cast<int>(attrs.u32(UBUS_ATTR_STATUS));
            if (frame->seq == seq && frame->type == UBUS_MSG_DATA && data)
                data->push_back(std::move(*frame));
        }
        return -1;
    }
    int ping(uint16_t seq = 999) {
        return send(message(UBUS_MSG_PING, seq, 0)) ? status(seq) : -1;
    }
    // Registers an object without methods; 0 when refused.
    uint32_t add_object(const std::string &path) {
        bus_builder body;
        bus_put_text(body, UBUS_ATTR_OBJPATH, path);
        bus_put(body, UBUS_ATTR_SIGNATURE, nullptr, 0);
        std::vector<bus_frame> data;
        if (!send(message(UBUS_MSG_ADD_OBJECT, 1, 0, std::move(body))) || status(1, &data) != 0 ||
            data.size() != 1)
            return 0;
        bus_attrs attrs;
        bus_attrs_parse(data[0].attr(), attrs);
        return attrs.u32(UBUS_ATTR_OBJID);
    }

  private:
    FdHandle fd_;
    uint32_t id_ = 0;
    bus_reader reader_;
    std::string buffered_;
};

inline std::string invoke_message(uint16_t seq, uint32_t object, const char *method, size_t data_len = 0) {
    bus_builder body;
    bus_put_u32(body, UBUS_ATTR_OBJID, object);
    bus_put_text(body, UBUS_ATTR_METHOD, method);
    bus_put(body, UBUS_ATTR_DATA, std::string(data_len, '\0').data(), data_len);
    return message(UBUS_MSG_INVOKE, seq, object, std::move(body));
}

inline std::string status_message(uint16_t seq, uint32_t peer, uint32_t object, uint32_t status) {
    bus_builder body;
    bus_put_u32(body, UBUS_ATTR_STATUS, status);
    bus_put_u32(body, UBUS_ATTR_OBJID, object);
    return message(UBUS_MSG_STATUS, seq, peer, std::move(body));
}

// Accepts one client and runs `serve` with it.
class FakeBus {
  public:
    FakeBus(const std::string &path, std::function<void(RawPeer &)> serve)
        : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un addr = socket_address(path);
        unlink(path.c_str());
        if (bind(listener_.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 ||
            listen(listener_.get(), 8) != 0)
            abort();
        thread_ = std::thread([this, serve = std::move(serve)] {
            RawPeer peer(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            serve(peer);
        });
    }
    ~FakeBus() {
        thread_.join();
    }
    FakeBus(const FakeBus &) = delete;
    FakeBus &operator=(const FakeBus &) = delete;

  private:
    FdHandle listener_;
    std::thread thread_;
};
