// "quicksetup_info": how the router was set up, when that changed.
#include "collector_patterns.h"
#include "collectors.h"
#include "telemetry_uci.h"
#include "telemetry_uci_backup.h"
#include "telemetry_utils.h"

static constexpr TelemetryIndexEntry kQuicksetupTable[] = {
    {0, "done", 3, TELEMETRY_UCI_SYSTEM, 0, "quicksetup", "quicksetup", "done", TELEMETRY_VALUE_INT},
    {1, "st", 3, TELEMETRY_UCI_SYSTEM, 0, "quicksetup", "quicksetup", "duration", TELEMETRY_VALUE_INT64},
    {2, "wt", 3, TELEMETRY_UCI_SYSTEM, 0, "quicksetup", "quicksetup", "wan_detection",
     TELEMETRY_VALUE_STRING},
    {3, "tz", 3, TELEMETRY_UCI_SYSTEM, 0, "system", "basic", "timezone", TELEMETRY_VALUE_STRING},
    {4, "lang", 3, TELEMETRY_UCI_SYSTEM, 0, "system", "basic", "language", TELEMETRY_VALUE_STRING},
    {5, "smart", 3, TELEMETRY_UCI_SYSTEM, 0, "quicksetup", "quicksetup", "smart_connect",
     TELEMETRY_VALUE_INT},
};

int collect_quicksetup_info(TelemetryCtx *, cJSON *payload, uint32_t *count) {
    return telemetry_collect_watched_table(
        kQuicksetupTable, "collect quicksetup info successfully, now data collect count is: %d!", payload,
        count);
}
