// Settings of several packages gathered into one object by a table: switches, texts and numbers of sections.
#pragma once

#include <cstddef>
#include <cstdint>

#include <cjson/cJSON.h>

enum SettingKind {
    SETTING_FLAG,     // option of a named section: 1 for "on", "1", "true", otherwise 0
    SETTING_INT,      // option of a named section as an integer
    SETTING_TEXT,     // option of a named section as it stands
    SETTING_SECTIONS, // number of sections of a type; with an option only those that have it, with a value only those
                      // whose option has that value ("1" stands for the three words above)
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

// Adds a member a row to `object`; a row whose option or package is missing is left out. The number added.
uint32_t telemetry_add_setting_rows(const SettingRow *rows, size_t count, cJSON *object);

template <size_t N> uint32_t telemetry_add_settings(const SettingRow (&rows)[N], cJSON *object) {
    return telemetry_add_setting_rows(rows, N, object);
}
