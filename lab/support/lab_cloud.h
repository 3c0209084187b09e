// The cloud as its users see it: started as a process, driven over its control port, its store read from
// SQLite.
#pragma once

#include <string>
#include <vector>

#include "lab_files.h"
#include "lab_process.h"

namespace lab {

struct CloudRequest {
    long id = 0;   // running number
    long time = 0; // when it came, s since the epoch
    std::string call, path, headers, body, stamp, access_key;
    int signature = -1;  // 1 valid, 0 missing or wrong, -1 none asked
    std::string verdict; // "accepted", "refused", or the kind of the scripted step
    int error_code = 0;  // that was answered
};

struct CloudRecord {
    long post = 0; // running number of the upload that brought it, from 1
    std::string eid, ct;
    std::string payload; // JSON text, the bytes that arrived
};

struct CloudKey {
    std::string access_key, access_secret;
    bool expired = false;
};

class LabCloud {
  public:
    // Starts telemetry-receiver with its files in `directory` and waits until it serves.
    void start(const std::string &bin_dir, const std::string &directory);
    // SIGTERM; start() again makes a new cloud on another port.
    void stop();
    int port() const {
        return port_;
    }
    std::string address() const; // "127.0.0.1:PORT"
    std::string page() const;    // address of the page that shows what it received
    std::string orders() const;  // address of the control port
    std::string ca_certificate() const;
    std::string database() const;

    // Queues misbehaviour for "key", "strategy", "upload" or "connect": a JSON list of steps, e.g.
    // R"([{"kind":"error_code","code":-10306,"times":2}])". After them the cloud behaves again.
    void script(const std::string &call, const std::string &steps);
    void reset_script();
    void expire_keys();
    void add_key(const std::string &access_key, const std::string &access_secret);
    // The strategy handed out from now on; an empty id: none for anybody.
    void set_strategy(const std::string &id, const std::string &content);
    void down(); // refuses connections
    void up();

    JsonTree counts() const;
    // One number of counts(): "posts", "invalid_signatures", "upload.requests", ...
    long count(const std::string &name) const;
    bool wait_for_count(const std::string &name, long at_least, int timeout_ms) const;

    // Those after a running number, of a call when one is named.
    std::vector<CloudRequest> requests(const std::string &call = "", long after = 0) const;
    std::vector<CloudRecord> records(long after_post = 0) const;
    std::vector<CloudKey> keys() const;

  private:
    std::string control(const std::string &method, const std::string &path, const std::string &body) const;
    Process process_;
    std::string directory_;
    int port_ = 0;
    int control_port_ = 0;
    int page_port_ = 0;
};

} // namespace lab
