// "ecomode_info": eco mode settings, when they changed, on boards that have the feature.
#include "collector_patterns.h"
#include "collectors.h"
#include "telemetry_uci.h"
#include "telemetry_uci_backup.h"
#include "telemetry_utils.h"

static constexpr TelemetryIndexEntry kEcoModeTable[] = {
    {0, "en", 3, TELEMETRY_UCI_SYSTEM, 0, "eco_mode", "settings", "enable", TELEMETRY_VALUE_FLAG},
    {1, "md", 3, TELEMETRY_UCI_SYSTEM, 0, "eco_mode", "settings", "mode", TELEMETRY_VALUE_STRING},
    {2, "sb", 3, TELEMETRY_UCI_SYSTEM, 0, "eco_mode", "schedule", "begin", TELEMETRY_VALUE_INT},
    {3, "se", 3, TELEMETRY_UCI_SYSTEM, 0, "eco_mode", "schedule", "end", TELEMETRY_VALUE_INT},
    {4, "sd", 3, TELEMETRY_UCI_SYSTEM, 0, "eco_mode", "schedule", "days", TELEMETRY_VALUE_LIST_STRING},
    {5, "lw", 3, TELEMETRY_UCI_SYSTEM, 0, "eco_mode", "settings", "low_power_wifi", TELEMETRY_VALUE_FLAG},
};

int collect_ecomode_info(TelemetryCtx *, cJSON *payload, uint32_t *count) {
    if (check_is_eco_mode_support() == 0)
        return 0;
    return telemetry_collect_watched_table(
        kEcoModeTable, "collect ecomode info successfully, now data collect count is: %d!", payload, count);
}
