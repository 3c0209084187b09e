#include "telemetry_log.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>

uint8_t telemetry_debug_enable = 1;
uint32_t telemetry_debug_level = TELEMETRY_LOG_INFO;

// The console is a terminal or a pipe to one: every line leaves at once, so that a crash loses none.
static void finish_line(const char *format, va_list arguments) {
    vprintf(format, arguments);
    putchar('\n');
    fflush(stdout);
}

void telemetry_log_write(const char *file, const char *function, int line, const char *format, ...) {
    printf("[telemetry][%d][%s] %s(%d): ", static_cast<int32_t>(time(nullptr)), file, function, line);
    va_list arguments;
    va_start(arguments, format);
    finish_line(format, arguments);
    va_end(arguments);
}

void telemetry_print_write(const char *file, const char *function, int line, const char *format, ...) {
    printf("[telemetry][%s][%s](%d): ", file, function, line);
    va_list arguments;
    va_start(arguments, format);
    finish_line(format, arguments);
    va_end(arguments);
}
