#include "setting_rows.h"

#include <cstring>

#include "telemetry_log.h"
#include "telemetry_repeat.h"
#include "telemetry_uci.h"
#include "telemetry_uci_package.h"
#include "telemetry_utils.h"

// Room for a text, which is cut to it.
static constexpr int kTextSize = 128;

// Whether a section's option passes a row's test; null when it is not set.
static bool passes(const SettingCondition &condition, const uci_option *option) {
    const char *text = option != nullptr && option->type == UCI_TYPE_STRING ? option->v.string : nullptr;
    const int flag = text != nullptr ? telemetry_flag_of_word(text) : -1;
    switch (condition.test) {
    case SETTING_NO_TEST:
        return true;
    case SETTING_IS:
        return text != nullptr && strcmp(text, condition.value) == 0;
    case SETTING_IS_OR_DEFAULT:
        return option == nullptr || (text != nullptr && strcmp(text, condition.value) == 0);
    case SETTING_IN_USE:
        return option != nullptr && (text == nullptr || (*text != '\0' && flag != 0));
    case SETTING_ON:
        return flag == 1;
    case SETTING_NOT_ON:
        return flag != 1;
    case SETTING_NOT_OFF:
        return flag != 0;
    }
    return false;
}

static bool meets_conditions(uci_context *uci, uci_section *section, const SettingRow &row) {
    for (const SettingCondition &condition : row.conditions) {
        if (condition.test != SETTING_NO_TEST &&
            !passes(condition, uci_lookup_option(uci, section, condition.option)))
            return false;
    }
    return true;
}

static void add_section_row(const SettingRow *row, cJSON *object) {
    const TelemetryUciPtr uci = telemetry_uci_open(TELEMETRY_UCI_SYSTEM, {row->package});
    if (!uci)
        return;
    const LoadedPackage package(uci.get(), row->package);
    if (package.get() == nullptr) {
        LOG_MISSING("no package %s", row->package);
        return;
    }
    int number = 0;
    uci_element *element = nullptr;
    uci_foreach_element(&package.get()->sections, element) {
        uci_section *section = uci_to_section(element);
        if (strcmp(section->type, row->section) == 0 && meets_conditions(uci.get(), section, *row))
            ++number;
    }
    cJSON_AddNumberToObject(object, row->key, row->kind == SETTING_ANY && number > 1 ? 1 : number);
}

static void add_option_row(const SettingRow *row, cJSON *object) {
    if (row->kind == SETTING_FLAG) {
        int flag = 0;
        if (telemetry_read_flag(row->package, row->section, row->option, &flag))
            cJSON_AddNumberToObject(object, row->key, flag);
        return;
    }
    char text[kTextSize] = {};
    if (telemetry_get_uci_value(row->package, row->section, row->option, text, sizeof(text),
                                TELEMETRY_UCI_SYSTEM) == 0)
        cJSON_AddStringToObject(object, row->key, text);
    else
        LOG_MISSING("no option %s.%s.%s", row->package, row->section, row->option);
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
