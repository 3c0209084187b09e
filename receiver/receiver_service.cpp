#include "receiver_service.h"

#include <ctime>

#include <sys/socket.h>

#include "receiver_json.h"

using namespace receiver_json;

namespace {

constexpr int64_t kDaySeconds = 86400;
using Clock = std::chrono::steady_clock;

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

std::string header_text(const HttpRequest &request) {
    std::string text;
    for (const auto &[name, value] : request.headers)
        text.append(name).append(": ").append(value).append("\n");
    return text;
}

HttpAnswer scripted_answer(const ScriptStep &step, const ApiResult &result) {
    HttpAnswer answer;
    answer.status = step.status;
    answer.drip_ms = step.kind == "drip" ? 1000 : 0;
    if (step.is_regular())
        answer.body = result.answer;
    else if (step.kind == "error_code")
        answer.body = "{\"error_code\":" + std::to_string(step.code) + "}";
    else if (step.kind == "garbage")
        answer.body = "<html>{\"error_code\": \x01\x02 not json";
    else if (step.kind == "huge")
        answer.body = huge_answer(step.bytes);
    else if (step.kind == "no_members")
        answer.body = "{}";
    else if (step.kind == "wrong_type")
        answer.body = wrong_type_answer(result.request.call);
    else if (step.kind == "raw")
        answer.body = step.text;
    else if (step.kind == "cut")
        answer.cut = true;
    else if (step.kind == "cut_body") {
        answer.body = R"({"error_code":)";
        answer.announced = 1000;
    }
    return answer;
}

// When a handshake that is held up may go on; kept beside its SSL object.
struct HeldUp {
    Clock::time_point until;
    ScriptStep step;
};

int held_up_index() {
    static const int index = SSL_get_ex_new_index(
        0, nullptr, nullptr, nullptr,
        [](void *, void *held, CRYPTO_EX_DATA *, int, long, void *) { delete static_cast<HeldUp *>(held); });
    return index;
}

} // namespace

Service::Service(const ServiceOptions &options, Store &store, Metrics &metrics, Script &script,
                 Certificates *certificates)
    : options_(options), store_(store), metrics_(metrics), script_(script), certificates_(certificates),
      tls_(certificates ? tls_context(certificates->good) : tls_context(options.cert, options.key)) {}

Service::~Service() {
    down();
}

void Service::up() {
    std::lock_guard lock(mutex_);
    Listener::HandshakeHook hook;
    if (certificates_)
        hook = [this](SSL *ssl) { return handshake_hook(ssl); };
    listener_.reset();
    listener_ = std::make_unique<Listener>([this](const HttpRequest &request) { return serve(request); },
                                           options_.limits, tls_.get(), hook);
    std::string address = options_.listen;
    if (port_ != 0)
        address = address.substr(0, address.rfind(':') + 1) + std::to_string(port_);
    listener_->start(address);
    port_ = listener_->port();
}

void Service::down() {
    std::lock_guard lock(mutex_);
    script_.interrupt();
    listener_.reset();
}

// Called in every handshake: shows the certificate that the script wants, or ends the connection.
int Service::handshake_hook(SSL *ssl) {
    auto *held = static_cast<HeldUp *>(SSL_get_ex_data(ssl, held_up_index()));
    if (!held) {
        connections_++;
        ScriptStep step = script_.take("connect");
        held = new HeldUp{Clock::now() + std::chrono::milliseconds(step.delay_ms), step};
        SSL_set_ex_data(ssl, held_up_index(), held);
    }
    if (Clock::now() < held->until)
        return -1;
    const std::string &kind = held->step.kind;
    if (kind == "cut") {
        shutdown(SSL_get_fd(ssl), SHUT_RDWR);
        return 0;
    }
    const Credentials &shown = kind == "unknown_ca"   ? certificates_->unknown_ca
                               : kind == "wrong_host" ? certificates_->wrong_host
                               : kind == "expired"    ? certificates_->expired
                                                      : certificates_->good;
    return SSL_use_certificate(ssl, shown.certificate.get()) == 1 &&
           SSL_use_PrivateKey(ssl, shown.key.get()) == 1;
}

HttpAnswer Service::serve(const HttpRequest &request) {
    HttpAnswer answer;
    const std::string call = api_call_of_path(request.path);
    if (request.method != "POST") {
        answer.status = call.empty() ? 404 : 405;
        return answer;
    }
    const ScriptStep step = script_.take(call);
    if (step.delay_ms > 0)
        script_.sleep(step.delay_ms);
    try {
        return judge(request, step);
    } catch (const StoreError &error) {
        // No word of ours: the daemon keeps its records and comes again.
        fprintf(stderr, "telemetry-receiver: %s\n", error.what());
        metrics_.count(call, "unavailable", request.body.size());
        answer.status = 503;
        return answer;
    }
}

HttpAnswer Service::judge(const HttpRequest &request, const ScriptStep &step) {
    ApiRequest asked;
    asked.path = request.path;
    asked.headers = header_text(request);
    asked.content_type = request.header("Content-Type");
    asked.authorization = request.header("X-Authorization");
    asked.body = request.body;
    asked.now = time(nullptr);
    forget_old(asked.now);
    ApiResult result = api_handle(store_, options_.api, asked);
    if (!step.is_regular()) {
        result.request.verdict = step.kind;
        result.request.error_code = step.kind == "error_code" ? step.code : 0;
    }
    keep(result, step);
    return scripted_answer(step, result);
}

// What was accepted is in the store before it is acknowledged.
void Service::keep(ApiResult &result, const ScriptStep &step) {
    std::string verdict = result.request.verdict;
    const bool regular = step.is_regular();
    if (regular && !result.issued.access_key.empty())
        store_.add_key(result.issued, result.issued_for_mac);
    if (regular && !result.upload.device.empty()) {
        const Clock::time_point before = Clock::now();
        if (!store_.accept(result.upload))
            verdict = "duplicate";
        metrics_.store_took(std::chrono::duration<double>(Clock::now() - before).count());
    }
    if (options_.keep_requests)
        store_.add_request(result.request);
    metrics_.count(result.request.call, regular ? verdict : "scripted", result.request.body.size());
}

// Once a day, by whichever receiver comes first; the others find nothing left.
void Service::forget_old(int64_t now) {
    {
        std::lock_guard lock(day_mutex_);
        if (options_.keep_days <= 0 || last_day_ == now / kDaySeconds)
            return;
        last_day_ = now / kDaySeconds;
    }
    try {
        store_.forget_before(now - options_.keep_days * kDaySeconds);
    } catch (const StoreError &error) { // no reason to refuse what has come
        fprintf(stderr, "telemetry-receiver: old days stay until tomorrow: %s\n", error.what());
    }
}

std::string Service::counts() {
    JsonTree counts(cJSON_CreateObject());
    auto add = [&](cJSON *object, const char *name, const std::string &query) {
        cJSON_AddNumberToObject(object, name, static_cast<double>(store_.number(query)));
    };
    for (const char *call : {"key", "strategy", "upload"}) {
        cJSON *object = cJSON_AddObjectToObject(counts.get(), call);
        std::string of_call = std::string("SELECT count(*) FROM requests WHERE call = '") + call + "'";
        add(object, "requests", of_call);
        add(object, "accepted", of_call + " AND verdict = 'accepted'");
        add(object, "refused", of_call + " AND verdict = 'refused'");
    }
    add(counts.get(), "requests", "SELECT count(*) FROM requests");
    add(counts.get(), "invalid_signatures", "SELECT count(*) FROM requests WHERE signature = 0");
    for (const char *table : {"keys", "posts", "records"})
        add(counts.get(), table, std::string("SELECT count(*) FROM ") + table);
    cJSON_AddNumberToObject(counts.get(), "connections", connections_);
    cJSON_AddNumberToObject(counts.get(), "pending_steps", static_cast<double>(script_.pending()));
    return print_json(counts.get());
}

std::string Service::metrics_text() {
    std::lock_guard lock(mutex_);
    if (!listener_)
        return "";
    const ListenerCounts &counts = listener_->counts();
    const std::pair<const char *, uint64_t> lines[] = {{"accepted", counts.accepted},
                                                       {"displaced", counts.displaced},
                                                       {"timed_out", counts.timed_out},
                                                       {"refused", counts.refused}};
    std::string text = "# HELP telemetry_connections_total Connections by what became of them.\n"
                       "# TYPE telemetry_connections_total counter\n";
    for (const auto &[name, count] : lines)
        text +=
            std::string("telemetry_connections_total{end=\"") + name + "\"} " + std::to_string(count) + "\n";
    return text +
           "# HELP telemetry_connections_open Connections that are open.\n"
           "# TYPE telemetry_connections_open gauge\ntelemetry_connections_open " +
           std::to_string(counts.open) + "\n";
}
