#include "lab_cloud.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

namespace lab {

namespace {

constexpr int kStartMs = 20000;

struct Socket {
    int fd;
    ~Socket() {
        if (fd >= 0)
            close(fd);
    }
};

// One HTTP exchange with a server on this machine; the body of a 200 answer. Throws otherwise.
std::string http_exchange(int port, const std::string &request) {
    Socket connection = {socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(connection.fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
        send(connection.fd, request.data(), request.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(request.size()))
        throw std::runtime_error(std::string("cloud control: ") + strerror(errno));
    std::string answer;
    char chunk[4096];
    ssize_t got;
    while ((got = recv(connection.fd, chunk, sizeof(chunk), 0)) > 0 || (got < 0 && errno == EINTR))
        answer.append(chunk, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    size_t body = answer.find("\r\n\r\n");
    if (body == answer.npos)
        throw std::runtime_error("cloud control: no answer");
    body += 4;
    if (!answer.starts_with("HTTP/1.1 200"))
        throw std::runtime_error("cloud control: " + answer.substr(body));
    return answer.substr(body);
}

std::string column_text(sqlite3_stmt *row, int column) {
    const void *data = sqlite3_column_blob(row, column);
    return data ? std::string(static_cast<const char *>(data),
                              static_cast<size_t>(sqlite3_column_bytes(row, column)))
                : std::string();
}

// Runs `take` for each row of a query on the cloud's store.
void query(const std::string &file, const std::string &text,
           const std::function<void(sqlite3_stmt *)> &take) {
    sqlite3 *opened = nullptr;
    int result = sqlite3_open_v2(file.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
    std::unique_ptr<sqlite3, int (*)(sqlite3 *)> db(opened, sqlite3_close);
    if (result != SQLITE_OK)
        throw std::runtime_error("cannot open " + file);
    sqlite3_busy_timeout(db.get(), 5000);
    sqlite3_stmt *prepared = nullptr;
    if (sqlite3_prepare_v2(db.get(), text.c_str(), -1, &prepared, nullptr) != SQLITE_OK)
        throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(db.get()));
    std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> rows(prepared, sqlite3_finalize);
    while (sqlite3_step(rows.get()) == SQLITE_ROW)
        take(rows.get());
}

} // namespace

void LabCloud::start(const std::string &bin_dir, const std::string &directory) {
    directory_ = directory;
    make_directories(directory);
    for (const char *file :
         {"/port", "/control_port", "/page_port", "/cloud.db", "/cloud.db-wal", "/cloud.db-shm"})
        unlink((directory + file).c_str());
    process_.start({{bin_dir + "/telemetry-receiver", "--dir", directory, "--store", database(), "--page",
                     "127.0.0.1:0", "--control", "127.0.0.1:0", "--strict", "--max-skew", "0"},
                    {},
                    directory + "/cloud.log"});
    bool serves =
        wait_until([&] { return file_exists(directory + "/port") || !process_.running(); }, kStartMs);
    if (!serves || !process_.running())
        throw std::runtime_error("the cloud does not start: " + read_file(directory + "/cloud.log"));
    port_ = atoi(read_file(directory + "/port").c_str());
    control_port_ = atoi(read_file(directory + "/control_port").c_str());
    page_port_ = atoi(read_file(directory + "/page_port").c_str());
}

void LabCloud::stop() {
    process_.stop();
}

std::string LabCloud::address() const {
    return "127.0.0.1:" + std::to_string(port_);
}

std::string LabCloud::page() const {
    return "http://127.0.0.1:" + std::to_string(page_port_) + "/";
}

std::string LabCloud::orders() const {
    return "http://127.0.0.1:" + std::to_string(control_port_) + "/";
}

std::string LabCloud::ca_certificate() const {
    return read_file(directory_ + "/ca.cer");
}

std::string LabCloud::database() const {
    return directory_ + "/cloud.db";
}

std::string LabCloud::control(const std::string &method, const std::string &path,
                              const std::string &body) const {
    return http_exchange(control_port_,
                         method + " /" + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" +
                             "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

void LabCloud::script(const std::string &call, const std::string &steps) {
    control("POST", "script", "{\"call\":\"" + call + "\",\"steps\":" + steps + "}");
}

void LabCloud::reset_script() {
    control("POST", "reset", "");
}

void LabCloud::expire_keys() {
    control("POST", "expire_keys", "");
}

void LabCloud::add_key(const std::string &access_key, const std::string &access_secret) {
    JsonTree order(cJSON_CreateObject());
    cJSON_AddStringToObject(order.get(), "access_key", access_key.c_str());
    cJSON_AddStringToObject(order.get(), "access_secret", access_secret.c_str());
    control("POST", "add_key", print_json(order.get()));
}

void LabCloud::set_strategy(const std::string &id, const std::string &content) {
    JsonTree order(cJSON_CreateObject());
    cJSON_AddStringToObject(order.get(), "id", id.c_str());
    cJSON_AddStringToObject(order.get(), "content", content.c_str());
    control("POST", "strategy", print_json(order.get()));
}

void LabCloud::down() {
    control("POST", "down", "");
}

void LabCloud::up() {
    control("POST", "up", "");
}

JsonTree LabCloud::counts() const {
    return parse_json(control("GET", "counts", ""), "cloud counts");
}

long LabCloud::count(const std::string &name) const {
    JsonTree all = counts();
    size_t dot = name.find('.');
    const cJSON *object = dot == name.npos
                              ? all.get()
                              : cJSON_GetObjectItemCaseSensitive(all.get(), name.substr(0, dot).c_str());
    const std::string last = dot == name.npos ? name : name.substr(dot + 1);
    if (!cJSON_GetObjectItemCaseSensitive(object, last.c_str()))
        throw std::runtime_error("the cloud has no count " + name);
    return static_cast<long>(json_number(object, last.c_str()));
}

bool LabCloud::wait_for_count(const std::string &name, long at_least, int timeout_ms) const {
    return wait_until([&] { return count(name) >= at_least; }, timeout_ms);
}

std::vector<CloudRequest> LabCloud::requests(const std::string &call, long after) const {
    std::vector<CloudRequest> list;
    query(database(),
          "SELECT id, time, call, path, headers, body, stamp, access_key, signature, verdict, error_code "
          "FROM requests WHERE id > " +
              std::to_string(after) + " ORDER BY id",
          [&](sqlite3_stmt *row) {
              CloudRequest request = {static_cast<long>(sqlite3_column_int64(row, 0)),
                                      static_cast<long>(sqlite3_column_int64(row, 1)),
                                      column_text(row, 2),
                                      column_text(row, 3),
                                      column_text(row, 4),
                                      column_text(row, 5),
                                      column_text(row, 6),
                                      column_text(row, 7),
                                      sqlite3_column_int(row, 8),
                                      column_text(row, 9),
                                      sqlite3_column_int(row, 10)};
              if (call.empty() || request.call == call)
                  list.push_back(request);
          });
    return list;
}

std::vector<CloudRecord> LabCloud::records(long after_post) const {
    std::vector<CloudRecord> list;
    query(database(),
          "SELECT post_id, eid, ct, payload FROM records WHERE post_id > " + std::to_string(after_post) +
              " ORDER BY id",
          [&](sqlite3_stmt *row) {
              list.push_back({static_cast<long>(sqlite3_column_int64(row, 0)), column_text(row, 1),
                              column_text(row, 2), column_text(row, 3)});
          });
    return list;
}

std::vector<CloudKey> LabCloud::keys() const {
    std::vector<CloudKey> list;
    query(database(), "SELECT access_key, access_secret, expired FROM keys ORDER BY id",
          [&](sqlite3_stmt *row) {
              list.push_back({column_text(row, 0), column_text(row, 1), sqlite3_column_int(row, 2) != 0});
          });
    return list;
}

} // namespace lab
