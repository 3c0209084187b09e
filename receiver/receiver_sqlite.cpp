#include <sqlite3.h>

#include "receiver_database.h"

namespace {

constexpr int kBusyMs = 5000;
constexpr Dialect kDialect = {"INTEGER PRIMARY KEY", "INTEGER", "TEXT", "", false, "BEGIN IMMEDIATE", ""};

class SqliteDatabase final : public Database {
  public:
    explicit SqliteDatabase(const std::string &path) {
        sqlite3 *opened = nullptr;
        const int result = sqlite3_open(path.c_str(), &opened);
        db_.reset(opened);
        if (result != SQLITE_OK)
            throw StoreError("sqlite: cannot open " + path);
        sqlite3_busy_timeout(opened, kBusyMs);
        run("PRAGMA journal_mode = WAL", {});
        // What is acknowledged survives a power cut.
        run("PRAGMA synchronous = FULL", {});
    }

    SqlRows run(const std::string &statement, const std::vector<SqlValue> &values) override {
        sqlite3_stmt *made = nullptr;
        if (sqlite3_prepare_v2(db_.get(), statement.c_str(), -1, &made, nullptr) != SQLITE_OK)
            fail();
        const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> prepared(made, sqlite3_finalize);
        int index = 0;
        for (const SqlValue &value : values)
            sqlite3_bind_text(made, ++index, value.text.data(), static_cast<int>(value.text.size()),
                              SQLITE_STATIC);
        SqlRows rows;
        int result;
        while ((result = sqlite3_step(made)) == SQLITE_ROW) {
            rows.emplace_back();
            for (int column = 0; column < sqlite3_column_count(made); column++) {
                const void *data = sqlite3_column_blob(made, column);
                const auto size = static_cast<size_t>(sqlite3_column_bytes(made, column));
                rows.back().emplace_back(data ? static_cast<const char *>(data) : "", data ? size : 0);
            }
        }
        if (result != SQLITE_DONE)
            fail();
        return rows;
    }

    const Dialect &dialect() const override {
        return kDialect;
    }
    bool is_shared() const override {
        return false;
    }

  private:
    [[noreturn]] void fail() const {
        throw StoreError(std::string("sqlite: ") + sqlite3_errmsg(db_.get()));
    }
    std::unique_ptr<sqlite3, int (*)(sqlite3 *)> db_{nullptr, sqlite3_close};
};

} // namespace

std::unique_ptr<Database> sqlite_open(const std::string &where) {
    return std::make_unique<SqliteDatabase>(where);
}

std::unique_ptr<Database> database_open(const std::string &where) {
    if (!where.starts_with("postgresql://") && !where.starts_with("postgres://"))
        return sqlite_open(where);
#ifdef RECEIVER_WITH_POSTGRESQL
    return postgresql_open(where);
#else
    throw StoreError("built without libpq: no PostgreSQL");
#endif
}
