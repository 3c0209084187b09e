#include "telemetry_repeat.h"

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string_view>
#include <utility>

// Messages of a cycle that are remembered; a router without any package says about fifty.
static constexpr size_t kMaxMessages = 256;
// A longer message is known by its beginning.
static constexpr size_t kMessageSize = 256;

namespace {
class MessageSet {
  public:
    bool has(size_t message) const {
        return std::find(messages_, messages_ + count_, message) != messages_ + count_;
    }
    void add(size_t message) {
        if (count_ < kMaxMessages)
            messages_[count_++] = message;
    }
    void clear() {
        count_ = 0;
    }

  private:
    size_t messages_[kMaxMessages] = {}; // their hashes
    size_t count_ = 0;
};
} // namespace

static MessageSet this_cycle;
static MessageSet last_cycle;

TelemetryRepeat telemetry_repeat_check(const char *format, ...) {
    char text[kMessageSize];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    const size_t message = std::hash<std::string_view>()(text);
    const bool first = !this_cycle.has(message);
    if (first)
        this_cycle.add(message);
    return {first, last_cycle.has(message) ? TELEMETRY_LOG_DEBUG : TELEMETRY_LOG_ERROR};
}

void telemetry_repeat_next_cycle() {
    std::swap(last_cycle, this_cycle);
    this_cycle.clear();
}
