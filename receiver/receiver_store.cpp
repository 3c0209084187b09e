#include "receiver_store.h"

#include <cstdlib>
#include <ctime>

namespace {

constexpr int64_t kDaySeconds = 86400;
// Keys of a device: the daemon asks for another one when it lost the last, so older ones may go.
constexpr int64_t kKeysPerDevice = 8;
constexpr const char *kByDay[] = {"posts", "records"};

// {id}, {number}, {bytes} and {by_day} are the dialect's.
constexpr const char *kTables[] = {
    "CREATE TABLE IF NOT EXISTS requests (id {id}, time {number}, call TEXT, path {bytes}, headers {bytes}, "
    "body {bytes}, stamp {bytes}, access_key {bytes}, signature {number}, verdict TEXT, error_code {number})",
    "CREATE TABLE IF NOT EXISTS keys (id {id}, access_key TEXT UNIQUE, access_secret TEXT, device_id TEXT, "
    "mac TEXT, expired {number}, issued {number})",
    "CREATE INDEX IF NOT EXISTS keys_of_device ON keys (device_id)",
    "CREATE TABLE IF NOT EXISTS strategies (device TEXT PRIMARY KEY, id TEXT, content TEXT)",
    "CREATE TABLE IF NOT EXISTS accepted (device TEXT, digest TEXT, received {number}, "
    "PRIMARY KEY (device, digest))",
    "CREATE TABLE IF NOT EXISTS posts (id {id}, day {number}, received {number}, device TEXT, bytes "
    "{number}, "
    "record_count {number}){by_day}",
    "CREATE TABLE IF NOT EXISTS records (id {id}, day {number}, post_id {number}, position {number}, "
    "device TEXT, eid TEXT, ct TEXT, at {number}, payload {bytes}){by_day}",
    "CREATE INDEX IF NOT EXISTS records_of_device ON records (device, eid, at)",
    "CREATE INDEX IF NOT EXISTS posts_of_device ON posts (device, received)",
    "CREATE TABLE IF NOT EXISTS newest (device TEXT, eid TEXT, at {number}, received {number}, payload "
    "{bytes}, "
    "PRIMARY KEY (device, eid))",
    "CREATE TABLE IF NOT EXISTS devices (device TEXT PRIMARY KEY, model TEXT, firmware TEXT, "
    "first_seen {number}, last_seen {number}, uploads {number}, records {number})",
    "CREATE INDEX IF NOT EXISTS devices_last_seen ON devices (last_seen)",
};

std::string in_dialect(std::string text, const Dialect &dialect) {
    const std::pair<const char *, const char *> words[] = {{"{id}", dialect.id},
                                                           {"{number}", dialect.number},
                                                           {"{bytes}", dialect.bytes},
                                                           {"{by_day}", dialect.by_day}};
    for (const auto &[name, value] : words) {
        for (size_t at; (at = text.find(name)) != text.npos;)
            text.replace(at, std::string(name).size(), value);
    }
    return text;
}

std::string partition_name(const char *table, int64_t day) {
    return std::string(table) + "_" + std::to_string(day);
}

} // namespace

// One of the connections, for as long as it is held.
class Store::Lease {
  public:
    explicit Lease(Store &store) : store_(store) {
        std::unique_lock lock(store.mutex_);
        store.returned_.wait(lock, [&] { return !store.free_.empty(); });
        database_ = std::move(store.free_.back());
        store.free_.pop_back();
    }
    ~Lease() {
        {
            std::lock_guard lock(store_.mutex_);
            store_.free_.push_back(std::move(database_));
        }
        store_.returned_.notify_one();
    }
    Lease(const Lease &) = delete;
    Lease &operator=(const Lease &) = delete;
    Database &operator*() {
        return *database_;
    }
    Database *operator->() {
        return database_.get();
    }

  private:
    Store &store_;
    std::unique_ptr<Database> database_;
};

Store::Store(const std::string &where, size_t connections) {
    free_.push_back(database_open(where));
    while (free_.front()->is_shared() && free_.size() < connections)
        free_.push_back(database_open(where));
    make_tables();
}

void Store::make_tables() {
    Lease database(*this);
    const Dialect &dialect = database->dialect();
    in_transaction(*database, [&] {
        if (dialect.partitions) {
            // Two receivers that start at once: the second one waits and finds all there.
            database->run("SELECT pg_advisory_xact_lock(7351)");
            database->run(dialect.start);
        }
        for (const char *table : kTables)
            database->run(in_dialect(table, dialect));
    });
}

void Store::in_transaction(Database &database, const std::function<void()> &work) {
    database.run(database.dialect().begin);
    try {
        work();
        database.run("COMMIT");
    } catch (...) {
        try {
            database.run("ROLLBACK");
        } catch (const StoreError &) {
            // The connection is gone, and the transaction with it.
        }
        throw;
    }
}

void Store::make_day(Database &database, int64_t day) {
    if (!database.dialect().partitions)
        return;
    {
        std::lock_guard lock(mutex_);
        if (last_day_ == day)
            return;
    }
    in_transaction(database, [&] {
        database.run("SELECT pg_advisory_xact_lock(7351)");
        for (const char *table : kByDay)
            database.run("CREATE TABLE IF NOT EXISTS " + partition_name(table, day) + " PARTITION OF " +
                         table + " FOR VALUES FROM (" + std::to_string(day) + ") TO (" +
                         std::to_string(day + 1) + ")");
    });
    std::lock_guard lock(mutex_);
    last_day_ = day;
}

void Store::add_key(const StoredKey &key, const std::string &mac) {
    Lease database(*this);
    in_transaction(*database, [&] {
        database->run("INSERT INTO keys (access_key, access_secret, device_id, mac, expired, issued) "
                      "VALUES ($1, $2, $3, $4, $5, $6) ON CONFLICT (access_key) DO UPDATE SET "
                      "access_secret = excluded.access_secret, expired = excluded.expired",
                      {key.access_key, key.access_secret, key.device, mac, int64_t(key.expired), key.issued});
        if (!key.device.empty())
            database->run("DELETE FROM keys WHERE device_id = $1 AND issued > 0 AND id NOT IN "
                          "(SELECT id FROM keys WHERE device_id = $1 ORDER BY id DESC LIMIT " +
                              std::to_string(kKeysPerDevice) + ")",
                          {key.device});
    });
}

void Store::expire_keys() {
    Lease(*this)->run("UPDATE keys SET expired = 1");
}

std::optional<StoredKey> Store::find_key(const std::string &access_key) {
    const SqlRows rows =
        select("SELECT access_key, access_secret, expired, device_id, issued FROM keys WHERE access_key = $1",
               {access_key});
    if (rows.empty())
        return std::nullopt;
    const SqlRow &row = rows[0];
    return StoredKey{row[0], row[1], row[2] != "0", row[3], atoll(row[4].c_str())};
}

Strategy Store::strategy(const std::string &device) {
    const SqlRows rows = select(
        "SELECT id, content FROM strategies WHERE device IN ($1, '') ORDER BY device DESC LIMIT 1", {device});
    return rows.empty() ? Strategy{} : Strategy{rows[0][0], rows[0][1]};
}

void Store::set_strategy(const std::string &device, const Strategy &strategy) {
    Lease database(*this);
    if (strategy.id.empty())
        database->run("DELETE FROM strategies WHERE device = $1", {device});
    else
        database->run("INSERT INTO strategies (device, id, content) VALUES ($1, $2, $3) "
                      "ON CONFLICT (device) DO UPDATE SET id = excluded.id, content = excluded.content",
                      {device, strategy.id, strategy.content});
}

bool Store::accept(const Upload &upload) {
    Lease database(*this);
    const int64_t day = upload.received / kDaySeconds;
    make_day(*database, day);
    bool is_new = false;
    in_transaction(*database, [&] {
        // Of two receivers that got the same body at once, the second one waits here for the first.
        is_new = !database
                      ->run("INSERT INTO accepted (device, digest, received) VALUES ($1, $2, $3) "
                            "ON CONFLICT (device, digest) DO NOTHING RETURNING received",
                            {upload.device, upload.digest, upload.received})
                      .empty();
        if (is_new)
            insert_upload(*database, upload, day);
    });
    return is_new;
}

void Store::insert_upload(Database &database, const Upload &upload, int64_t day) {
    const auto record_count = static_cast<int64_t>(upload.records.size());
    // The row of the device first: two uploads of one device then wait here and not for each other.
    database.run(
        "INSERT INTO devices (device, model, firmware, first_seen, last_seen, uploads, records) "
        "VALUES ($1, $2, $3, $4, $4, 1, $5) ON CONFLICT (device) DO UPDATE SET model = excluded.model, "
        "firmware = excluded.firmware, last_seen = excluded.last_seen, "
        "uploads = devices.uploads + 1, records = devices.records + excluded.records",
        {upload.device, upload.model, upload.firmware, upload.received, record_count});
    const SqlRows post =
        database.run("INSERT INTO posts (day, received, device, bytes, record_count) "
                     "VALUES ($1, $2, $3, $4, $5) RETURNING id",
                     {day, upload.received, upload.device, static_cast<int64_t>(upload.bytes), record_count});
    int64_t position = 0;
    for (const StoredRecord &record : upload.records) {
        database.run("INSERT INTO records (day, post_id, position, device, eid, ct, at, payload) "
                     "VALUES ($1, $2, $3, $4, $5, $6, $7, $8)",
                     {day, post.at(0).at(0), position++, upload.device, record.eid, record.ct, record.at,
                      SqlValue::bytes(record.payload)});
        database.run(
            "INSERT INTO newest (device, eid, at, received, payload) VALUES ($1, $2, $3, $4, $5) "
            "ON CONFLICT (device, eid) DO UPDATE SET at = excluded.at, received = excluded.received, "
            "payload = excluded.payload WHERE excluded.at >= newest.at",
            {upload.device, record.eid, record.at, upload.received, SqlValue::bytes(record.payload)});
    }
}

void Store::add_request(const StoredRequest &request) {
    Lease(*this)->run("INSERT INTO requests (time, call, path, headers, body, stamp, access_key, signature, "
                      "verdict, error_code) VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10)",
                      {static_cast<int64_t>(time(nullptr)), request.call, SqlValue::bytes(request.path),
                       SqlValue::bytes(request.headers), SqlValue::bytes(request.body),
                       SqlValue::bytes(request.stamp), SqlValue::bytes(request.access_key),
                       static_cast<int64_t>(request.signature), request.verdict,
                       static_cast<int64_t>(request.error_code)});
}

void Store::forget_before(int64_t time) {
    Lease database(*this);
    const int64_t day = time / kDaySeconds;
    in_transaction(*database, [&] {
        for (const char *table : kByDay) {
            if (!database->dialect().partitions) {
                database->run(std::string("DELETE FROM ") + table + " WHERE day < $1", {day});
                continue;
            }
            const SqlRows parts = database->run("SELECT c.relname FROM pg_inherits i JOIN pg_class c "
                                                "ON c.oid = i.inhrelid WHERE i.inhparent = $1::regclass",
                                                {table});
            for (const SqlRow &part : parts) {
                if (atoll(part[0].c_str() + part[0].rfind('_') + 1) < day)
                    database->run("DROP TABLE IF EXISTS " + part[0]); // another receiver may be first
            }
        }
        database->run("DELETE FROM accepted WHERE received < $1", {day * kDaySeconds});
        database->run("DELETE FROM keys WHERE issued > 0 AND issued < $1", {time});
    });
}

SqlRows Store::select(const std::string &statement, const std::vector<SqlValue> &values) {
    return Lease(*this)->run(statement, values);
}

int64_t Store::number(const std::string &statement) {
    const SqlRows rows = select(statement);
    return rows.empty() ? 0 : atoll(rows[0][0].c_str());
}
