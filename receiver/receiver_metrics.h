// Figures of one receiver for Prometheus, in its text form.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>

class Metrics {
  public:
    // One request of `call`, judged "accepted", "duplicate", "refused" or "unavailable", with a body of that
    // size.
    void count(const std::string &call, const std::string &result, size_t bytes);
    // Seconds that the store took for one upload.
    void store_took(double seconds);
    std::string text();

  private:
    static constexpr std::array<double, 10> kBounds = {0.001, 0.0025, 0.005, 0.01, 0.025,
                                                       0.05,  0.1,    0.5,   1,    5};
    std::mutex mutex_;
    std::map<std::pair<std::string, std::string>, uint64_t> requests_;
    std::map<std::string, uint64_t> bytes_;
    std::array<uint64_t, kBounds.size() + 1> buckets_ = {};
    double seconds_ = 0;
};

// A value between quotes: backslash, quote and line end are escaped.
std::string metrics_label(const std::string &value);
