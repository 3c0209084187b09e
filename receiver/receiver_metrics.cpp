#include "receiver_metrics.h"

#include <cstdio>

std::string metrics_label(const std::string &value) {
    std::string text = "\"";
    for (const char c : value) { // one byte that is no UTF-8, and the whole answer is refused
        if (c == '"' || c == '\\')
            text += '\\';
        const auto byte = static_cast<unsigned char>(c);
        text += byte < 0x20 || byte >= 0x7f ? '?' : c;
    }
    return text + "\"";
}

void Metrics::count(const std::string &call, const std::string &result, size_t bytes) {
    std::lock_guard lock(mutex_);
    const std::string name = call.empty() ? "other" : call;
    requests_[{name, result}]++;
    bytes_[name] += bytes;
}

void Metrics::store_took(double seconds) {
    std::lock_guard lock(mutex_);
    size_t bucket = 0;
    while (bucket < kBounds.size() && seconds > kBounds[bucket])
        bucket++;
    buckets_[bucket]++;
    seconds_ += seconds;
}

std::string Metrics::text() {
    std::lock_guard lock(mutex_);
    std::string out = "# HELP telemetry_requests_total Requests by call and result.\n"
                      "# TYPE telemetry_requests_total counter\n";
    for (const auto &[key, count] : requests_)
        out += "telemetry_requests_total{call=" + metrics_label(key.first) +
               ",result=" + metrics_label(key.second) + "} " + std::to_string(count) + "\n";
    out += "# HELP telemetry_body_bytes_total Bytes of the bodies received.\n"
           "# TYPE telemetry_body_bytes_total counter\n";
    for (const auto &[call, bytes] : bytes_)
        out += "telemetry_body_bytes_total{call=" + metrics_label(call) + "} " + std::to_string(bytes) + "\n";
    out += "# HELP telemetry_store_seconds Time that the store took for an upload.\n"
           "# TYPE telemetry_store_seconds histogram\n";
    uint64_t sum = 0;
    char line[128];
    for (size_t i = 0; i < buckets_.size(); i++) {
        sum += buckets_[i];
        if (i < kBounds.size())
            snprintf(line, sizeof(line), "telemetry_store_seconds_bucket{le=\"%g\"} %llu\n", kBounds[i],
                     static_cast<unsigned long long>(sum));
        else
            snprintf(line, sizeof(line), "telemetry_store_seconds_bucket{le=\"+Inf\"} %llu\n",
                     static_cast<unsigned long long>(sum));
        out += line;
    }
    snprintf(line, sizeof(line), "telemetry_store_seconds_sum %.6f\ntelemetry_store_seconds_count %llu\n",
             seconds_, static_cast<unsigned long long>(sum));
    return out + line;
}
