#ifdef RECEIVER_WITH_POSTGRESQL
#include <libpq-fe.h>

#include "receiver_database.h"

namespace {

constexpr Oid kByteaType = 17;
// Which a database that hangs does not outlast: connecting, and a statement that waits.
constexpr char kOptions[] = "-c statement_timeout=10000 -c idle_in_transaction_session_timeout=20000 "
                            "-c client_min_messages=warning";
constexpr Dialect kDialect = {"BIGINT DEFAULT nextval('receiver_ids')",
                              "BIGINT",
                              "BYTEA",
                              " PARTITION BY RANGE (day)",
                              true,
                              "BEGIN",
                              "CREATE SEQUENCE IF NOT EXISTS receiver_ids"};

using ResultPtr = std::unique_ptr<PGresult, void (*)(PGresult *)>;

class PostgresqlDatabase : public Database {
  public:
    explicit PostgresqlDatabase(std::string where) : where_(std::move(where)) {
        connect();
    }

    SqlRows run(const std::string &statement, const std::vector<SqlValue> &values) override {
        if (PQstatus(connection_.get()) != CONNECTION_OK)
            connect();
        std::vector<const char *> texts;
        std::vector<int> lengths, formats;
        for (const SqlValue &value : values) {
            texts.push_back(value.text.c_str());
            lengths.push_back(static_cast<int>(value.text.size()));
            formats.push_back(value.is_bytes);
        }
        const ResultPtr result(PQexecParams(connection_.get(), statement.c_str(),
                                            static_cast<int>(values.size()), nullptr, texts.data(),
                                            lengths.data(), formats.data(), 0),
                               PQclear);
        const ExecStatusType status = PQresultStatus(result.get());
        if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK)
            throw StoreError(std::string("postgresql: ") + PQerrorMessage(connection_.get()));
        return rows_of(result.get());
    }

    const Dialect &dialect() const override {
        return kDialect;
    }
    bool is_shared() const override {
        return true;
    }

  private:
    void connect() {
        // A host that is gone without a word is given up after these.
        const char *names[] = {"dbname",
                               "connect_timeout",
                               "options",
                               "application_name",
                               "tcp_user_timeout",
                               "keepalives_idle",
                               "keepalives_interval",
                               "keepalives_count",
                               nullptr};
        const char *values[] = {where_.c_str(), "5", kOptions, "telemetry-receiver", "10000", "10", "5", "2",
                                nullptr};
        connection_.reset(PQconnectdbParams(names, values, 1));
        if (PQstatus(connection_.get()) != CONNECTION_OK)
            throw StoreError(std::string("postgresql: ") + PQerrorMessage(connection_.get()));
    }

    static SqlRows rows_of(const PGresult *result) {
        SqlRows rows(static_cast<size_t>(PQntuples(result)));
        for (int row = 0; row < PQntuples(result); row++) {
            for (int column = 0; column < PQnfields(result); column++) {
                const char *value = PQgetvalue(result, row, column);
                if (PQftype(result, column) == kByteaType) {
                    size_t size = 0;
                    const std::unique_ptr<unsigned char, void (*)(void *)> bytes(
                        PQunescapeBytea(reinterpret_cast<const unsigned char *>(value), &size), PQfreemem);
                    rows[static_cast<size_t>(row)].emplace_back(reinterpret_cast<char *>(bytes.get()), size);
                } else {
                    rows[static_cast<size_t>(row)].emplace_back(value);
                }
            }
        }
        return rows;
    }

    std::string where_;
    std::unique_ptr<PGconn, void (*)(PGconn *)> connection_{nullptr, PQfinish};
};

} // namespace

std::unique_ptr<Database> postgresql_open(const std::string &where) {
    return std::make_unique<PostgresqlDatabase>(where);
}
#endif
