#include "telemetry_log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

// The names of the system log's priorities are those of our macros.
#undef LOG_DEBUG
#undef LOG_INFO
#include <syslog.h>

uint8_t telemetry_debug_enable = 1;
uint32_t telemetry_debug_level = TELEMETRY_LOG_INFO;
bool telemetry_log_console = true;
bool telemetry_log_syslog = true;

static bool syslog_open;

struct LogLevelRow {
    const char *name;
    uint32_t level;
    int priority; // of the system log
};

// By level.
static constexpr LogLevelRow kLogLevels[] = {
    {"debug", TELEMETRY_LOG_DEBUG, LOG_DEBUG},
    {"info", TELEMETRY_LOG_INFO, LOG_INFO},
    {"error", TELEMETRY_LOG_ERROR, LOG_ERR},
};

bool telemetry_log_level_by_name(const char *name, uint32_t *level) {
    for (const LogLevelRow &row : kLogLevels) {
        if (name != nullptr && strcmp(name, row.name) == 0) {
            *level = row.level;
            return true;
        }
    }
    return false;
}

void telemetry_log_open_syslog() {
    openlog("telemetry", LOG_NDELAY, LOG_DAEMON);
    syslog_open = true;
}

// --- Secrets ---

static constexpr size_t kShownOfSecret = 4;

// What stands before a key or a secret in a line of text: in the two lines of the start, in the state dump,
// in the header of a signed request, in lines about an option that was not taken. Nothing there tells where
// it ends.
static constexpr const char *kSecretMarks[] = {
    "access_key:", "access_secret:", "access key: ",  "access secret: ",
    "AccessKey=",  "accessKey=",     "accessSecret=", "uci_set_value [",
};
// In answers of the cloud, which are printed as they came.
static constexpr const char *kSecretMembers[] = {"\"accessKey\"", "\"accessSecret\""};

// Shortens the secret of `length` bytes: the rest of the text moves up.
static void shorten_secret(char *secret, size_t length) {
    if (length <= kShownOfSecret)
        return;
    const size_t dots = std::min<size_t>(3, length - kShownOfSecret);
    memset(secret + kShownOfSecret, '.', dots);
    char *rest = secret + length;
    memmove(secret + kShownOfSecret + dots, rest, strlen(rest) + 1);
}

// Length of a JSON text's inside, up to its closing quote or the end.
static size_t quoted_length(const char *text) {
    size_t at = 0;
    while (text[at] != '\0' && text[at] != '"')
        at += text[at] == '\\' && text[at + 1] != '\0' ? 2 : 1;
    return at;
}

// The value's first character; null when the member's name is followed by something else than a text.
static char *text_after_name(char *text) {
    static constexpr char kBlanks[] = " \t\r\n";
    text += strspn(text, kBlanks);
    if (*text != ':')
        return nullptr;
    text += 1 + strspn(text + 1, kBlanks);
    return *text == '"' ? text + 1 : nullptr;
}

void telemetry_log_hide_secrets(char *text) {
    for (const char *name : kSecretMembers)
        for (char *found = strstr(text, name); found != nullptr; found = strstr(found, name)) {
            found += strlen(name);
            if (char *secret = text_after_name(found); secret != nullptr)
                shorten_secret(secret, quoted_length(secret));
        }
    for (const char *mark : kSecretMarks)
        for (char *found = strstr(text, mark); found != nullptr; found = strstr(found, mark)) {
            found += strlen(mark);
            shorten_secret(found, strlen(found));
        }
}

// --- Lines ---

static constexpr size_t kSyslogLine = 1024;

static void write_syslog(uint32_t level, const char *prefix, const char *format, va_list arguments) {
    char text[kSyslogLine];
    const int used = snprintf(text, sizeof(text), "%s", prefix);
    const size_t room = std::min(static_cast<size_t>(std::max(used, 0)), sizeof(text) - 1);
    vsnprintf(text + room, sizeof(text) - room, format, arguments);
    telemetry_log_hide_secrets(text);
    const uint32_t row = std::min<uint32_t>(level, std::size(kLogLevels) - 1);
    syslog(kLogLevels[row].priority, "%s", text);
}

// The console is a terminal or a pipe to one: every line leaves at once, so that a crash loses none.
static void write_console(const char *prefix, const char *format, va_list arguments) {
    fputs(prefix, stdout);
    vprintf(format, arguments);
    putchar('\n');
    fflush(stdout);
}

void telemetry_log_write(uint32_t level, const char *file, const char *function, int line, const char *format,
                         ...) {
    char prefix[256];
    va_list arguments;
    va_start(arguments, format);
    if (telemetry_log_console) {
        va_list copy;
        va_copy(copy, arguments);
        snprintf(prefix, sizeof(prefix), "[telemetry][%d][%s] %s(%d): ", static_cast<int32_t>(time(nullptr)),
                 file, function, line);
        write_console(prefix, format, copy);
        va_end(copy);
    }
    if (telemetry_log_syslog && syslog_open) {
        snprintf(prefix, sizeof(prefix), "[telemetry][%s] %s(%d): ", file, function, line);
        write_syslog(level, prefix, format, arguments);
    }
    va_end(arguments);
}

void telemetry_print_write(const char *file, const char *function, int line, const char *format, ...) {
    char prefix[256];
    snprintf(prefix, sizeof(prefix), "[telemetry][%s][%s](%d): ", file, function, line);
    va_list arguments;
    va_start(arguments, format);
    if (telemetry_log_console) {
        va_list copy;
        va_copy(copy, arguments);
        write_console(prefix, format, copy);
        va_end(copy);
    }
    if (telemetry_log_syslog && syslog_open)
        write_syslog(TELEMETRY_LOG_INFO, prefix, format, arguments);
    va_end(arguments);
}
