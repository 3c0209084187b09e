// What the receiver keeps: all of it in the database, nothing in the process, so that any number of receivers
// serve one database. Tables:
// - keys: every access key that is known.
// - strategies: what is handed out, a row a device, the row of device "" for all others.
// - accepted: digest of each body that was accepted, by device: the same body is not stored twice.
// - posts: a row an accepted upload; records: a row a record of it. Both by day of receipt; in PostgreSQL a
//   day is a partition, so that dropping one is no work.
// - newest: the last record of each kind, by device.
// - devices: a row a device.
// - requests: every request as it came, only where the owner asked for it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "receiver_database.h"

struct StoredRequest {
    std::string call; // "key", "strategy", "upload", or "" for a path that is none of them
    std::string path, headers, body;
    std::string stamp, access_key; // from the signature header
    int signature = -1;            // 1 valid, 0 missing or wrong, -1 none asked
    std::string verdict;           // "accepted", "refused", or the kind of the scripted step that answered
    int error_code = 0;            // that was answered
};

struct StoredKey {
    std::string access_key, access_secret;
    bool expired = false;
    std::string device = {}; // "": good for every device
    int64_t issued = 0;      // s since 1970; 0: does not grow old
};

struct Strategy {
    std::string id, content; // no id: none
};

struct StoredRecord {
    std::string eid;
    std::string ct; // as it arrived
    int64_t at = 0; // the same as a number, s since 1970
    std::string payload;
};

struct Upload {
    std::string device, model, firmware;
    std::string digest; // of the body
    size_t bytes = 0;   // of the body
    int64_t received = 0;
    std::vector<StoredRecord> records;
};

class Store {
  public:
    // Opens `connections` connections (one, where the database has a single writer) and makes the tables that
    // are missing. Throws StoreError, as every member does.
    Store(const std::string &where, size_t connections);

    void add_key(const StoredKey &key, const std::string &mac);
    void expire_keys();
    std::optional<StoredKey> find_key(const std::string &access_key);
    // The device's own, else the one for all.
    Strategy strategy(const std::string &device);
    // Without an id it is taken back.
    void set_strategy(const std::string &device, const Strategy &strategy);
    // One transaction. False: this device's body was accepted before, and nothing has changed.
    bool accept(const Upload &upload);
    void add_request(const StoredRequest &request);
    // Forgets uploads received before that time (whole days), and keys issued before it.
    void forget_before(int64_t time);

    // For readers: rows of one statement, and the first number of the first row.
    SqlRows select(const std::string &statement, const std::vector<SqlValue> &values = {});
    int64_t number(const std::string &statement);

  private:
    class Lease;
    void make_tables();
    void make_day(Database &database, int64_t day);
    void insert_upload(Database &database, const Upload &upload, int64_t day);
    void in_transaction(Database &database, const std::function<void()> &work);

    std::mutex mutex_; // over what follows
    std::condition_variable returned_;
    std::vector<std::unique_ptr<Database>> free_;
    int64_t last_day_ = -1; // whose partitions are known to be there
};
