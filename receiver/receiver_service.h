// The TLS side of the cloud: takes requests, lets the script misbehave, keeps what was accepted.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <httplib.h>

#include "receiver_api.h"
#include "receiver_certificate.h"
#include "receiver_script.h"

class Service {
  public:
    Service(Store &store, Script &script, Certificates &certificates);
    ~Service();

    // Listens on 127.0.0.1; port 0 takes a free one. Throws when it cannot.
    void up(int port);
    // Refuses connections until up() is called again.
    void down();
    int port() const {
        return port_;
    }

    void set_strategy(const Strategy &strategy);
    void add_key(const StoredKey &key);
    void expire_keys();
    // Counts as a JSON object: see docs/lab.md.
    std::string counts();

  private:
    static int certificate_chosen(SSL *ssl, void *server);
    void serve(const httplib::Request &request, httplib::Response &response);
    void answer_as_scripted(const ScriptStep &step, const ApiResult &result, const httplib::Request &request,
                            httplib::Response &response);
    void cut_connection(int remote_port);

    Store &store_;
    Script &script_;
    Certificates &certificates_;
    std::mutex mutex_; // over the store and the strategy
    Strategy strategy_;
    std::unique_ptr<httplib::SSLServer> listener_;
    std::thread thread_;
    std::atomic<int> connections_ = 0;
    int port_ = 0;
};
