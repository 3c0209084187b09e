// "qos_info": bandwidth and mode, and how many devices and applications have priority, when they changed.
#include "collect/collector_patterns.h"
#include "collect/collectors.h"
#include "collect/setting_rows.h"
#include "telemetry_log.h"
#include "telemetry_uci.h"
#include "telemetry_utils.h"

static constexpr TelemetryIndexEntry kQosTable[] = {
    {0, "en", 3, TELEMETRY_UCI_SYSTEM, 0, "qos", "settings", "enable", TELEMETRY_VALUE_INT},
    {1, "ub", 3, TELEMETRY_UCI_SYSTEM, 0, "qos", "settings", "upload", TELEMETRY_VALUE_INT64},
    {2, "db", 3, TELEMETRY_UCI_SYSTEM, 0, "qos", "settings", "download", TELEMETRY_VALUE_INT64},
    {3, "um", 3, TELEMETRY_UCI_SYSTEM, 0, "qos", "settings", "mode", TELEMETRY_VALUE_STRING},
};

static constexpr SettingRow kPriorityRows[] = {
    {"pn", SETTING_SECTIONS, "qos", "device", nullptr, nullptr},
    {"an", SETTING_SECTIONS, "qos", "application", nullptr, nullptr},
};

int collect_qos_info(TelemetryCtx *, cJSON *payload, uint32_t *count) {
    if (payload == nullptr || count == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    telemetry_collect_watched_table(kQosTable, "collect qos info successfully, now data collect count is: %d!",
                                    payload, count);
    JsonPtr priorities(cJSON_CreateObject());
    if (!priorities) {
        LOG_ERROR("cJSON_CreateObject failed");
        return -1;
    }
    const uint32_t added = telemetry_add_settings(kPriorityRows, priorities.get());
    if (added == 0 ||
        telemetry_collect_digest_changed("qos", "priority", priorities.get(), "md5 same, don't collect!") == 0)
        return 0;
    *count += telemetry_move_members(priorities.get(), payload);
    return 0;
}
