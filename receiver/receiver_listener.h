// Takes connections, with TLS or without: one thread waits for all of them, a few workers make the answers.
// What a client can hold is bounded in time and in memory, and when all places are taken the connection that
// has waited longest without a whole request gives way to a new one: idle and slow clients never keep others
// out.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <openssl/ssl.h>

#include "receiver_http.h"

struct ListenerLimits {
    size_t connections = 1024;
    size_t head_bytes = 16 << 10;
    size_t body_bytes = 4 << 20;
    size_t total_bytes =
        128 << 20;       // of all that is received and not yet answered, and of answers not yet taken
    int head_ms = 10000; // handshake and head
    int body_ms = 30000; // from the head's end to the body's
    int write_ms = 30000;
    size_t workers = 8;
    bool keep_alive = true;
};

struct ListenerCounts {
    std::atomic<uint64_t> accepted = 0;
    std::atomic<uint64_t> displaced = 0; // gave way to others
    std::atomic<uint64_t> timed_out = 0;
    std::atomic<uint64_t> refused = 0; // for their form or size
    std::atomic<uint64_t> open = 0;
};

class Listener {
  public:
    using Handler = std::function<HttpAnswer(const HttpRequest &)>;
    // Called in the handshake: 1 go on, 0 end it, -1 ask again soon. May be empty.
    using HandshakeHook = std::function<int(SSL *)>;

    // `tls` null: plain HTTP. The context must outlive the listener.
    Listener(Handler handler, const ListenerLimits &limits, SSL_CTX *tls, HandshakeHook hook = {});
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    // Listens on "ADDRESS:PORT" ("[v6]:PORT"), port 0 a free one; throws std::runtime_error when it cannot.
    void start(const std::string &address);
    // Ends every connection.
    void stop();
    int port() const {
        return port_;
    }
    const ListenerCounts &counts() const {
        return counts_;
    }

  private:
    struct Connection;
    struct Job {
        uint64_t id;
        HttpRequest request;
    };
    struct Done {
        uint64_t id;
        bool keeps, with_body;
        HttpAnswer answer;
    };
    using Clock = std::chrono::steady_clock;

    static int certificate_hook(SSL *ssl, void *listener);
    void loop();
    void work();
    void take_connections();
    void make_room();
    void advance(Connection &connection);
    void shake_hands(Connection &connection);
    void read_some(Connection &connection);
    void parse_some(Connection &connection);
    void refuse(Connection &connection, int status);
    void answer(Connection &connection, const std::string &bytes, bool keeps, int drip_ms = 0);
    void write_some(Connection &connection);
    void take_answers();
    void look_at_clocks();
    void watch(Connection &connection, unsigned events);
    void drop(uint64_t id);
    bool reserve(Connection &connection, size_t bytes);

    Handler handler_;
    ListenerLimits limits_;
    SSL_CTX *tls_;
    HandshakeHook hook_;
    ListenerCounts counts_;
    int port_ = 0;
    int socket_ = -1, epoll_ = -1, wake_ = -1;
    std::unordered_map<uint64_t, std::unique_ptr<Connection>> connections_;
    uint64_t next_id_ = 2; // 0 and 1 are the two descriptors above
    size_t held_bytes_ = 0;
    std::thread loop_thread_;
    std::vector<std::thread> workers_;
    std::mutex mutex_; // over what follows
    std::condition_variable has_job_;
    std::deque<Job> jobs_;
    std::vector<Done> done_;
    bool ends_ = false;
};
