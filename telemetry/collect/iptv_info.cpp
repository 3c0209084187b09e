// "iptv_info": IPTV settings, when they changed.
#include "collector_patterns.h"
#include "collectors.h"
#include "telemetry_uci.h"
#include "telemetry_uci_backup.h"
#include "telemetry_utils.h"

static constexpr TelemetryIndexEntry kIptvTable[] = {
    {0, "en", 3, TELEMETRY_UCI_SYSTEM, 0, "iptv", "iptv", "enable", TELEMETRY_VALUE_FLAG},
    {1, "md", 3, TELEMETRY_UCI_SYSTEM, 0, "iptv", "iptv", "mode", TELEMETRY_VALUE_STRING},
    {2, "ip", 3, TELEMETRY_UCI_SYSTEM, 0, "iptv", "iptv", "igmp_proxy", TELEMETRY_VALUE_FLAG},
    {3, "is", 3, TELEMETRY_UCI_SYSTEM, 0, "iptv", "iptv", "igmp_snooping", TELEMETRY_VALUE_FLAG},
    {4, "iv", 3, TELEMETRY_UCI_SYSTEM, 0, "iptv", "iptv", "igmp_version", TELEMETRY_VALUE_INT},
    {5, "vi", 3, TELEMETRY_UCI_SYSTEM, 0, "iptv", "vlan", "internet_id", TELEMETRY_VALUE_INT},
    {6, "vp", 3, TELEMETRY_UCI_SYSTEM, 0, "iptv", "vlan", "phone_id", TELEMETRY_VALUE_INT},
    {7, "vt", 3, TELEMETRY_UCI_SYSTEM, 0, "iptv", "vlan", "tv_id", TELEMETRY_VALUE_INT},
};

int collect_iptv_info(TelemetryCtx *, cJSON *payload, uint32_t *count) {
    return telemetry_collect_watched_table(
        kIptvTable, "collect iptv_el info successfully, data collect count is: %d!", payload, count);
}
