// "cloud_info": cloud heartbeats, firmware events, finished upgrades, automatic upgrade settings.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>

#include "cloud_info.h"
#include "collectors.h"
#include "telemetry_command.h"
#include "telemetry_handles.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_paths.h"
#include "telemetry_uci.h"
#include "telemetry_uci_backup.h"
#include "telemetry_uci_package.h"
#include "telemetry_utils.h"

static constexpr int kFirstLineSize = 128;
static constexpr int kMeshListLineSize = 16384;
static constexpr int kVersionSize = 128;

// What other programs leave once, in `telemetry_info`.
static constexpr TelemetryIndexEntry kCloudActionTable[] = {
    {0, "tsd", 3, TELEMETRY_UCI_SYSTEM, 1, "telemetry_info", "systime_info", "is_get_dstrule",
     TELEMETRY_VALUE_INT},
};

static constexpr TelemetryIndexEntry kFirmwareTable[] = {
    {0, "tcf", 3, TELEMETRY_UCI_SYSTEM, 1, "telemetry_info", "cloud_info", "is_find_fw", TELEMETRY_VALUE_INT},
    {1, "tcn", 3, TELEMETRY_UCI_SYSTEM, 1, "telemetry_info", "cloud_info", "is_new_fw", TELEMETRY_VALUE_INT},
    {2, "tcs", 3, TELEMETRY_UCI_SYSTEM, 1, "telemetry_info", "cloud_info", "start_timestamp",
     TELEMETRY_VALUE_INT64},
    {3, "tcd", 3, TELEMETRY_UCI_SYSTEM, 1, "telemetry_info", "cloud_info", "download_time",
     TELEMETRY_VALUE_DOUBLE},
    {4, "tcu", 3, TELEMETRY_UCI_SYSTEM, 1, "telemetry_info", "cloud_info", "is_upgrade", TELEMETRY_VALUE_INT},
};

// Settings, reported when they change.
static constexpr TelemetryIndexEntry kAutoUpgradeTable[] = {
    {0, "ase", 3, TELEMETRY_UCI_SYSTEM, 0, "auto_upgrade", "setting", "enable", TELEMETRY_VALUE_INT},
    {1, "atb", 3, TELEMETRY_UCI_SYSTEM, 0, "auto_upgrade", "time", "begin", TELEMETRY_VALUE_INT},
    {2, "ate", 3, TELEMETRY_UCI_SYSTEM, 0, "auto_upgrade", "time", "end", TELEMETRY_VALUE_INT},
};

template <size_t N> static constexpr int rows(const TelemetryIndexEntry (&)[N]) {
    return static_cast<int>(N);
}

// Without O_NONBLOCK a pipe that nobody writes to would hold the loop for ever.
static FilePtr open_file(const char *path, int flags, const char *mode) {
    const int fd = open(telemetry_path(path).c_str(), flags | O_NONBLOCK | O_CLOEXEC);
    FilePtr file(fd >= 0 ? fdopen(fd, mode) : nullptr);
    if (!file && fd >= 0) {
        telemetry_memory_refused_by_errno();
        close(fd);
    }
    return file;
}

// Of the last record: what the file was restarted from.
static int taken_timeouts;

// Adds it to what the cloud client has counted since.
static void give_back_timeouts() {
    if (taken_timeouts == 0)
        return;
    const TextPtr text = telemetry_read_text(kHeartbeatTimeoutPath, kFirstLineSize);
    const int since = text ? std::max(telemetry_text_to_int(text.get()), 0) : 0;
    const int all = static_cast<int>(std::min<int64_t>(int64_t{taken_timeouts} + since, INT32_MAX));
    if (telemetry_write_number_file(kHeartbeatTimeoutPath, all) != 0)
        LOG_ERROR("%d heartbeat time-outs could not be put back", taken_timeouts);
}

int telemetry_get_heartbeat_timeout_count_in_file(cJSON *payload, uint32_t *count) {
    if (payload == nullptr || count == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    if (!telemetry_file_exists(kHeartbeatTimeoutPath))
        return 0;
    const FilePtr file = open_file(kHeartbeatTimeoutPath, O_RDWR, "r+");
    if (!file) {
        LOG_ERROR("open file %s failed", kHeartbeatTimeoutPath);
        return -1;
    }
    char line[kFirstLineSize] = {};
    const char *text = fgets(line, sizeof(line), file.get());
    const int timeouts = text != nullptr ? telemetry_text_to_int(text) : 0;
    if (timeouts <= 0) {
        LOG_DEBUG("get heartbeat timeout count %d", timeouts);
        return 0;
    }
    if (cJSON_AddNumberToObject(payload, "tch", timeouts) == nullptr)
        return -1; // and the count stays
    ++*count;
    // The count restarts with its record: when that is given up, what was read is there again.
    taken_timeouts = 0;
    TelemetryUciScope::on_put_back(give_back_timeouts);
    rewind(file.get());
    if (fputs("0\n", file.get()) < 0 || fflush(file.get()) != 0)
        LOG_ERROR("reset of %s failed", kHeartbeatTimeoutPath);
    else
        taken_timeouts = timeouts;
    return 0;
}

// --- Versions ---

struct FirmwareVersion {
    int numbers[3];
};

// "major.minor.patch" and anything behind it; a number that is not there is 0.
static FirmwareVersion parse_version(const char *text) {
    FirmwareVersion version = {};
    sscanf(text, "%d.%d.%d%*s", &version.numbers[0], &version.numbers[1], &version.numbers[2]);
    return version;
}

int telemetry_compare_fwver(const char *current, const char *newer) {
    if (current == nullptr && newer == nullptr) {
        LOG_DEBUG("both fwver are nil, curFw_ver is same to newFw_ver");
        return 0;
    }
    if (current == nullptr) {
        LOG_DEBUG("cur_fwver is nil, newFw_ver is newer");
        return 1;
    }
    if (newer == nullptr) {
        LOG_DEBUG("newFw_ver is nil, curFw_ver is newer");
        return -1;
    }
    const FirmwareVersion a = parse_version(current);
    const FirmwareVersion b = parse_version(newer);
    LOG_DEBUG(" (curFw_ver, newFw_ver) == (%d.%d.%d, %d.%d.%d) ", a.numbers[0], a.numbers[1], a.numbers[2],
              b.numbers[0], b.numbers[1], b.numbers[2]);
    for (int i = 0; i < 3; ++i) {
        if (a.numbers[i] > b.numbers[i]) {
            LOG_DEBUG("curFw_ver is newer");
            return -1;
        }
        if (a.numbers[i] < b.numbers[i]) {
            LOG_DEBUG("newFw_ver is newer");
            return 1;
        }
    }
    LOG_DEBUG("curFw_ver is same to newFw_ver");
    return 0;
}

// --- Upgrades ---

int telemetry_update_upgrade_config(const char *node_id, const char *version) {
    if (node_id == nullptr || node_id[0] == '\0' || version == nullptr) {
        LOG_ERROR("param error");
        return 0;
    }
    char recorded[kVersionSize] = {};
    if (telemetry_get_uci_value("telemetry_info", node_id, "fwver", recorded, sizeof(recorded),
                                TELEMETRY_UCI_SYSTEM) != 0)
        return 0;
    if (telemetry_compare_fwver(recorded, version) != 1)
        return 0;
    LOG_DEBUG("the device upgrade successfully");
    TelemetryUciScope scope; // around it, the record's: without the record, the old version is there again
    if (!scope.put(TELEMETRY_UCI_SYSTEM, "telemetry_info", node_id, "fwver", version))
        return 1;
    TelemetryUciScope::commit(); // and what else waits, which may fail by itself
    if (!telemetry_uci_has_value(TelemetryUciScope::context(TELEMETRY_UCI_SYSTEM), "telemetry_info", node_id,
                                 "fwver", version))
        return 1;
    const char *const save[] = {"saveconfig", "user-config", nullptr};
    int status = 0;
    if (telemetry_command_run(save, kSaveLimitMs, nullptr, &status) != TELEMETRY_COMMAND_ENDED || status != 0)
        LOG_ERROR("saveconfig user-config failed");
    return 1;
}

int telemetry_check_device_upgrade(cJSON *payload, uint32_t *count) {
    if (payload == nullptr || count == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    const FilePtr file = open_file(kMeshDeviceListPath, O_RDONLY, "r");
    if (!file) {
        LOG_ERROR("can not open file: %s, wait first probe of sync", kMeshDeviceListPath);
        return -1;
    }
    std::string line(kMeshListLineSize, '\0');
    const char *text = fgets(line.data(), kMeshListLineSize, file.get());
    const JsonPtr nodes(text != nullptr ? cJSON_Parse(text) : nullptr);
    if (!nodes) {
        LOG_ERROR("can not parse cJSON");
        return -1;
    }
    int upgraded = 0;
    for (const cJSON *node = nodes->child; node != nullptr; node = node->next) {
        const char *version = json_text(node, "fw_version");
        if (node->string == nullptr || version == nullptr)
            continue;
        LOG_DEBUG("fwver of device %s is :%s", node->string, version);
        upgraded += telemetry_update_upgrade_config(node->string, version);
    }
    LOG_DEBUG("upgrade_dev_num:%d", upgraded);
    telemetry_add_value_to_cJSON_object(payload, "tus", upgraded > 0 ? "1" : "0", TELEMETRY_VALUE_INT);
    ++*count;
    return 0;
}

// --- Automatic upgrade ---

static void collect_auto_upgrade(cJSON *payload, uint32_t *count) {
    if (check_is_auto_upgrade_support() == 0 || telemetry_update_tmp_backup_config_by_telemetry_index(
                                                    kAutoUpgradeTable, rows(kAutoUpgradeTable)) == 0)
        return;
    const int enabled =
        telemetry_get_uci_enabled_value("auto_upgrade", "setting", "enable", TELEMETRY_UCI_SYSTEM);
    LOG_DEBUG("auto enable:%d!", enabled);
    if (enabled == 0) {
        telemetry_add_value_to_cJSON_object(payload, "ase", "0", TELEMETRY_VALUE_INT);
        ++*count;
        return;
    }
    telemetry_get_tmp_backup_config_cJSON_object_by_telemetry_index(kAutoUpgradeTable,
                                                                    rows(kAutoUpgradeTable), count, payload);
    LOG_DEBUG("collect auto fw info successfully, now now data collect count is: %d!",
              static_cast<int>(*count));
}

int collect_cloud_info(TelemetryCtx *, cJSON *payload, uint32_t *count) {
    if (payload == nullptr || count == nullptr) {
        LOG_ERROR("param error");
        return 0;
    }
    telemetry_get_heartbeat_timeout_count_in_file(payload, count);
    telemetry_get_duration_config_cJSON_object_by_telemetry_index(kCloudActionTable, rows(kCloudActionTable),
                                                                  count, payload);
    LOG_DEBUG("collect cloud action info successfully, now data collect count is: %d!",
              static_cast<int>(*count));
    // Read before the firmware table reports and clears it.
    const int upgrading =
        telemetry_get_uci_enabled_value("telemetry_info", "cloud_info", "is_upgrade", TELEMETRY_UCI_SYSTEM);
    LOG_DEBUG("is upgrade:%d!", upgrading);
    telemetry_get_duration_config_cJSON_object_by_telemetry_index(kFirmwareTable, rows(kFirmwareTable), count,
                                                                  payload);
    LOG_DEBUG("collect cloud fw info successfully, now data collect count is: %d!", static_cast<int>(*count));
    if (upgrading != 0) {
        LOG_DEBUG("some devices try to upgrade!");
        telemetry_check_device_upgrade(payload, count);
    }
    collect_auto_upgrade(payload, count);
    return 0;
}
