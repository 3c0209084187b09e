#include "collector_patterns.h"

#include <charconv>
#include <cstring>
#include <string>
#include <utility>

#include "telemetry_log.h"
#include "telemetry_repeat.h"
#include "telemetry_utils.h"

int telemetry_collect_watched_rows(const TelemetryIndexEntry *table, int rows,
                                   const CollectorCountMessage &success, cJSON *payload, uint32_t *count) {
    if (payload == nullptr || count == nullptr) { // before the change counts as reported
        LOG_ERROR("param error");
        return -1;
    }
    if (telemetry_update_tmp_backup_config_by_telemetry_index(table, rows) == 0)
        return 0;
    telemetry_get_tmp_backup_config_cJSON_object_by_telemetry_index(table, rows, count, payload);
    if (telemetry_log_enabled(TELEMETRY_LOG_DEBUG))
        telemetry_log_write(TELEMETRY_LOG_DEBUG, success.file, success.function, success.line, success.text,
                            static_cast<int>(*count));
    return 0;
}

int telemetry_collect_digest_changed(const char *package, const char *name, const cJSON *object,
                                     CollectorPlainMessage unchanged) {
    if (telemetry_update_tmp_backup_config_md5(package, name, object) == 1)
        return 1;
    if (telemetry_log_enabled(TELEMETRY_LOG_DEBUG))
        telemetry_log_write(TELEMETRY_LOG_DEBUG, unchanged.file, unchanged.function, unchanged.line, "%s",
                            unchanged.text);
    return 0;
}

int telemetry_collect_changed_object(const char *package, const char *name, const char *key, JsonPtr object,
                                     uint32_t items, CollectorPlainMessage unchanged, cJSON *payload,
                                     uint32_t *count) {
    if (telemetry_collect_digest_changed(package, name, object.get(), unchanged) == 0)
        return 0;
    if (!telemetry_attach_member(payload, key, std::move(object)))
        return -1;
    *count += items;
    return 0;
}

bool telemetry_read_number_file(const char *path, uint64_t *number) {
    char text[64];
    if (telemetry_parse_file(path, text, sizeof(text)) != 0)
        return false;
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text, text + strlen(text), value);
    if (error != std::errc() || strchr("\n. ", *end) == nullptr) {
        LOG_ERROR("%s holds no number", path);
        return false;
    }
    *number = value;
    return true;
}

bool telemetry_read_flag(const char *package, const char *section, const char *option, int *flag) {
    char text[64] = {};
    if (telemetry_get_uci_value(package, section, option, text, sizeof(text), TELEMETRY_UCI_SYSTEM) != 0) {
        LOG_MISSING("no option %s.%s.%s", package, section, option);
        return false;
    }
    const int word = telemetry_flag_of_word(text);
    if (word < 0) {
        LOG_MISSING("%s.%s.%s is neither on nor off", package, section, option);
        return false;
    }
    *flag = word;
    return true;
}

void telemetry_add_reading(cJSON *payload, const char *key, double number, uint32_t *count) {
    if (cJSON_AddNumberToObject(payload, key, number) != nullptr)
        ++*count;
}

bool telemetry_attach_member(cJSON *object, const char *key, JsonPtr item) {
    if (!cJSON_AddItemToObject(object, key, item.get()))
        return false;
    static_cast<void>(item.release());
    return true;
}

bool telemetry_attach_element(cJSON *array, JsonPtr item) {
    if (!cJSON_AddItemToArray(array, item.get()))
        return false;
    static_cast<void>(item.release());
    return true;
}

uint32_t telemetry_move_members(cJSON *from, cJSON *to) {
    uint32_t moved = 0;
    while (from->child != nullptr) {
        JsonPtr item(cJSON_DetachItemViaPointer(from, from->child));
        const std::string key = item->string;
        if (telemetry_attach_member(to, key.c_str(), std::move(item)))
            ++moved;
    }
    return moved;
}
