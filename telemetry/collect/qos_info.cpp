// "qos_info": bandwidth and mode, and how many devices and applications have priority, when they changed.
#include "collector_patterns.h"
#include "collectors.h"
#include "setting_rows.h"
#include "telemetry_log.h"
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
    if (payload == nullptr || count == nullptr) { // before a change counts as reported
        LOG_ERROR("param error");
        return -1;
    }
    // First, so that its digest is committed with the table; its members come last.
    const JsonPtr priority(cJSON_CreateObject());
    uint32_t priority_count = 0;
    if (priority == nullptr ||
        telemetry_collect_settings(kPriorityRows, "qos", "priority", "md5 same, don't collect!",
                                   priority.get(), &priority_count) != 0)
        return -1;
    if (telemetry_collect_watched_table(
            kQosTable, "collect qos info successfully, now data collect count is: %d!", payload, count) != 0)
        return -1;
    *count += telemetry_move_members(priority.get(), payload);
    return 0;
}
