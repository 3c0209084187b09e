// "qos_info": bandwidth and mode, and how many devices and applications have priority, when they changed.
#include "collector_patterns.h"
#include "collectors.h"
#include "setting_rows.h"
#include "telemetry_uci.h"
#include "telemetry_uci_backup.h"
#include "telemetry_utils.h"

static constexpr TelemetryIndexEntry kQosTable[] = {
    {0, "en", 3, TELEMETRY_UCI_SYSTEM, 0, "qos", "settings", "enable", TELEMETRY_VALUE_FLAG},
    {1, "ub", 3, TELEMETRY_UCI_SYSTEM, 0, "qos", "settings", "upload", TELEMETRY_VALUE_INT64},
    {2, "db", 3, TELEMETRY_UCI_SYSTEM, 0, "qos", "settings", "download", TELEMETRY_VALUE_INT64},
    {3, "um", 3, TELEMETRY_UCI_SYSTEM, 0, "qos", "settings", "mode", TELEMETRY_VALUE_STRING},
};

static constexpr SettingRow kPriorityRows[] = {
    {"pn", SETTING_SECTIONS, "qos", "device"},
    {"an", SETTING_SECTIONS, "qos", "application"},
};

int collect_qos_info(TelemetryCtx *, cJSON *payload, uint32_t *count) {
    if (telemetry_collect_watched_table(
            kQosTable, "collect qos info successfully, now data collect count is: %d!", payload, count) != 0)
        return -1;
    return telemetry_collect_settings(kPriorityRows, "qos", "priority", "md5 same, don't collect!", payload,
                                      count);
}
