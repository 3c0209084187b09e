#include "receiver_service.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "receiver_json.h"

namespace {

constexpr char kAddress[] = "127.0.0.1";
constexpr char kJsonType[] = "application/json";

std::string wrong_type_answer(const std::string &call) {
    if (call == "key")
        return R"({"error_code":0,"result":{"expiresIn":"soon","accessKey":7,"accessSecret":["x"]}})";
    if (call == "strategy")
        return R"({"error_code":0,"result":{"strategyId":7,"strategyContent":{"post_interval":1}}})";
    return R"({"error_code":"0"})";
}

std::string huge_answer(size_t bytes) {
    std::string answer = R"({"error_code":0,"filler":")";
    answer.resize(std::max(bytes, answer.size() + 2) - 2, 'x');
    return answer + "\"}";
}

std::string header_text(const httplib::Headers &headers) {
    std::string text;
    for (const auto &[name, value] : headers) {
        // The library adds these of its own; they did not come over the wire.
        if (name != "REMOTE_ADDR" && name != "REMOTE_PORT" && name != "LOCAL_ADDR" && name != "LOCAL_PORT")
            text += name + ": " + value + "\n";
    }
    return text;
}

int port_of(const sockaddr_in &address) {
    return address.sin_family == AF_INET ? ntohs(address.sin_port) : -1;
}

} // namespace

Service::Service(Store &store, Script &script, Certificates &certificates)
    : store_(store), script_(script), certificates_(certificates) {}

Service::~Service() {
    down();
}

void Service::up(int port) {
    down();
    listener_ = std::make_unique<httplib::SSLServer>(certificates_.good.certificate.get(),
                                                     certificates_.good.key.get());
    SSL_CTX_set_cert_cb(listener_->ssl_context(), certificate_chosen, this);
    // A connection a request: scripted certificates and refusals meet every request, not only the first.
    listener_->set_keep_alive_max_count(1);
    listener_->set_payload_max_length(64 << 20);
    listener_->Post(".*", [this](const httplib::Request &request, httplib::Response &response) {
        serve(request, response);
    });
    if (port == 0)
        port = listener_->bind_to_any_port(kAddress);
    else if (!listener_->bind_to_port(kAddress, port))
        port = -1;
    if (port <= 0)
        throw std::runtime_error("the cloud cannot listen on 127.0.0.1");
    port_ = port;
    thread_ = std::thread([this] { listener_->listen_after_bind(); });
    while (!listener_->is_running())
        std::this_thread::yield();
}

void Service::down() {
    if (!listener_)
        return;
    script_.interrupt();
    listener_->stop();
    thread_.join();
    listener_.reset();
}

void Service::set_strategy(const Strategy &strategy) {
    std::lock_guard lock(mutex_);
    strategy_ = strategy;
}

void Service::add_key(const StoredKey &key) {
    std::lock_guard lock(mutex_);
    store_.add_key(key, "", "");
}

void Service::expire_keys() {
    std::lock_guard lock(mutex_);
    store_.expire_keys();
}

std::string Service::counts() {
    std::lock_guard lock(mutex_);
    JsonTree counts(cJSON_CreateObject());
    auto add = [&](cJSON *object, const char *name, const std::string &query) {
        cJSON_AddNumberToObject(object, name, static_cast<double>(store_.number(query)));
    };
    for (const char *call : {"key", "strategy", "upload"}) {
        cJSON *object = cJSON_AddObjectToObject(counts.get(), call);
        std::string of_call = std::string(" FROM requests WHERE call = '") + call + "'";
        add(object, "requests", "SELECT count(*)" + of_call);
        add(object, "accepted", "SELECT count(*)" + of_call + " AND verdict = 'accepted'");
        add(object, "refused", "SELECT count(*)" + of_call + " AND verdict = 'refused'");
    }
    add(counts.get(), "requests", "SELECT count(*) FROM requests");
    add(counts.get(), "invalid_signatures", "SELECT count(*) FROM requests WHERE signature = 0");
    add(counts.get(), "keys", "SELECT count(*) FROM keys");
    add(counts.get(), "posts", "SELECT count(*) FROM posts");
    add(counts.get(), "records", "SELECT count(*) FROM records");
    cJSON_AddNumberToObject(counts.get(), "connections", connections_);
    cJSON_AddNumberToObject(counts.get(), "pending_steps", static_cast<double>(script_.pending()));
    return print_json(counts.get());
}

// Called in every handshake: shows the certificate that the script wants, or ends the connection.
int Service::certificate_chosen(SSL *ssl, void *server) {
    auto *self = static_cast<Service *>(server);
    self->connections_++;
    ScriptStep step = self->script_.take("connect");
    if (step.delay_ms > 0)
        self->script_.sleep(step.delay_ms);
    if (step.kind == "cut") {
        shutdown(SSL_get_fd(ssl), SHUT_RDWR);
        return 0;
    }
    const Certificates &all = self->certificates_;
    const Credentials &shown = step.kind == "unknown_ca"   ? all.unknown_ca
                               : step.kind == "wrong_host" ? all.wrong_host
                               : step.kind == "expired"    ? all.expired
                                                           : all.good;
    return SSL_use_certificate(ssl, shown.certificate.get()) == 1 &&
           SSL_use_PrivateKey(ssl, shown.key.get()) == 1;
}

void Service::serve(const httplib::Request &request, httplib::Response &response) {
    ScriptStep step = script_.take(api_call_of_path(request.path));
    if (step.delay_ms > 0)
        script_.sleep(step.delay_ms);

    ApiResult result;
    {
        std::lock_guard lock(mutex_);
        result = api_handle(store_, strategy_, request.path, header_text(request.headers),
                            request.get_header_value("Content-Type"),
                            request.get_header_value("X-Authorization"), request.body);
        bool regular = step.kind == "ok";
        if (!regular) {
            result.request.verdict = step.kind;
            result.request.error_code = step.kind == "error_code" ? step.code : 0;
        }
        int64_t request_id = store_.add_request(result.request);
        if (regular && !result.issued.access_key.empty())
            store_.add_key(result.issued, result.device, result.issued_for_mac);
        if (regular && result.request.call == "upload" && result.request.verdict == "accepted")
            store_.add_post(request_id, result.device, request.body.size(), result.records);
    }
    response.status = step.status;
    answer_as_scripted(step, result, request, response);
}

void Service::answer_as_scripted(const ScriptStep &step, const ApiResult &result,
                                 const httplib::Request &request, httplib::Response &response) {
    if (step.kind == "ok")
        response.set_content(result.answer, kJsonType);
    else if (step.kind == "error_code")
        response.set_content("{\"error_code\":" + std::to_string(step.code) + "}", kJsonType);
    else if (step.kind == "empty")
        response.set_content("", kJsonType);
    else if (step.kind == "garbage")
        response.set_content("<html>{\"error_code\": \x01\x02 not json", kJsonType);
    else if (step.kind == "huge")
        response.set_content(huge_answer(step.bytes), kJsonType);
    else if (step.kind == "no_members")
        response.set_content("{}", kJsonType);
    else if (step.kind == "wrong_type")
        response.set_content(wrong_type_answer(result.request.call), kJsonType);
    else if (step.kind == "raw")
        response.set_content(step.text, kJsonType);
    else if (step.kind == "cut")
        cut_connection(request.remote_port);
    else if (step.kind == "cut_body")
        response.set_content_provider(1000, kJsonType, [](size_t, size_t, httplib::DataSink &sink) {
            constexpr std::string_view kBeginning = R"({"error_code":)";
            sink.write(kBeginning.data(), kBeginning.size());
            return false;
        });
}

// The library does not hand out its sockets: the one whose other end has this port is it.
void Service::cut_connection(int remote_port) {
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        int fd = atoi(entry.path().filename().c_str());
        sockaddr_in local = {}, remote = {};
        socklen_t local_size = sizeof(local), remote_size = sizeof(remote);
        if (getsockname(fd, reinterpret_cast<sockaddr *>(&local), &local_size) == 0 &&
            getpeername(fd, reinterpret_cast<sockaddr *>(&remote), &remote_size) == 0 &&
            port_of(local) == port_ && port_of(remote) == remote_port)
            shutdown(fd, SHUT_RDWR);
    }
}
