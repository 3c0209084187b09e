// Logging: one macro, three levels, two switches that the bus object changes at run time.
#pragma once

#include <cstdint>

enum TelemetryLogLevel : uint32_t {
    TELEMETRY_LOG_DEBUG = 0,
    TELEMETRY_LOG_INFO = 1,
    TELEMETRY_LOG_ERROR = 2,
};

// 0 silences every level.
extern uint8_t telemetry_debug_enable;
// Threshold: messages below it are not printed.
extern uint32_t telemetry_debug_level;

inline bool telemetry_log_enabled(uint32_t level) {
    return telemetry_debug_enable != 0 && telemetry_debug_level <= level;
}

// Writes one line to standard output: "[telemetry][seconds][file] function(line): ", the message, a newline.
void telemetry_log_write(const char *file, const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// The same with the prefix of the state dump, which has no time: "[telemetry][file][function](line): ".
void telemetry_print_write(const char *file, const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// The gate comes before the arguments: a filtered message costs a comparison.
#define TELEMETRY_LOG(level, ...)                                           \
    do {                                                                    \
        if (telemetry_log_enabled(level))                                   \
            telemetry_log_write(__FILE__, __func__, __LINE__, __VA_ARGS__); \
    } while (0)

#define LOG_DEBUG(...) TELEMETRY_LOG(TELEMETRY_LOG_DEBUG, __VA_ARGS__)
#define LOG_INFO(...) TELEMETRY_LOG(TELEMETRY_LOG_INFO, __VA_ARGS__)
#define LOG_ERROR(...) TELEMETRY_LOG(TELEMETRY_LOG_ERROR, __VA_ARGS__)

#define TELEMETRY_PRINT(...)                                                  \
    do {                                                                      \
        if (telemetry_log_enabled(TELEMETRY_LOG_INFO))                        \
            telemetry_print_write(__FILE__, __func__, __LINE__, __VA_ARGS__); \
    } while (0)
