// The Wi-Fi of a stock system, asked through the bus object `iwinfo` (methods devices, info, assoclist,
// survey). Which interface serves which band and network stands in package `wireless`: a section wifi-iface
// names its radio (option device), its role (mode: ap, sta) and its network (lan, guest, iot); the radio its
// band. The section's ifname, or the device with its ssid, role and band, is the interface.
#pragma once

#include "wlan_platform.h"

// All give 1 on success and 0 on failure, with the result untouched (but for the CPU temperature: -1.0).

// Sensor of the radio phyN for "wifiN", degrees Celsius.
int wlan_get_device_temperature_iwinfo(const char *ifname, double *temperature);
// The first thermal zone, whole degrees Celsius.
int wlan_get_cpu_temperature_iwinfo(double *temperature);
int wlan_get_backhaul_ap_channel_iwinfo(uint32_t band, uint32_t *channel);
int wlan_get_uplink_rate_iwinfo(const char *ifname, BackhaulStats *stats, uint8_t *rssi);
// Busy to active time of the interface's channel since the last look; at the first since the radio's start.
int wlan_get_channel_util_iwinfo(const char *ifname, uint8_t *util, uint32_t band, uint8_t flag);
int wlan_get_sta_if_name_iwinfo(int32_t band, char *name, int32_t size);
// A network that is not configured on the band has the empty name; it has no stations.
int wlan_get_band_if_name_iwinfo(int32_t band, int32_t network_type, char *name, int32_t size);
int wlan_get_wifi_bandwidth_iwinfo(uint32_t *bandwidth);
int wlan_get_band_client_sta_info_iwinfo(const char *ifname, ClientStaList *list, uint32_t *count);

// Forgets what was asked and measured: for tests.
void wlan_iwinfo_forget();
