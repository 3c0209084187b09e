#include "collect/setting_rows.h"

#include <cstring>

#include "telemetry_uci.h"
#include "telemetry_utils.h"

namespace {
struct SectionCount {
    const SettingRow *row;
    int number;
};
} // namespace

static bool is_switched_on(const char *text) {
    return strcmp(text, "on") == 0 || strcmp(text, "1") == 0 || strcmp(text, "true") == 0;
}

// Words that switch something on are one value.
static bool is_wanted(const char *value, const char *wanted) {
    return wanted == nullptr || strcmp(value, wanted) == 0 || (is_switched_on(value) && is_switched_on(wanted));
}

static int count_section(void *user, uci_context *uci, uci_element *element) {
    auto *count = static_cast<SectionCount *>(user);
    const SettingRow *row = count->row;
    uci_section *section = uci_to_section(element);
    if (strcmp(section->type, row->section) != 0)
        return 0;
    if (row->option != nullptr) {
        const char *value = uci_lookup_option_string(uci, section, row->option);
        if (value == nullptr || !is_wanted(value, row->value))
            return 0;
    }
    ++count->number;
    return 0;
}

static bool add_section_row(const SettingRow *row, cJSON *object) {
    SectionCount count = {row, 0};
    if (telemetry_traverse_config_section_and_do(row->package, count_section, &count) != 0)
        return false;
    const int value = row->kind == SETTING_ANY && count.number > 1 ? 1 : count.number;
    return cJSON_AddNumberToObject(object, row->key, value) != nullptr;
}

static bool add_option_row(const SettingRow *row, cJSON *object) {
    char text[128] = {};
    if (telemetry_get_uci_value(row->package, row->section, row->option, text, sizeof(text), TELEMETRY_UCI_SYSTEM) !=
        0)
        return false;
    if (row->kind == SETTING_FLAG)
        return cJSON_AddNumberToObject(object, row->key, is_switched_on(text) ? 1 : 0) != nullptr;
    const int type = row->kind == SETTING_INT ? TELEMETRY_VALUE_INT : TELEMETRY_VALUE_STRING;
    return telemetry_add_value_to_cJSON_object(object, row->key, text, type) == 0;
}

uint32_t telemetry_add_setting_rows(const SettingRow *rows, size_t count, cJSON *object) {
    uint32_t added = 0;
    for (const SettingRow *row = rows; row < rows + count; ++row) {
        const bool counts_sections = row->kind == SETTING_SECTIONS || row->kind == SETTING_ANY;
        if (counts_sections ? add_section_row(row, object) : add_option_row(row, object))
            ++added;
    }
    return added;
}
