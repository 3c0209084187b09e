#include "telemetry_uci_backup.h"

#include <cstring>
#include <string>
#include <vector>

#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_uci.h"
#include "telemetry_uci_package.h"
#include "telemetry_utils.h"

static constexpr char kBackupPackage[] = "telemetry";
static constexpr char kBackupSectionType[] = "config";
static constexpr char kConfigSectionType[] = "device";
static constexpr int kValueSize = 2048;
static constexpr int kDigestSize = 128;

static bool is_empty(const char *text) {
    return text == nullptr || text[0] == '\0';
}

static std::string backup_section(const char *package, const char *section) {
    return std::string(package) + "_" + section;
}

static bool is_whole(const TelemetryIndexEntry &row) {
    return !is_empty(row.package) && !is_empty(row.section) && !is_empty(row.option);
}

// Reads the row's live option into `live`, empty when the option is missing. False when the row is to be
// skipped.
static bool read_live_value(uci_context *uci, const TelemetryIndexEntry &row, char *live) {
    const int result =
        _telemetry_get_value_in_telemetry_config(uci, row.package, row.section, row.option, live, kValueSize);
    if (result == 0)
        return true;
    if (result == -3) {
        LOG_ERROR("get %s %s %s uci option failed!", row.package, row.section, row.option);
        live[0] = '\0';
        return true;
    }
    LOG_ERROR("get %s %s %s uci config failed!", row.package, row.section, row.option);
    return false;
}

// Empty when nothing is recorded.
static void read_recorded_value(uci_context *uci, const std::string &section, const char *option,
                                char *recorded) {
    recorded[0] = '\0';
    _telemetry_get_value_in_tmp_backup_config(uci, kBackupPackage, section.c_str(), option, recorded,
                                              kValueSize);
}

namespace {
struct ChangedValue {
    std::string section; // of the backup
    const char *option;
    std::string live;
};
} // namespace

// Puts the row's option into the backup when it differs from the recorded one; the scope's commit stores it.
static void update_row(uci_context *live_uci, uci_context *backup_uci, const TelemetryIndexEntry &row,
                       TelemetryUciScope *scope, std::vector<ChangedValue> *changed) {
    char live[kValueSize] = "";
    char recorded[kValueSize] = "";
    if (!is_whole(row)) {
        LOG_ERROR("param error");
        return;
    }
    if (!read_live_value(live_uci, row, live))
        return;
    const std::string section = backup_section(row.package, row.section);
    read_recorded_value(backup_uci, section, row.option, recorded);
    if (strncmp(live, recorded, kValueSize) == 0)
        return;
    LOG_DEBUG("%s %s %s config change!\nold %s\nnew %s", row.package, row.section, row.option, recorded,
              live);
    if (scope->put(TELEMETRY_UCI_BACKUP, kBackupPackage, section.c_str(), row.option, live,
                   kBackupSectionType))
        changed->push_back({section, row.option, live});
}

// Adds a row's value: texts of list types element by element.
static void add_row_value(const TelemetryIndexEntry &row, const char *value, uint32_t *count,
                          cJSON *payload) {
    if (row.value_type == TELEMETRY_VALUE_FLAG) {
        const int flag = telemetry_flag_of_word(value);
        if (flag < 0)
            LOG_ERROR("%s.%s.%s is neither on nor off", row.package, row.section, row.option);
        else if (cJSON_AddNumberToObject(payload, row.key, flag) != nullptr)
            *count += 1;
        return;
    }
    const bool is_list =
        row.value_type >= TELEMETRY_VALUE_LIST_INT && row.value_type <= TELEMETRY_VALUE_LIST_STRING;
    if (is_list)
        telemetry_add_value_list_to_cJSON_object(payload, row.key, value, kValueSize, row.value_type);
    else
        telemetry_add_value_to_cJSON_object(payload, row.key, value, row.value_type);
    *count += 1;
}

static bool is_table(const TelemetryIndexEntry *table, int rows) {
    return table != nullptr && rows > 0;
}

int _telemetry_get_value_in_tmp_backup_config(uci_context *uci, const char *package, const char *section,
                                              const char *option, char *buffer, int size) {
    if (!telemetry_uci_use_source(uci, TELEMETRY_UCI_BACKUP)) {
        LOG_ERROR("no memory for the directory of %s", kBackupConfigDir);
        return -1;
    }
    return uci_get_value(uci, package, section, option, buffer, size);
}

int _telemetry_set_value_in_tmp_backup_config_with_create(uci_context *uci, const char *package,
                                                          const char *section, const char *option,
                                                          const char *value) {
    if (!telemetry_uci_use_source(uci, TELEMETRY_UCI_BACKUP)) {
        LOG_ERROR("no memory for the directory of %s", kBackupConfigDir);
        return -1;
    }
    return uci_set_value_with_create(uci, package, section, option, value, kBackupSectionType, 1);
}

int telemetry_get_uci_value_in_tmp_backup_config(const char *package, const char *section, const char *option,
                                                 char *buffer, int size) {
    if (buffer == nullptr || size <= 0) {
        LOG_ERROR("param error");
        return -1;
    }
    const TelemetryUciPtr uci = telemetry_uci_open(TELEMETRY_UCI_BACKUP, {package, section, option});
    if (!uci)
        return -1;
    return _telemetry_get_value_in_tmp_backup_config(
        uci.get(), kBackupPackage, backup_section(package, section).c_str(), option, buffer, size);
}

int telemetry_set_uci_value_in_tmp_backup_config(const char *package, const char *section, const char *option,
                                                 const char *value) {
    if (value == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    const TelemetryUciPtr uci = telemetry_uci_open(TELEMETRY_UCI_BACKUP, {package, section, option});
    if (!uci)
        return -1;
    return _telemetry_set_value_in_tmp_backup_config_with_create(
        uci.get(), kBackupPackage, backup_section(package, section).c_str(), option, value);
}

int telemetry_update_tmp_backup_config_by_telemetry_index(const TelemetryIndexEntry *table, int rows) {
    if (!is_table(table, rows)) {
        LOG_ERROR("param error");
        return 0;
    }
    TelemetryUciScope scope;
    // Two contexts: neither ever meets the other's staged changes of a package of the same name.
    const TelemetryUciPtr live_uci = telemetry_uci_open(TELEMETRY_UCI_SYSTEM, {});
    const TelemetryUciPtr backup_uci = telemetry_uci_open(TELEMETRY_UCI_BACKUP, {});
    if (!live_uci || !backup_uci)
        return 0;
    std::vector<ChangedValue> changed;
    for (int i = 0; i < rows; i++) {
        if (table[i].source == TELEMETRY_UCI_SYSTEM)
            update_row(live_uci.get(), backup_uci.get(), table[i], &scope, &changed);
    }
    if (changed.empty() || scope.commit())
        return changed.empty() ? 0 : 1;
    // A value that could not be recorded is no change yet: what would be reported is the old one.
    for (const ChangedValue &value : changed) {
        if (telemetry_uci_has_value(backup_uci.get(), kBackupPackage, value.section.c_str(), value.option,
                                    value.live.c_str()))
            return 1;
    }
    return 0;
}

int telemetry_get_tmp_backup_config_cJSON_object_by_telemetry_index(const TelemetryIndexEntry *table,
                                                                    int rows, uint32_t *count,
                                                                    cJSON *payload) {
    if (!is_table(table, rows) || count == nullptr || payload == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    const TelemetryUciScope scope;
    for (int i = 0; i < rows; i++) {
        const TelemetryIndexEntry &row = table[i];
        char value[kValueSize] = "";
        if (telemetry_get_uci_value_in_tmp_backup_config(row.package, row.section, row.option, value,
                                                         kValueSize) != 0) {
            LOG_ERROR("get %s %s %s backup uci config failed!", row.package, row.section, row.option);
            continue;
        }
        add_row_value(row, value, count, payload);
    }
    return 0;
}

int telemetry_get_duration_config_cJSON_object_by_telemetry_index(const TelemetryIndexEntry *table, int rows,
                                                                  uint32_t *count, cJSON *payload) {
    if (!is_table(table, rows) || count == nullptr || payload == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    TelemetryUciScope scope;
    const TelemetryUciPtr uci = telemetry_uci_open(TELEMETRY_UCI_SYSTEM, {});
    if (!uci)
        return -1;
    for (int i = 0; i < rows; i++) {
        const TelemetryIndexEntry &row = table[i];
        if (row.source != TELEMETRY_UCI_SYSTEM)
            continue;
        char value[kValueSize] = "";
        if (_telemetry_get_value_in_telemetry_config(uci.get(), row.package, row.section, row.option, value,
                                                     kValueSize) != 0) {
            LOG_DEBUG("get %s %s %s uci config failed!", row.package, row.section, row.option);
            continue;
        }
        add_row_value(row, value, count, payload);
        LOG_DEBUG("clean up duration data after collecting!");
        scope.put(TELEMETRY_UCI_SYSTEM, row.package, row.section, row.option, "", kConfigSectionType);
    }
    return 0;
}

int telemetry_update_tmp_backup_config_md5(const char *package, const char *name, const cJSON *object) {
    if (is_empty(package) || is_empty(name) || object == nullptr) {
        LOG_ERROR("invalid input!");
        return 0;
    }
    size_t length = 0;
    const TextPtr text = telemetry_json_print(object, &length);
    if (!text) {
        LOG_ERROR("invalid cjson! format failed!");
        return 0;
    }
    char digest[33] = "";
    if (length > INT32_MAX || md5_encode_str(reinterpret_cast<const uint8_t *>(text.get()),
                                             static_cast<int32_t>(length), digest) != 0) {
        LOG_ERROR("md5 encoded failed!");
        return 0;
    }
    TelemetryUciScope scope;
    char recorded[kDigestSize] = "";
    if (telemetry_get_uci_value_in_tmp_backup_config(package, name, "md5", recorded, kDigestSize) == 0 &&
        strncmp(recorded, digest, kDigestSize) == 0)
        return 0;
    scope.put(TELEMETRY_UCI_BACKUP, kBackupPackage, backup_section(package, name).c_str(), "md5", digest,
              kBackupSectionType);
    return 1;
}

int telemetry_get_uci_value_by_telemetry_index(const TelemetryIndexEntry *row, char *buffer, int size) {
    if (row == nullptr || buffer == nullptr || size <= 0) {
        LOG_ERROR("param error");
        return -1;
    }
    int result = 0;
    if (telemetry_get_uci_value(row->package, row->section, row->option, buffer, size, row->source) != 0) {
        LOG_ERROR("telemetry_get_uci_value error");
        result = -1;
    }
    if (row->clear_after_read != 0 &&
        telemetry_set_uci_value(row->package, row->section, row->option, "", row->source) != 0) {
        LOG_ERROR("uci_set_value error");
        result = -1;
    }
    return result;
}
