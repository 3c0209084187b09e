// Small functions that every topic uses. 0 is success and -1 failure unless stated; predicates give 1 or 0.
#pragma once

#include <cstddef>
#include <cstdint>

#include <cjson/cJSON.h>

#include "telemetry_handles.h"

// --- Text ---

// Decimal integer at the start of a text, wrapped to 32 bits; 0 where there is none.
int32_t telemetry_text_to_int(const char *text);

// --- MAC texts ---

// 17 characters, a dash after every two of them, a terminator.
inline constexpr int kMacTextSize = 26;

// Source without "-" and ":", a-z as A-Z. `destination` holds at least the source's length + 1.
int mac_to_format(char *destination, const char *source);
// Source with "-" after every two characters but the last. `destination` holds at least 3/2 of the source's
// length + 1.
int mac_to_short_line(char *destination, const char *source);
// Both in turn: aa:bb:cc:dd:ee:ff becomes AA-BB-CC-DD-EE-FF. `destination` holds kMacTextSize characters; a
// source with more than 17 characters besides separators is cut there. Longer addresses than a MAC stay
// longer: they match no MAC by their beginning.
int mac_to_upper_short_line(char *destination, const char *source);
// n bytes as 2n lower case hexadecimal digits; `length` (of the destination) must exceed 2n.
int mac_uint8_to_char(char *destination, size_t length, const uint8_t *bytes, size_t n);

// --- Commands and files ---

// Output of a command line (first read, at most 2048 bytes), less one trailing line end, copied as exactly
// `size` bytes: zero-padded, and without a terminator when the text has `size` or more characters. A line of
// plain words runs without a shell. -1, and `output` as it was: not started, or silent until the time limit.
int shell_get_value(const char *command, char *output, int size);
// First size - 1 bytes of a file, in a zeroed buffer. `path` is the router's path.
int telemetry_parse_file(const char *path, char *buffer, size_t size);
// The same as a text of its own: of a large `size` only what the file holds takes memory. Null: the file
// cannot be opened, or memory ran out.
TextPtr telemetry_read_text(const char *path, size_t size);
// Makes a number and a line end a file's whole content. 0, -1 when it cannot be opened, -2 when it cannot be
// written.
int telemetry_write_number_file(const char *path, int number);
// 1 when the router path exists.
int telemetry_file_exists(const char *path);

// --- Conditions ---

// Option `telemetry`.`basic`.`enable`.
int check_telemetry_enable();
// The file that the time daemon leaves after its first synchronisation.
int check_ntp_synced();
// "work_mode" of /tmp/work_mode is "FAP": this is the main node.
int check_if_device_is_FAP();
// All three, in that order: the daemon may collect and upload.
int telemetry_check_collect_condition();
// The same with a reason: null, or which of the three does not hold, in words for an operator (constant
// text).
const char *telemetry_collect_obstacle();
inline constexpr char kObstacleDisabled[] = "disabled";
inline constexpr char kObstacleClock[] = "clock not set";
inline constexpr char kObstacleRole[] = "not the main node";

// Feature flags: option `support` of the first section of a type in the device profile.
int check_is_tm_shn_support();
int check_is_afc_support();
int check_is_eco_mode_support();
int check_is_auto_upgrade_support();

// --- Measurements and markers ---

// Average delay of three echoes, ms with six decimals, into `output` (at least 128 characters; untouched when
// the command could not be started or did not end in time). `host` must be an address or host name: anything
// else reaches no command and gives -1. No shell takes part.
int telemetry_ping_delay_v4(char *output, const char *host);
int telemetry_ping_delay_v6(char *output, const char *host);
// 1 when the text is an IPv4 or IPv6 address.
int telemetry_is_ip_address(const char *text);
// 1 when the text is an address or a host name: letters, digits, "-" and ".", at most 253 characters, no
// leading "-".
int telemetry_is_host(const char *text);

// -1 until the first call of write_post_done_to_file.
extern int telemetry_post_done;
// Writes bit 1 of `flags` to /tmp/telemetry/post_done: 1 (a cycle starts) writes 0, 2 (an upload was sent)
// writes 1.
int write_post_done_to_file(int flags);

// --- Encodings and digests (telemetry_digest.cpp) ---

// Standard alphabet with padding; `output` holds 4 * ceil(length / 3) + 1 characters. A length below 1 is a
// failure, here and in the two digests.
int base64_encode(const uint8_t *input, int32_t length, char *output);
// Raw MD5, 16 bytes.
int md5_encode(const uint8_t *input, int32_t length, uint8_t *output);
// MD5 as 32 lower case hexadecimal digits; `output` holds at least 33 characters.
int md5_encode_str(const uint8_t *input, int32_t length, char *output);
// First n (1 to 20) bytes of HMAC-SHA1(key, message) as lower case hexadecimal; `output` holds 2n + 1, 41 at
// most.
int hmac_sha1_encode(const char *message, int n, char *output, const char *key);
// Makes now what libcrypto would at the first signature and, when they are its work, the first connection:
// what finds no memory then is missing until the process ends. Requests that were refused count
// (telemetry_memory.h).
void telemetry_crypto_prepare(bool connections);
// One-shot MD5 of `length` bytes into 16 bytes.
void md5_calc(uint8_t *digest, const void *data, size_t length);

// --- Option text to JSON (telemetry_value.cpp) ---

// Value type codes of options.
enum TelemetryValueType : int {
    TELEMETRY_VALUE_INT = 0, // on/true 1, off/false 0, else a 32-bit integer
    TELEMETRY_VALUE_INT64 = 1,
    TELEMETRY_VALUE_DOUBLE = 2,
    TELEMETRY_VALUE_STRING = 3,
    TELEMETRY_VALUE_LIST_INT = 4,
    TELEMETRY_VALUE_LIST_INT64 = 5,
    TELEMETRY_VALUE_LIST_DOUBLE = 6,
    TELEMETRY_VALUE_LIST_STRING = 7,
    // Of watched rows: the words of telemetry_flag_of_word as 1 or 0; any other leaves its row out.
    TELEMETRY_VALUE_FLAG = 8,
};

// 1 for the configuration's words 1, yes, on, true, enabled; 0 for 0, no, off, false, disabled; -1 for any
// other text.
int telemetry_flag_of_word(const char *text);

// Adds the text, converted by type code 0-2 (any other code: as a string), under `key`.
int telemetry_add_value_to_cJSON_object(cJSON *object, const char *key, const char *text, int type);
// Adds an array of the text's elements, separated by single blanks, by type code 4-7. Only the first 128
// characters count; an element that crosses them is dropped. `length` is the size of the text's buffer.
int telemetry_add_value_list_to_cJSON_object(cJSON *object, const char *key, const char *text, int length,
                                             int type);
// Adds the MD5 of a MAC text as hexadecimal under `key`, a constant text that the object refers to: -1 when
// the text is missing or empty, and nothing is added.
int telemetry_add_mac_md5_to_cJSON_object(cJSON *object, const char *key, const char *mac);
