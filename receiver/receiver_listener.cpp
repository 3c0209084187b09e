#include "receiver_listener.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include <netdb.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr uint64_t kListenId = 0, kWakeId = 1;
constexpr int kTickMs = 100;
constexpr int kDrainMs = 1000;
constexpr size_t kChunk = 16 << 10;
constexpr int kBacklog = 1024;
constexpr int kTakenAtOnce = 64;

struct SslDelete {
    void operator()(SSL *ssl) const {
        SSL_free(ssl);
    }
};

// "127.0.0.1:443" or "[::1]:443".
int bound_socket(const std::string &address) {
    const size_t colon = address.rfind(':');
    std::string host = address.substr(0, colon == address.npos ? 0 : colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    addrinfo hints = {}, *found = nullptr;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    const std::string port = colon == address.npos ? "" : address.substr(colon + 1);
    if (getaddrinfo(host.empty() ? nullptr : host.c_str(), port.c_str(), &hints, &found) != 0)
        throw std::runtime_error("no address: " + address);
    const std::unique_ptr<addrinfo, void (*)(addrinfo *)> list(found, freeaddrinfo);
    const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (fd < 0 || bind(fd, found->ai_addr, found->ai_addrlen) != 0 || listen(fd, kBacklog) != 0) {
        const std::string why = strerror(errno);
        if (fd >= 0)
            close(fd);
        throw std::runtime_error("cannot listen on " + address + ": " + why);
    }
    return fd;
}

int port_of(int fd) {
    sockaddr_storage bound = {};
    socklen_t size = sizeof(bound);
    char port[16] = {};
    getsockname(fd, reinterpret_cast<sockaddr *>(&bound), &size);
    getnameinfo(reinterpret_cast<sockaddr *>(&bound), size, nullptr, 0, port, sizeof(port), NI_NUMERICSERV);
    return atoi(port);
}

// As many descriptors as the bound needs, or a bound that fits the descriptors.
size_t connections_that_fit(size_t wanted) {
    constexpr size_t kOthers = 64;
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < wanted + kOthers) {
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, wanted + kOthers);
        setrlimit(RLIMIT_NOFILE, &limit);
        getrlimit(RLIMIT_NOFILE, &limit);
    }
    const rlim_t left = limit.rlim_cur > 2 * kOthers ? limit.rlim_cur - kOthers : kOthers;
    return static_cast<size_t>(std::min<rlim_t>(wanted, left));
}

} // namespace

enum class Phase { handshake, head, body, handling, writing, draining };

struct Listener::Connection {
    uint64_t id;
    int fd;
    std::unique_ptr<SSL, SslDelete> ssl;
    Phase phase = Phase::handshake;
    Clock::time_point deadline;
    std::string input, output;
    size_t sent = 0;
    HttpRequest request;
    bool keeps = false, asks_again = false;
    std::chrono::milliseconds drip = {}; // between two bytes of the answer
    Clock::time_point next_byte = {};
    size_t held = 0; // its part of held_bytes_
    unsigned events = 0;

    ~Connection() {
        if (ssl && phase != Phase::handshake)
            SSL_shutdown(ssl.get());
        ssl.reset();
        close(fd);
    }
    // Bytes, 0 when it has to wait (for `wants`), -1 when the other side is gone.
    ssize_t result_of(ssize_t got, unsigned *wants) {
        if (got > 0)
            return got;
        if (!ssl) {
            *wants = phase == Phase::writing ? EPOLLOUT : EPOLLIN;
            return got < 0 && (errno == EAGAIN || errno == EINTR) ? 0 : -1;
        }
        const int error = SSL_get_error(ssl.get(), static_cast<int>(got));
        *wants = error == SSL_ERROR_WANT_WRITE ? EPOLLOUT : EPOLLIN;
        return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE ? 0 : -1;
    }
    ssize_t receive(char *buffer, size_t size, unsigned *wants) {
        ERR_clear_error();
        return result_of(
            ssl ? SSL_read(ssl.get(), buffer, static_cast<int>(size)) : recv(fd, buffer, size, 0), wants);
    }
    ssize_t transmit(const char *buffer, size_t size, unsigned *wants) {
        ERR_clear_error();
        size = std::min(size, kChunk);
        return result_of(ssl ? SSL_write(ssl.get(), buffer, static_cast<int>(size))
                             : send(fd, buffer, size, MSG_NOSIGNAL),
                         wants);
    }
};

Listener::Listener(Handler handler, const ListenerLimits &limits, SSL_CTX *tls, HandshakeHook hook)
    : handler_(std::move(handler)), limits_(limits), tls_(tls), hook_(std::move(hook)) {
    if (tls_) {
        SSL_CTX_set_mode(tls_, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                   SSL_MODE_RELEASE_BUFFERS);
        if (hook_)
            SSL_CTX_set_cert_cb(tls_, certificate_hook, this);
    }
}

Listener::~Listener() {
    stop();
}

int Listener::certificate_hook(SSL *ssl, void *listener) {
    return static_cast<Listener *>(listener)->hook_(ssl);
}

void Listener::start(const std::string &address) {
    stop();
    limits_.connections = connections_that_fit(limits_.connections);
    socket_ = bound_socket(address);
    port_ = port_of(socket_);
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = kListenId;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, socket_, &event);
    event.data.u64 = kWakeId;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &event);
    ends_ = false;
    loop_thread_ = std::thread([this] { loop(); });
    for (size_t i = 0; i < limits_.workers; i++)
        workers_.emplace_back([this] { work(); });
}

void Listener::stop() {
    if (socket_ < 0)
        return;
    {
        std::lock_guard lock(mutex_);
        ends_ = true;
        jobs_.clear();
    }
    has_job_.notify_all();
    eventfd_write(wake_, 1);
    loop_thread_.join();
    for (std::thread &worker : workers_)
        worker.join();
    workers_.clear();
    done_.clear();
    connections_.clear();
    held_bytes_ = 0;
    counts_.open = 0;
    for (int *fd : {&socket_, &epoll_, &wake_})
        close(std::exchange(*fd, -1));
}

void Listener::work() {
    for (;;) {
        Job job;
        {
            std::unique_lock lock(mutex_);
            has_job_.wait(lock, [this] { return ends_ || !jobs_.empty(); });
            if (ends_)
                return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        Done done = {job.id, job.request.keeps && limits_.keep_alive, job.request.method != "HEAD", {}};
        try {
            done.answer = handler_(job.request);
        } catch (const std::exception &error) {
            fprintf(stderr, "telemetry-receiver: %s\n", error.what());
            done.answer.status = 500;
        }
        {
            std::lock_guard lock(mutex_);
            done_.push_back(std::move(done));
        }
        eventfd_write(wake_, 1);
    }
}

void Listener::loop() {
    epoll_event events[128];
    Clock::time_point next_look = Clock::now();
    for (;;) {
        const int count = epoll_wait(epoll_, events, 128, kTickMs);
        {
            std::lock_guard lock(mutex_);
            if (ends_)
                return;
        }
        for (int i = 0; i < count; i++) {
            const uint64_t id = events[i].data.u64;
            if (id == kListenId)
                take_connections();
            else if (id == kWakeId)
                take_answers();
            else if (const auto found = connections_.find(id); found != connections_.end())
                advance(*found->second);
        }
        if (Clock::now() >= next_look) {
            look_at_clocks();
            next_look = Clock::now() + std::chrono::milliseconds(kTickMs);
        }
    }
}

void Listener::take_connections() {
    for (int i = 0; i < kTakenAtOnce; i++) {
        const int fd = accept4(socket_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE)
                make_room();
            return;
        }
        counts_.accepted++;
        if (connections_.size() >= limits_.connections)
            make_room();
        if (connections_.size() >= limits_.connections) { // all of them are being answered
            close(fd);
            counts_.displaced++;
            continue;
        }
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        auto made = std::make_unique<Connection>();
        made->id = next_id_++;
        made->fd = fd;
        made->deadline = Clock::now() + std::chrono::milliseconds(limits_.head_ms);
        if (tls_) {
            made->ssl.reset(SSL_new(tls_));
            SSL_set_fd(made->ssl.get(), fd);
            SSL_set_accept_state(made->ssl.get());
        } else {
            made->phase = Phase::head;
        }
        Connection &connection = *made;
        connections_.emplace(connection.id, std::move(made));
        counts_.open = connections_.size();
        epoll_event event = {};
        event.events = connection.events = EPOLLIN;
        event.data.u64 = connection.id;
        epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
    }
}

// The identifiers rise: of those without a whole request the smallest is the oldest.
void Listener::make_room() {
    uint64_t oldest = 0;
    for (const auto &[id, connection] : connections_) {
        if (connection->phase != Phase::handling && connection->phase != Phase::writing &&
            (oldest == 0 || id < oldest))
            oldest = id;
    }
    if (oldest == 0)
        return;
    counts_.displaced++;
    drop(oldest);
}

void Listener::advance(Connection &connection) {
    switch (connection.phase) {
    case Phase::handshake:
        return shake_hands(connection);
    case Phase::writing:
        return write_some(connection);
    case Phase::handling:
        // The other side is gone. What it sent counts until the worker is done with it; the answer finds out.
        epoll_ctl(epoll_, EPOLL_CTL_DEL, connection.fd, nullptr);
        return;
    default:
        return read_some(connection);
    }
}

void Listener::shake_hands(Connection &connection) {
    ERR_clear_error();
    const int result = SSL_do_handshake(connection.ssl.get());
    connection.asks_again = false;
    if (result == 1) {
        connection.phase = Phase::head;
        return read_some(connection);
    }
    switch (SSL_get_error(connection.ssl.get(), result)) {
    case SSL_ERROR_WANT_READ:
        return watch(connection, EPOLLIN);
    case SSL_ERROR_WANT_WRITE:
        return watch(connection, EPOLLOUT);
    case SSL_ERROR_WANT_X509_LOOKUP:
        connection.asks_again = true;
        return watch(connection, 0); // until the hook knows
    default:
        drop(connection.id);
    }
}

bool Listener::reserve(Connection &connection, size_t bytes) {
    if (held_bytes_ - connection.held + bytes > limits_.total_bytes)
        return false;
    held_bytes_ += bytes - connection.held;
    connection.held = bytes;
    return true;
}

void Listener::read_some(Connection &connection) {
    char chunk[kChunk];
    for (int i = 0; i < 16; i++) { // others have their turn too
        unsigned wants = EPOLLIN;
        const ssize_t got = connection.receive(chunk, sizeof(chunk), &wants);
        if (got < 0)
            return drop(connection.id);
        if (got == 0)
            return watch(connection, wants);
        if (connection.phase == Phase::draining)
            continue;
        connection.input.append(chunk, static_cast<size_t>(got));
        const uint64_t id = connection.id;
        parse_some(connection);
        if (!connections_.contains(id) ||
            (connection.phase != Phase::head && connection.phase != Phase::body))
            return;
    }
    watch(connection, EPOLLIN);
    // What the TLS layer has already taken from the socket makes no event.
    if (connection.ssl && SSL_pending(connection.ssl.get()) > 0)
        connection.asks_again = true;
}

void Listener::parse_some(Connection &connection) {
    HttpRequest &request = connection.request;
    if (connection.phase == Phase::head) {
        const size_t end = connection.input.find("\r\n\r\n");
        if (end == std::string::npos || end > limits_.head_bytes) {
            if (connection.input.size() > limits_.head_bytes)
                refuse(connection, 431);
            return;
        }
        request = {};
        if (const int status = http_parse_head(std::string_view(connection.input).substr(0, end), request))
            return refuse(connection, status);
        if (request.body_size > limits_.body_bytes)
            return refuse(connection, 413);
        if (!reserve(connection, request.body_size))
            return refuse(connection, 503);
        connection.input.erase(0, end + 4);
        connection.phase = Phase::body;
        connection.deadline = Clock::now() + std::chrono::milliseconds(limits_.body_ms);
        if (request.expects && connection.input.size() < request.body_size) {
            constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
            unsigned wants = 0;
            if (connection.transmit(kContinue.data(), kContinue.size(), &wants) < 0)
                return drop(connection.id);
        }
    }
    if (connection.input.size() < request.body_size)
        return;
    std::string rest = connection.input.substr(request.body_size);
    connection.input.resize(request.body_size);
    request.body = std::exchange(connection.input, std::move(rest)); // its memory goes along
    connection.asks_again = false;                                   // looked at again after the answer
    connection.phase = Phase::handling;
    watch(connection, 0);
    {
        std::lock_guard lock(mutex_);
        jobs_.push_back({connection.id, std::move(request)});
    }
    has_job_.notify_one();
}

void Listener::refuse(Connection &connection, int status) {
    counts_.refused++;
    HttpAnswer answer_;
    answer_.status = status;
    answer_.type = "text/plain";
    answer(connection, http_print(answer_, false, true), false);
}

void Listener::answer(Connection &connection, const std::string &bytes, bool keeps, int drip_ms) {
    if (!reserve(connection, bytes.size()))
        return drop(connection.id);
    connection.output = bytes;
    connection.sent = 0;
    connection.keeps = keeps;
    connection.drip = std::chrono::milliseconds(drip_ms);
    connection.phase = Phase::writing;
    connection.deadline = Clock::now() + std::chrono::milliseconds(limits_.write_ms);
    write_some(connection);
}

void Listener::write_some(Connection &connection) {
    const bool drips = connection.drip.count() > 0;
    while (connection.sent < connection.output.size()) {
        unsigned wants = EPOLLOUT;
        const ssize_t sent =
            connection.transmit(connection.output.data() + connection.sent,
                                drips ? 1 : connection.output.size() - connection.sent, &wants);
        if (sent < 0)
            return drop(connection.id);
        if (sent == 0)
            return watch(connection, wants);
        connection.sent += static_cast<size_t>(sent);
        if (drips && connection.sent < connection.output.size()) {
            connection.next_byte = Clock::now() + connection.drip;
            connection.asks_again = true;
            return watch(connection, 0);
        }
    }
    connection.output = {};
    reserve(connection, 0);
    if (!connection.keeps) {
        // Closed with bytes unread the answer could be lost: what still comes is taken for a moment.
        if (connection.ssl)
            SSL_shutdown(connection.ssl.get());
        shutdown(connection.fd, SHUT_WR);
        connection.phase = Phase::draining;
        connection.deadline = Clock::now() + std::chrono::milliseconds(kDrainMs);
        return watch(connection, EPOLLIN);
    }
    connection.phase = Phase::head;
    connection.deadline = Clock::now() + std::chrono::milliseconds(limits_.head_ms);
    connection.asks_again = true; // a second request may have come with the first
    watch(connection, EPOLLIN);
}

void Listener::take_answers() {
    eventfd_t ignored;
    eventfd_read(wake_, &ignored);
    std::vector<Done> done;
    {
        std::lock_guard lock(mutex_);
        done.swap(done_);
    }
    for (const Done &one : done) {
        const auto found = connections_.find(one.id);
        if (found == connections_.end())
            continue;
        const bool whole = one.answer.announced <= one.answer.body.size();
        if (one.answer.cut)
            drop(one.id);
        else
            answer(*found->second, http_print(one.answer, one.keeps && whole, one.with_body),
                   one.keeps && whole, one.answer.drip_ms);
    }
}

void Listener::look_at_clocks() {
    const Clock::time_point now = Clock::now();
    std::vector<uint64_t> late, again;
    for (const auto &[id, connection] : connections_) {
        if (connection->phase != Phase::handling && now >= connection->deadline)
            late.push_back(id);
        else if (connection->asks_again && now >= connection->next_byte)
            again.push_back(id);
    }
    for (uint64_t id : late) {
        counts_.timed_out += connections_.at(id)->phase == Phase::draining ? 0 : 1;
        drop(id);
    }
    for (uint64_t id : again) {
        Connection &connection = *connections_.at(id);
        connection.asks_again = false;
        if (connection.phase == Phase::head && !connection.input.empty())
            parse_some(connection);
        else
            advance(connection);
    }
}

void Listener::watch(Connection &connection, unsigned events) {
    if (connection.events == events)
        return;
    epoll_event event = {};
    event.events = connection.events = events;
    event.data.u64 = connection.id;
    epoll_ctl(epoll_, EPOLL_CTL_MOD, connection.fd, &event);
}

void Listener::drop(uint64_t id) {
    const auto found = connections_.find(id);
    held_bytes_ -= found->second->held;
    connections_.erase(found);
    counts_.open = connections_.size();
}
