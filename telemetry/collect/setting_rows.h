// Settings of several packages gathered into one object by a table: switches, texts and numbers of sections.
#pragma once

#include <cstddef>
#include <cstdint>

#include <cjson/cJSON.h>

#include "collector_patterns.h"

enum SettingKind {
    SETTING_FLAG,     // option of a named section, a word that switches on (1) or off (0)
    SETTING_TEXT,     // option of a named section as it stands, at most 127 characters
    SETTING_SECTIONS, // number of sections of a type that meet every condition
    SETTING_ANY,      // 1 when that number is above 0, otherwise 0
};

enum SettingTest {
    SETTING_NO_TEST,
    SETTING_IS,            // the option has the value
    SETTING_IS_OR_DEFAULT, // the same, or it is not set
    SETTING_IN_USE,        // it is a list, or a text that switches nothing off
    SETTING_ON,            // it is a word that switches on
    SETTING_NOT_ON,        // it is none, or not set
    SETTING_NOT_OFF,       // it is no word that switches off, or not set
};

struct SettingCondition {
    SettingTest test = SETTING_NO_TEST;
    const char *option = nullptr;
    const char *value = nullptr; // of the two that compare
};

struct SettingRow {
    const char *key;
    SettingKind kind;
    const char *package;
    const char *section;                 // name, or type for the last two kinds
    const char *option = nullptr;        // first two kinds
    SettingCondition conditions[3] = {}; // last two kinds
};

// Builds an object with a member a row; a row whose option or package is missing, or whose flag is no word
// for either, is left out. When its digest differs from the one last reported as package/name, its members go
// to the end of `payload` and *count grows by their number; otherwise `unchanged` is logged (debug). 0, or -1
// when memory ran out.
int telemetry_collect_setting_rows(const SettingRow *rows, size_t row_count, const char *package,
                                   const char *name, CollectorPlainMessage unchanged, cJSON *payload,
                                   uint32_t *count);

template <size_t N>
int telemetry_collect_settings(const SettingRow (&rows)[N], const char *package, const char *name,
                               CollectorPlainMessage unchanged, cJSON *payload, uint32_t *count) {
    return telemetry_collect_setting_rows(rows, N, package, name, unchanged, payload, count);
}
