// What the cloud saw and what it accepted, in an SQLite file that others read while the cloud runs:
//   requests  every request as it came, with the verdict on it
//   keys      every access key that was issued
//   posts     one row an accepted upload
//   records   one row a record of an accepted upload, its payload in the bytes that arrived
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;

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
};

struct StoredRecord {
    std::string eid, ct, payload;
};

class Store {
  public:
    // Creates the file; throws std::runtime_error when SQLite fails, as every member does.
    explicit Store(const std::string &path);
    ~Store();
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    void add_key(const StoredKey &key, const std::string &device_id, const std::string &mac);
    void expire_keys();
    std::optional<StoredKey> find_key(const std::string &access_key);
    int64_t add_request(const StoredRequest &request);
    void add_post(int64_t request_id, const std::string &device, size_t bytes,
                  const std::vector<StoredRecord> &records);
    // A single number from a query.
    int64_t number(const std::string &query);

  private:
    void run(const char *statement);
    sqlite3 *db_ = nullptr;
};
