// The status light: whether it is on, and the hours in which it stays dark. Reported on a change.
#include "collector_patterns.h"
#include "collectors.h"
#include "telemetry_utils.h"

static constexpr TelemetryIndexEntry kLedOptions[] = {
    {0, "en", 3, TELEMETRY_UCI_SYSTEM, 0, "led", "light", "enable", TELEMETRY_VALUE_INT},
    {1, "nb", 3, TELEMETRY_UCI_SYSTEM, 0, "led", "night", "begin", TELEMETRY_VALUE_INT},
    {2, "ne", 3, TELEMETRY_UCI_SYSTEM, 0, "led", "night", "end", TELEMETRY_VALUE_INT},
    {3, "co", 3, TELEMETRY_UCI_SYSTEM, 0, "led", "light", "colour", TELEMETRY_VALUE_STRING},
};

int collect_led_info(TelemetryCtx *, cJSON *payload, uint32_t *count) {
    return telemetry_collect_watched_table(
        kLedOptions, "collect led info successfully, now data collect count is: %d!", payload, count);
}
