// What is missing stays missing: an option, package, file or service that is missed again is no news.
//
// Lines are remembered by topic: what one module, or the snapshot, says in one of its runs is compared with
// what it said in its run before, however many cycles lie between the two.
#pragma once

#include "telemetry_log.h"

// Remembers the message for this run of the current topic; the level to say it at: debug when the topic's
// last run said it too, otherwise error. The memory is bounded: what finds no place in it is said as new.
uint32_t telemetry_repeat_check(const char *format, ...) __attribute__((format(printf, 1, 2)));
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

// An error line that is a debug line from its second run on.
#define LOG_MISSING(...)                                                                \
    do {                                                                                \
        if (telemetry_log_enabled(TELEMETRY_LOG_ERROR)) {                               \
            const uint32_t level_ = telemetry_repeat_check(__VA_ARGS__);                \
            if (telemetry_log_enabled(level_))                                          \
                telemetry_log_write(level_, __FILE__, __func__, __LINE__, __VA_ARGS__); \
        }                                                                               \
    } while (0)
