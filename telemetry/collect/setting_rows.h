// Settings of several packages gathered into one object by a table: switches, texts and numbers of sections.
#pragma once

#include <cstddef>
#include <cstdint>

#include <cjson/cJSON.h>

#include "collector_patterns.h"

enum SettingKind {
    SETTING_FLAG,     // option of a named section: 1 for "on", "1", "true", otherwise 0
    SETTING_TEXT,     // option of a named section as it stands, at most 127 characters
    SETTING_SECTIONS, // number of sections of a type; with an option only those that have it, with a value
                      // only those whose option has that value ("1" stands for the three words above)
    SETTING_ANY,      // 1 when that number is above 0, otherwise 0
};

struct SettingRow {
    const char *key;
    SettingKind kind;
    const char *package;
    const char *section; // name, or type for the last two kinds
    const char *option;  // may be null for the last two kinds
    const char *value;   // last two kinds; null: any value
};

// Builds an object with a member a row; a row whose option or package is missing is left out. When its digest
// differs from the one last reported as package/name, its members go to the end of `payload` and *count grows
// by their number; otherwise `unchanged` is logged (debug). 0, or -1 when memory ran out.
int telemetry_collect_setting_rows(const SettingRow *rows, size_t row_count, const char *package,
                                   const char *name, CollectorPlainMessage unchanged, cJSON *payload,
                                   uint32_t *count);

template <size_t N>
int telemetry_collect_settings(const SettingRow (&rows)[N], const char *package, const char *name,
                               CollectorPlainMessage unchanged, cJSON *payload, uint32_t *count) {
    return telemetry_collect_setting_rows(rows, N, package, name, unchanged, payload, count);
}
