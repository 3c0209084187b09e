#include "receiver_store.h"

#include <memory>
#include <stdexcept>

#include <sqlite3.h>

namespace {

constexpr char kSchema[] = R"(
PRAGMA journal_mode = WAL;
PRAGMA synchronous = OFF;
CREATE TABLE requests (id INTEGER PRIMARY KEY, time REAL DEFAULT (julianday('now')), call TEXT, path TEXT, headers TEXT,
                       body BLOB, stamp TEXT, access_key TEXT, signature INTEGER, verdict TEXT, error_code INTEGER);
CREATE TABLE keys (id INTEGER PRIMARY KEY, access_key TEXT UNIQUE, access_secret TEXT, device_id TEXT, mac TEXT,
                   expired INTEGER);
CREATE TABLE posts (id INTEGER PRIMARY KEY, request_id INTEGER REFERENCES requests, device TEXT, bytes INTEGER,
                    record_count INTEGER);
CREATE TABLE records (id INTEGER PRIMARY KEY, post_id INTEGER REFERENCES posts, position INTEGER, eid TEXT, ct TEXT,
                      payload TEXT);
)";

// One prepared statement; bound texts must outlive the step.
class Statement {
  public:
    Statement(sqlite3 *db, const std::string &text) : db_(db) {
        sqlite3_stmt *made = nullptr;
        if (sqlite3_prepare_v2(db, text.c_str(), -1, &made, nullptr) != SQLITE_OK)
            throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(db));
        statement_.reset(made);
    }
    Statement &bind(const std::string &text) {
        sqlite3_bind_text(statement_.get(), ++bound_, text.data(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT);
        return *this;
    }
    Statement &bind(int64_t number) {
        sqlite3_bind_int64(statement_.get(), ++bound_, number);
        return *this;
    }
    // Whether there is a row.
    bool step() {
        int result = sqlite3_step(statement_.get());
        if (result != SQLITE_ROW && result != SQLITE_DONE)
            throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(db_));
        return result == SQLITE_ROW;
    }
    std::string text(int column) {
        const void *data = sqlite3_column_blob(statement_.get(), column);
        auto size = static_cast<size_t>(sqlite3_column_bytes(statement_.get(), column));
        return data ? std::string(static_cast<const char *>(data), size) : std::string();
    }
    int64_t number(int column) {
        return sqlite3_column_int64(statement_.get(), column);
    }

  private:
    sqlite3 *db_;
    std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> statement_{nullptr, sqlite3_finalize};
    int bound_ = 0;
};

} // namespace

Store::Store(const std::string &path) {
    if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK)
        throw std::runtime_error("sqlite: cannot open " + path);
    sqlite3_busy_timeout(db_, 5000);
    run(kSchema);
}

Store::~Store() {
    sqlite3_close(db_);
}

void Store::run(const char *statement) {
    if (sqlite3_exec(db_, statement, nullptr, nullptr, nullptr) != SQLITE_OK)
        throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(db_));
}

void Store::add_key(const StoredKey &key, const std::string &device_id, const std::string &mac) {
    Statement(db_, "INSERT OR REPLACE INTO keys (access_key, access_secret, device_id, mac, expired) "
                   "VALUES (?, ?, ?, ?, ?)")
        .bind(key.access_key)
        .bind(key.access_secret)
        .bind(device_id)
        .bind(mac)
        .bind(static_cast<int64_t>(key.expired))
        .step();
}

void Store::expire_keys() {
    run("UPDATE keys SET expired = 1");
}

std::optional<StoredKey> Store::find_key(const std::string &access_key) {
    Statement find(db_, "SELECT access_key, access_secret, expired FROM keys WHERE access_key = ?");
    if (!find.bind(access_key).step())
        return std::nullopt;
    return StoredKey{find.text(0), find.text(1), find.number(2) != 0};
}

int64_t Store::add_request(const StoredRequest &request) {
    Statement(db_, "INSERT INTO requests (call, path, headers, body, stamp, access_key, signature, verdict, "
                   "error_code) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)")
        .bind(request.call)
        .bind(request.path)
        .bind(request.headers)
        .bind(request.body)
        .bind(request.stamp)
        .bind(request.access_key)
        .bind(static_cast<int64_t>(request.signature))
        .bind(request.verdict)
        .bind(static_cast<int64_t>(request.error_code))
        .step();
    return sqlite3_last_insert_rowid(db_);
}

void Store::add_post(int64_t request_id, const std::string &device, size_t bytes,
                     const std::vector<StoredRecord> &records) {
    run("BEGIN");
    Statement(db_, "INSERT INTO posts (request_id, device, bytes, record_count) VALUES (?, ?, ?, ?)")
        .bind(request_id)
        .bind(device)
        .bind(static_cast<int64_t>(bytes))
        .bind(static_cast<int64_t>(records.size()))
        .step();
    int64_t post_id = sqlite3_last_insert_rowid(db_);
    int64_t position = 0;
    for (const StoredRecord &record : records) {
        Statement(db_, "INSERT INTO records (post_id, position, eid, ct, payload) VALUES (?, ?, ?, ?, ?)")
            .bind(post_id)
            .bind(position++)
            .bind(record.eid)
            .bind(record.ct)
            .bind(record.payload)
            .step();
    }
    run("COMMIT");
}

int64_t Store::number(const std::string &query) {
    Statement select(db_, query);
    return select.step() ? select.number(0) : 0;
}
