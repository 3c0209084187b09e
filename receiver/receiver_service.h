// The receiver's side towards the daemons: judges a request, lets the script misbehave, keeps what was
// accepted.
#pragma once

#include <memory>
#include <string>

#include "receiver_api.h"
#include "receiver_certificate.h"
#include "receiver_listener.h"
#include "receiver_metrics.h"
#include "receiver_script.h"

struct ServiceOptions {
    std::string listen = "127.0.0.1:0";
    std::string cert, key;      // PEM files; without them an authority of the receiver's own
    bool keep_requests = false; // in the table "requests", refused ones too
    int64_t keep_days = 0;      // forget older uploads; 0: keep all
    ApiOptions api = {};
    ListenerLimits limits = {};
};

class Service {
  public:
    // `certificates` null: those of the files. All must outlive the service.
    Service(const ServiceOptions &options, Store &store, Metrics &metrics, Script &script,
            Certificates *certificates);
    ~Service();

    // Serves; after down() on the same port again. Throws std::runtime_error when it cannot.
    void up();
    // Refuses connections until up() is called again.
    void down();
    int port() const {
        return port_;
    }
    // Counts as a JSON object: see docs/lab.md.
    std::string counts();
    // Lines of the listener for /metrics.
    std::string metrics_text();

  private:
    int handshake_hook(SSL *ssl);
    HttpAnswer serve(const HttpRequest &request);
    HttpAnswer judge(const HttpRequest &request, const ScriptStep &step);
    void keep(ApiResult &result, const ScriptStep &step);
    void forget_old(int64_t now);

    ServiceOptions options_;
    Store &store_;
    Metrics &metrics_;
    Script &script_;
    Certificates *certificates_;
    SslContext tls_;
    std::unique_ptr<Listener> listener_;
    std::mutex mutex_;     // over up and down
    std::mutex day_mutex_; // over the day
    int64_t last_day_ = 0;
    std::atomic<int> connections_ = 0;
    std::atomic<int> port_ = 0;
};
