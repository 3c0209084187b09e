// The seam under the store: one connection to a database that takes SQL with $1, $2, ... in rising order.
// What SQLite and PostgreSQL call differently stands in a Dialect; the store's statements are the same for
// both.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

// The database is gone, full or refuses: nothing of the transaction is kept, the request may come again.
struct StoreError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A parameter or a column: text, a number as text, or bytes that need not be UTF-8.
struct SqlValue {
    std::string text;
    bool is_bytes = false;
    SqlValue(std::string value) : text(std::move(value)) {}
    SqlValue(const char *value) : text(value) {}
    SqlValue(int64_t number) : text(std::to_string(number)) {}
    static SqlValue bytes(std::string value) {
        SqlValue made(std::move(value));
        made.is_bytes = true;
        return made;
    }
};
using SqlRow = std::vector<std::string>;
using SqlRows = std::vector<SqlRow>;

struct Dialect {
    const char *id, *number, *bytes; // column types
    const char *by_day;              // behind a table that is kept by day
    bool partitions;                 // a day of such a table is a table of its own
    const char *begin, *start; // beginning of a transaction that writes; first statement of a connection
};

class Database {
  public:
    virtual ~Database() = default;
    // Runs one statement; throws StoreError. After an error the connection is usable again, or made anew by
    // the next call.
    virtual SqlRows run(const std::string &statement, const std::vector<SqlValue> &values = {}) = 0;
    virtual const Dialect &dialect() const = 0;
    // Whether several connections may write at once.
    virtual bool is_shared() const = 0;
};

// "postgresql://..." or "postgres://..." by libpq (when built with it), else the path of an SQLite file.
// Throws StoreError.
std::unique_ptr<Database> database_open(const std::string &where);
std::unique_ptr<Database> postgresql_open(const std::string &where);
std::unique_ptr<Database> sqlite_open(const std::string &where);
