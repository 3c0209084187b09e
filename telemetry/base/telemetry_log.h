// Logging: one macro, three levels, two switches that the bus object changes at run time, two places that
// lines go to.
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

// Where lines go that pass the gate: standard output (on a router the console), and the system log, which
// lines reach from telemetry_log_open_syslog on.
extern bool telemetry_log_console;
extern bool telemetry_log_syslog;
// Opens the system log: ident `telemetry`, facility daemon.
void telemetry_log_open_syslog();
// The level of that name ("debug", "info", "error") into *level; false for another name.
bool telemetry_log_level_by_name(const char *name, uint32_t *level);
// Shortens what follows the marks of keys and secrets in a line ("access_key:", "accessSecret":" and so on)
// to four characters and "..."; the text never grows.
void telemetry_log_hide_secrets(char *text);

inline bool telemetry_log_enabled(uint32_t level) {
    return telemetry_debug_enable != 0 && telemetry_debug_level <= level;
}

// Writes one line to standard output: "[telemetry][seconds][file] function(line): ", the message, a newline;
// and to the system log the same without the time, cut at 1023 bytes and with secrets hidden.
void telemetry_log_write(uint32_t level, const char *file, const char *function, int line, const char *format,
                         ...) __attribute__((format(printf, 5, 6)));

// The same with the prefix of the state dump, which has no time: "[telemetry][file][function](line): ". Level
// info.
void telemetry_print_write(const char *file, const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// The gate comes before the arguments: a filtered message costs a comparison.
#define TELEMETRY_LOG(level, ...)                                                  \
    do {                                                                           \
        if (telemetry_log_enabled(level))                                          \
            telemetry_log_write(level, __FILE__, __func__, __LINE__, __VA_ARGS__); \
    } while (0)

#define LOG_DEBUG(...) TELEMETRY_LOG(TELEMETRY_LOG_DEBUG, __VA_ARGS__)
#define LOG_INFO(...) TELEMETRY_LOG(TELEMETRY_LOG_INFO, __VA_ARGS__)
#define LOG_ERROR(...) TELEMETRY_LOG(TELEMETRY_LOG_ERROR, __VA_ARGS__)

#define TELEMETRY_PRINT(...)                                                  \
    do {                                                                      \
        if (telemetry_log_enabled(TELEMETRY_LOG_INFO))                        \
            telemetry_print_write(__FILE__, __func__, __LINE__, __VA_ARGS__); \
    } while (0)
