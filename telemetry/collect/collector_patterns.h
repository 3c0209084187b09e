// What collectors have in common, so that a collector is its table, its message and one call.
#pragma once

#include <cstddef>
#include <cstdint>

#include <cjson/cJSON.h>

#include "telemetry_handles.h"
#include "telemetry_uci_backup.h"

// A literal message together with the place that names it: log lines carry the collector's function and line,
// not this helper's. Counts are the "%d" conversions that the text must hold, no other conversion is
// accepted; a text that breaks this does not compile.
template <int Counts> struct CollectorMessage {
    const char *text;
    const char *file;
    const char *function;
    int line;

    template <size_t N>
    consteval CollectorMessage(const char (&literal)[N], const char *at_file = __builtin_FILE(),
                               const char *at_function = __builtin_FUNCTION(), int at_line = __builtin_LINE())
        : text(literal), file(at_file), function(at_function), line(at_line) {
        int found = 0;
        for (size_t i = 0; i + 1 < N; i++) {
            if (literal[i] != '%')
                continue;
            if (literal[i + 1] != 'd')
                throw "a collector's message has no conversion but %d";
            found++;
        }
        if (found != Counts)
            throw "a collector's message has one %d for each number that it is given";
    }
};
using CollectorCountMessage = CollectorMessage<1>;
using CollectorPlainMessage = CollectorMessage<0>;

// --- A watched table: every row is reported when any of them changed ---

// Nothing when no row differs from what was last reported; otherwise all rows with a value go into `payload`,
// *count grows by one a member, and `success` is logged (debug) with the count. 0, or -1 without a
// payload or count.
int telemetry_collect_watched_rows(const TelemetryIndexEntry *table, int rows,
                                   const CollectorCountMessage &success, cJSON *payload, uint32_t *count);

// The same for an array:
//     return telemetry_collect_watched_table(kRows, "collect x info successfully, count is: %d!", payload,
//                                            count);
template <size_t Rows>
int telemetry_collect_watched_table(const TelemetryIndexEntry (&table)[Rows], CollectorCountMessage success,
                                    cJSON *payload, uint32_t *count) {
    return telemetry_collect_watched_rows(table, static_cast<int>(Rows), success, payload, count);
}

// --- The digest of a built object: reported as a block when its text changed ---

// 1 when `object` differs from the one last reported as package/name (and is now the recorded one); 0 with
// the message `unchanged` (debug) when it is the same, and 0 when the digest cannot be kept.
int telemetry_collect_digest_changed(const char *package, const char *name, const cJSON *object,
                                     CollectorPlainMessage unchanged);

// Adds `object` under `key` and `items` to *count when its digest changed; releases it otherwise. 0, or -1
// when it could not be added.
int telemetry_collect_changed_object(const char *package, const char *name, const char *key, JsonPtr object,
                                     uint32_t items, CollectorPlainMessage unchanged, cJSON *payload,
                                     uint32_t *count);

// --- Readings ---

// The whole number that a one-line file of a driver or the kernel begins with ("73124881932",
// "86400.27 9.1"). false, with one log line, when the file cannot be read or begins otherwise. `path` is the
// router's path.
bool telemetry_read_number_file(const char *path, uint64_t *number);

// The flag of an option of the system's configuration: true with *flag 1 or 0. false, with one log line, when
// it is missing or no word for either.
bool telemetry_read_flag(const char *package, const char *section, const char *option, int *flag);

// Adds a number under `key` and raises *count.
void telemetry_add_reading(cJSON *payload, const char *key, double number, uint32_t *count);

// --- Trees ---

// Hands `item` over to `object` under `key`, or to the end of `array`. false, with `item` released, when
// either is missing or memory ran out.
bool telemetry_attach_member(cJSON *object, const char *key, JsonPtr item);
bool telemetry_attach_element(cJSON *array, JsonPtr item);

// Moves every member of `from` to the end of `to`, in order; their number.
uint32_t telemetry_move_members(cJSON *from, cJSON *to);
