// The collectors of the module table. Each follows the contract of TelemetryCollector (telemetry_collect.h):
// it adds members to the payload, sets the count, returns 0 on success, and reports nothing by leaving the
// count at 0.
#pragma once

#include "telemetry_collect.h"

// Every mesh node's load, memory, temperatures (system_info.cpp). Runs on periodic cycles.
int collect_system_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
// Every confirmed client of the mesh (client_info.cpp). Runs on periodic cycles. The entries of "cl" are
// texts in the tree (cJSON_Raw), which print as objects.
int collect_client_list(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
// Every mesh node's links (device_info.cpp). Runs on strategy-2 cycles.
int collect_device_list(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
// Settings of the three wireless networks, when they changed (wireless_info.cpp).
int collect_wireless_host_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
int collect_wireless_guest_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
int collect_wireless_iot_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
// Cloud and firmware events, automatic upgrade settings (cloud_info.cpp).
int collect_cloud_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
// WAN connection and counters (internet_info.cpp).
int collect_internet_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
// Eco mode settings (ecomode_info.cpp).
int collect_ecomode_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
// IPTV settings (iptv_info.cpp).
int collect_iptv_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
// Bandwidth and priorities (qos_info.cpp).
int collect_qos_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
// How the router was set up (quicksetup_info.cpp).
int collect_quicksetup_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
// VPN and NAT settings (advanced_info.cpp). Runs on strategy-2 cycles.
int collect_advanced_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
// Restarts of router and daemon (restart_info.cpp). Runs on strategy-2 cycles.
int collect_restart_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
// USB devices of every node (usb_info.cpp).
int collect_usb_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
// 6 GHz AFC state of every node (afc_info.cpp). Runs on strategy-2 cycles.
int collect_afc_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
// Security suite (havenguard_info.cpp). Runs on strategy-2 cycles.
int collect_havenguard_v2_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);
