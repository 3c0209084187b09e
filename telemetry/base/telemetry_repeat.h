// What is missing stays missing: an option, package, file or service that a cycle misses again is no news.
#pragma once

#include "telemetry_log.h"

struct TelemetryRepeat {
    bool first;     // not said before in this cycle
    uint32_t level; // debug when the last cycle said it too, otherwise error
};

// Remembers the message for this cycle. The memory is bounded: what finds no place in it is said as new.
TelemetryRepeat telemetry_repeat_check(const char *format, ...) __attribute__((format(printf, 1, 2)));
// A cycle begins: what the one before said is the last cycle's.
void telemetry_repeat_next_cycle();

// An error line that is a debug line from its second cycle on; `again` false: and stands once in a cycle.
#define TELEMETRY_LOG_REPEAT(again, ...)                                                       \
    do {                                                                                       \
        if (telemetry_log_enabled(TELEMETRY_LOG_ERROR)) {                                      \
            const TelemetryRepeat repeat_ = telemetry_repeat_check(__VA_ARGS__);               \
            if ((repeat_.first || again) && telemetry_log_enabled(repeat_.level))              \
                telemetry_log_write(repeat_.level, __FILE__, __func__, __LINE__, __VA_ARGS__); \
        }                                                                                      \
    } while (0)

#define LOG_MISSING(...) TELEMETRY_LOG_REPEAT(true, __VA_ARGS__)
#define LOG_MISSING_ONCE(...) TELEMETRY_LOG_REPEAT(false, __VA_ARGS__)
