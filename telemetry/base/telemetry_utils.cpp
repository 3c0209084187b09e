#include "telemetry_utils.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>

#include "telemetry_command.h"
#include "telemetry_handles.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_paths.h"
#include "telemetry_uci.h"
#include "telemetry_uci_stamp.h"

int telemetry_post_done = -1;

// Characters of a MAC text, separators not counted, that are converted.
static constexpr size_t kMacDigits = 17;
static constexpr size_t kShellReadSize = 2048;
// What a command line may hold to be words and nothing else, and how many of them.
static constexpr char kPlainCharacters[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-: ";
static constexpr size_t kMaxPlainWords = 8;
static constexpr size_t kWorkModeSize = 2048;
static constexpr size_t kPingReadSize = 4096;
static constexpr size_t kPingOutputSize = 128;
static constexpr size_t kHostNameLength = 253;

int32_t telemetry_text_to_int(const char *text) {
    if (text == nullptr) {
        LOG_ERROR("param error");
        return 0;
    }
    return static_cast<int32_t>(strtoll(text, nullptr, 10));
}

static bool is_mac_separator(char c) {
    return c == '-' || c == ':';
}

// At most `limit` characters besides the terminator.
static int format_mac(char *destination, size_t limit, const char *source) {
    if (destination == nullptr || source == nullptr) {
        LOG_ERROR("params error");
        return -1;
    }
    size_t used = 0;
    for (; *source != '\0' && used < limit; source++) {
        if (is_mac_separator(*source))
            continue;
        const bool lower = *source >= 'a' && *source <= 'z';
        destination[used++] = lower ? static_cast<char>(*source - 'a' + 'A') : *source;
    }
    destination[used] = '\0';
    return 0;
}

int mac_to_format(char *destination, const char *source) {
    return format_mac(destination, SIZE_MAX, source);
}

int mac_to_short_line(char *destination, const char *source) {
    if (destination == nullptr || source == nullptr) {
        LOG_ERROR("params error");
        return -1;
    }
    for (size_t at = 0; source[at] != '\0'; at++) {
        if (at > 0 && at % 2 == 0)
            *destination++ = '-';
        *destination++ = source[at];
    }
    *destination = '\0';
    return 0;
}

int mac_to_upper_short_line(char *destination, const char *source) {
    char digits[kMacDigits + 1];
    if (format_mac(digits, kMacDigits, source) != 0) {
        LOG_ERROR("-----mac to format----------");
        return -1;
    }
    if (mac_to_short_line(destination, digits) != 0) {
        LOG_ERROR("-----mac_to_short_line----------");
        return -1;
    }
    return 0;
}

int mac_uint8_to_char(char *destination, size_t length, const uint8_t *bytes, size_t n) {
    if (destination == nullptr || bytes == nullptr) {
        LOG_ERROR("params error");
        return -1;
    }
    if (length == 0 || (length - 1) / 2 < n) {
        LOG_ERROR("target len is not enough");
        return -1;
    }
    constexpr char kHex[] = "0123456789abcdef";
    for (size_t i = 0; i < n; i++) {
        *destination++ = kHex[bytes[i] >> 4];
        *destination++ = kHex[bytes[i] & 0xf];
    }
    *destination = '\0';
    return 0;
}

// Bytes that one read brings, 0 when it fails; -1, with a line, when the file cannot be opened.
static ssize_t read_once(const char *path, char *buffer, size_t size) {
    // Without O_NONBLOCK a pipe that nobody writes to would hold the loop for ever.
    const FdHandle file(open(telemetry_path(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid()) {
        LOG_ERROR("error: open file %s failed", path);
        return -1;
    }
    ssize_t got;
    do {
        got = read(file.get(), buffer, size);
    } while (got < 0 && errno == EINTR);
    return std::max<ssize_t>(got, 0);
}

// Runs the words of a line as they are where nothing in it means anything to a shell, which then has no part
// in it.
static int run_line(const char *line, const TelemetryCommandOutput &output) {
    const char *const shell[] = {"/bin/sh", "-c", line, nullptr};
    std::string words = line;
    if (words.find_first_not_of(kPlainCharacters) != std::string::npos)
        return telemetry_command_run(shell, kCommandLimitMs, &output, nullptr);
    const char *argv[kMaxPlainWords + 1] = {};
    size_t count = 0;
    for (char *rest = words.data(), *word; (word = strtok_r(rest, " ", &rest)) != nullptr;) {
        if (count == kMaxPlainWords)
            return telemetry_command_run(shell, kCommandLimitMs, &output, nullptr);
        argv[count++] = word;
    }
    return telemetry_command_run(argv, kCommandLimitMs, &output, nullptr);
}

int shell_get_value(const char *command, char *output, int size) {
    if (command == nullptr || *command == '\0' || output == nullptr || size <= 0) {
        LOG_ERROR("param error");
        return -1;
    }
    char text[kShellReadSize + 1];
    text[kShellReadSize] = '\0';
    const int result = run_line(command, {TELEMETRY_READ_FIRST, text, kShellReadSize});
    // A tool that answered and then hangs has answered.
    if (result == TELEMETRY_COMMAND_NOT_STARTED || (result == TELEMETRY_COMMAND_TOO_LONG && text[0] == '\0'))
        return -1;
    size_t length = strlen(text);
    if (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r'))
        text[--length] = '\0';
    const size_t room = static_cast<size_t>(size);
    if (length > room)
        length = room;
    memcpy(output, text, length);
    memset(output + length, 0, room - length);
    return 0;
}

int telemetry_parse_file(const char *path, char *buffer, size_t size) {
    if (path == nullptr || buffer == nullptr || size == 0) {
        LOG_ERROR("invalid input");
        return -1;
    }
    const ssize_t got = read_once(path, buffer, size - 1);
    if (got < 0)
        return -1;
    memset(buffer + got, 0, size - static_cast<size_t>(got));
    return 0;
}

TextPtr telemetry_read_text(const char *path, size_t size) {
    TextPtr text(static_cast<char *>(malloc(size)));
    if (text == nullptr) {
        telemetry_memory_refused();
        return nullptr;
    }
    const ssize_t got = read_once(path, text.get(), size - 1);
    if (got < 0)
        return nullptr;
    text.get()[got] = '\0';
    return text;
}

int telemetry_write_number_file(const char *path, int number) {
    // O_NONBLOCK: see telemetry_parse_file.
    const FdHandle file(
        open(telemetry_path(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, 0666));
    if (!file.valid())
        return -1;
    const std::string text = std::to_string(number) + "\n";
    return write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : -2;
}

int telemetry_file_exists(const char *path) {
    if (path == nullptr) {
        LOG_ERROR("param error");
        return 0;
    }
    return access(telemetry_path(path).c_str(), F_OK) == 0;
}

int check_telemetry_enable() {
    // Asked often, and the package may be long. What says no is read again: it may not have been readable.
    static TelemetryUciStamp enabled;
    const TelemetryUciStamp now("telemetry");
    if (enabled.holds(now))
        return 1;
    if (telemetry_get_uci_enabled_value("telemetry", "basic", "enable", TELEMETRY_UCI_SYSTEM) != 1) {
        LOG_DEBUG("telemetry disable!");
        enabled = {};
        return 0;
    }
    enabled = now;
    return 1;
}

int check_ntp_synced() {
    return telemetry_file_exists(kNtpSyncedPath);
}

int check_if_device_is_FAP() {
    char text[kWorkModeSize];
    if (telemetry_parse_file(kWorkModePath, text, sizeof(text)) != 0) {
        LOG_ERROR("parse file %s failed", kWorkModePath);
        return 0;
    }
    const JsonPtr json(cJSON_Parse(text));
    if (json == nullptr) {
        LOG_ERROR("parse work_mode");
        return 0;
    }
    const char *mode = json_text(json.get(), "work_mode");
    return mode != nullptr && strcmp(mode, "FAP") == 0;
}

const char *telemetry_collect_obstacle() {
    if (!check_telemetry_enable())
        return kObstacleDisabled;
    if (!check_ntp_synced())
        return kObstacleClock;
    return check_if_device_is_FAP() ? nullptr : kObstacleRole;
}

int telemetry_check_collect_condition() {
    return telemetry_collect_obstacle() == nullptr;
}

// `unreadable` is the answer for a profile that cannot be read or does not know the feature.
static int check_feature(const char *feature, int unreadable) {
    char value[128] = {};
    int supported = unreadable;
    if (uci_get_profile_option(feature, "support", value, sizeof(value) - 1) == 0)
        supported = strncmp(value, "yes", 3) == 0;
    LOG_DEBUG("device %s %s!", supported ? "support" : "not support", feature);
    return supported;
}

int check_is_tm_shn_support() {
    char wan_type[128] = {};
    if (telemetry_get_uci_value("network", "wan", "wan_type", wan_type, sizeof(wan_type),
                                TELEMETRY_UCI_SYSTEM) == 0 &&
        strncmp(wan_type, "dslite", 6) == 0) {
        LOG_DEBUG("device not support tm_shn!");
        return 0;
    }
    // Boards older than the profile's section have the feature.
    return check_feature("tm_shn", 1);
}

int check_is_afc_support() {
    return check_feature("afc", 0);
}

int check_is_eco_mode_support() {
    return check_feature("eco_mode", 0);
}

int check_is_auto_upgrade_support() {
    return check_feature("auto_upgrade", 0);
}

int telemetry_is_ip_address(const char *text) {
    uint8_t address[sizeof(in6_addr)];
    return text != nullptr &&
           (inet_pton(AF_INET, text, address) == 1 || inet_pton(AF_INET6, text, address) == 1);
}

int telemetry_is_host(const char *text) {
    if (telemetry_is_ip_address(text))
        return 1;
    if (text == nullptr || *text == '\0' || *text == '-' ||
        strnlen(text, kHostNameLength + 1) > kHostNameLength)
        return 0;
    for (; *text != '\0'; text++) {
        const bool letter = (*text >= 'a' && *text <= 'z') || (*text >= 'A' && *text <= 'Z');
        if (!letter && !(*text >= '0' && *text <= '9') && *text != '-' && *text != '.')
            return 0;
    }
    return 1;
}

// Field `field`, counted from 1, of every line of `printed`, split at slashes; as many as find room.
static void slash_fields(std::string_view printed, int field, char (&text)[kPingOutputSize + 1]) {
    size_t used = 0;
    while (!printed.empty() && used < kPingOutputSize) {
        const std::string_view line = printed.substr(0, printed.find('\n'));
        printed.remove_prefix(std::min(line.size() + 1, printed.size()));
        size_t from = 0;
        for (int skipped = 1; skipped < field && from != line.npos; ++skipped) {
            from = line.find('/', from);
            from += from == line.npos ? 0 : 1;
        }
        const std::string_view value =
            from == line.npos ? "" : line.substr(from, line.find('/', from) - from);
        used += value.copy(text + used, kPingOutputSize - used);
        if (used < kPingOutputSize)
            text[used++] = '\n';
    }
    text[used] = '\0';
}

// Average of three echoes: the first number in field `field` of what the program prints.
static int ping_delay(char *output, const char *host, const char *program, int field) {
    // The host comes from other services: an option is none.
    if (output == nullptr || host == nullptr || !telemetry_is_host(host)) {
        LOG_ERROR("params error");
        return -1;
    }
    const char *const argv[] = {program, "-c", "3", host, nullptr};
    char printed[kPingReadSize + 1];
    printed[kPingReadSize] = '\0';
    const TelemetryCommandOutput read = {TELEMETRY_READ_ALL, printed, kPingReadSize};
    if (telemetry_command_run(argv, kPingLimitMs, &read, nullptr) != TELEMETRY_COMMAND_ENDED)
        return 0;
    char text[kPingOutputSize + 1];
    slash_fields(printed, field, text);
    snprintf(output, kPingOutputSize, "%f", strtod(text, nullptr));
    return 0;
}

int telemetry_ping_delay_v4(char *output, const char *host) {
    return ping_delay(output, host, "ping", 4);
}

int telemetry_ping_delay_v6(char *output, const char *host) {
    return ping_delay(output, host, "ping6", 5);
}

int write_post_done_to_file(int flags) {
    telemetry_post_done = (flags >> 1) & 1;
    const int written = telemetry_write_number_file(kPostDonePath, telemetry_post_done);
    if (written != 0)
        LOG_ERROR("Failed to %s %s", written == -1 ? "open" : "write", kPostDonePath);
    return written == 0 ? 0 : -1;
}
