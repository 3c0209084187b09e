// The client side of the snapshot and its steps (telemetry_pre_client_service.cpp, ..._iot.cpp,
// ..._station.cpp).
#pragma once

#include "telemetry_snapshot.h"

// One pass over the access point interfaces asks every band for every network type.
inline constexpr int kStationBands = 2;
inline constexpr int kNetworkTypes = 4;
// Room for all that the driver can report in such a pass: 64 stations an interface.
inline constexpr uint32_t kStationCapacity = kStationBands * kNetworkTypes * 64;

int telemetry_pre_clients_info();
void telemetry_print_client_info();

// Steps of telemetry_pre_clients_info.
int telemetry_get_client_list_from_tfstats();
int telemetry_complete_ap_client_list_info();
int telemetry_complete_re_client_list_info();
int telemetry_complete_device_type_info();
int telemetry_identify_iot_device_from_client_list();
int identify_iot_client_in_iot_module(PreClientInfo *client, const char *package, const char *module);
int telemetry_get_client_host_ap_mac_from_sync_server();
int telemetry_get_client_sta_list();
// Counts the entries of client_mgmt "get_myself" into *count: 0, or -1.
int telemetry_get_myself_client_num(int32_t *count);
// Appends the stations of every access point interface; *found is their number, each station once. -1 when a
// name or a query failed; what was gathered counts all the same.
int telemetry_get_client_sta_info(ClientStaList *list, uint32_t *found);
