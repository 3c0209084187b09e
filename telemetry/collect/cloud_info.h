// Steps of the cloud collector. Members that a step adds raise *count by 1 each.
#pragma once

#include <cstdint>

#include <cjson/cJSON.h>

// Heartbeat time-outs since the last report, from /tmp/cloud_heartbeat_timeout_count; the file restarts at 0
// then. 0, or -1 when the file exists but cannot be opened.
int telemetry_get_heartbeat_timeout_count_in_file(cJSON *payload, uint32_t *count);
// Whether a node of the mesh device list finished an upgrade since the last check. 0, or -1 without a list.
int telemetry_check_device_upgrade(cJSON *payload, uint32_t *count);
// 1 when the node's recorded firmware version (`telemetry_info`.<node>.`fwver`) is older; the new one is then
// recorded.
int telemetry_update_upgrade_config(const char *node_id, const char *version);
// 1 when the second version is newer, -1 when the first is, 0 when major, minor and patch are equal.
int telemetry_compare_fwver(const char *current, const char *newer);
