#include "setting_rows.h"

#include <cstring>

#include "telemetry_log.h"
#include "telemetry_uci.h"
#include "telemetry_utils.h"

// Room for a text, which is cut to it.
static constexpr int kTextSize = 128;

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
    return wanted == nullptr || strcmp(value, wanted) == 0 ||
           (is_switched_on(value) && is_switched_on(wanted));
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

static void add_section_row(const SettingRow *row, cJSON *object) {
    SectionCount count = {row, 0};
    if (telemetry_traverse_config_section_and_do(row->package, count_section, &count) != 0)
        return;
    const int value = row->kind == SETTING_ANY && count.number > 1 ? 1 : count.number;
    cJSON_AddNumberToObject(object, row->key, value);
}

static void add_option_row(const SettingRow *row, cJSON *object) {
    char text[kTextSize] = {};
    if (telemetry_get_uci_value(row->package, row->section, row->option, text, sizeof(text),
                                TELEMETRY_UCI_SYSTEM) != 0)
        return;
    if (row->kind == SETTING_FLAG)
        cJSON_AddNumberToObject(object, row->key, is_switched_on(text) ? 1 : 0);
    else
        cJSON_AddStringToObject(object, row->key, text);
}

static void add_row(const SettingRow *row, cJSON *object) {
    if (row->kind == SETTING_SECTIONS || row->kind == SETTING_ANY)
        add_section_row(row, object);
    else
        add_option_row(row, object);
}

int telemetry_collect_setting_rows(const SettingRow *rows, size_t row_count, const char *package,
                                   const char *name, CollectorPlainMessage unchanged, cJSON *payload,
                                   uint32_t *count) {
    JsonPtr settings(cJSON_CreateObject());
    if (!settings) {
        LOG_ERROR("cJSON_CreateObject failed");
        return -1;
    }
    for (const SettingRow *row = rows; row < rows + row_count; ++row)
        add_row(row, settings.get());
    if (settings->child == nullptr ||
        telemetry_collect_digest_changed(package, name, settings.get(), unchanged) == 0)
        return 0;
    *count += telemetry_move_members(settings.get(), payload);
    return 0;
}
