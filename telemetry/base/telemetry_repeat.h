// What is missing stays missing: an option, package, file or service that is missed again is no news.
//
// Lines are remembered by topic: what one module, or the snapshot, says in one of its runs is compared with
// what it said in its run before, however many cycles lie between the two.
#pragma once

#include "telemetry_log.h"

struct TelemetryRepeat {
    bool first;     // not said before in this run of the topic
    uint32_t level; // debug when the topic's last run said it too, otherwise error
};

// Remembers the message for this run of the current topic. The memory is bounded: what finds no place in it
// is said as new.
TelemetryRepeat telemetry_repeat_check(const char *format, ...) __attribute__((format(printf, 1, 2)));
// From here on everything is news: after a start, or when the configuration is read anew.
void telemetry_repeat_forget();

// Makes `name` the topic while it lives, then the one before it again. A run of the topic begins with its
// first message, so that a call that only finds out that nothing is due is none.
class TelemetryRepeatTopic {
  public:
    explicit TelemetryRepeatTopic(const char *name);
    ~TelemetryRepeatTopic();
    TelemetryRepeatTopic(const TelemetryRepeatTopic &) = delete;
    TelemetryRepeatTopic &operator=(const TelemetryRepeatTopic &) = delete;
    // This is a run, also without a message: what the last one said is not said any more.
    void ran() const;

  private:
    int outer_;
    bool outer_waits_;
};

// An error line that is a debug line from its second run on; `again` false: and stands once in a run.
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
