// The snapshot of the mesh that the collectors of one cycle share: its records, their holder, and how to find
// one.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wlan_platform.h"

inline constexpr int kWiredPortCount = 16;
inline constexpr int kBackhaulSlots = 4;
inline constexpr int kBackhaulBands = 2;
// Size of the buffers for the mesh device list, the satellites' client list and the work mode file.
inline constexpr size_t kListFileSize = 65536;

struct WiredPortInfo {
    int32_t port;  // number in the board profile
    int32_t speed; // in the port script's unit, 0 without link
};

struct BackhaulInfo {
    char ifname[16];
    uint8_t rssi; // dBm + 92
    int32_t channel;
    uint8_t chan_util; // percent
    char backhaul_type[23];
    BackhaulStats *stats; // owned, one for every slot
};

// One mesh node. Texts are terminated inside their fields but for device_id, which a key of 64 characters
// fills.
struct MeshDeviceInfo {
    char device_id[64];
    char ipaddr[16];
    char mac[18]; // AA-BB-CC-DD-EE-FF
    char device_model[64];
    char fw_version[64];
    char nickname[64];
    char prefer_connect_device_id[64];
    char hw_version[65];
    int32_t wire_port_num; // ports in use; -1 unknown
    char parent_mac[18];   // satellites
    char ping_delay[128];  // satellites: ms as text
    uint8_t is_fap;        // 1: the main node
    int32_t band_num;      // filled backhaul slots
    WiredPortInfo wired_ports[kWiredPortCount];
    BackhaulInfo backhaul[kBackhaulSlots];
};

// One client that the traffic statistics know.
struct PreClientInfo {
    char ap_mac[18]; // node that hosts it
    char hostname[64];
    char ipaddr[16];
    char mac[18]; // AA-BB-CC-DD-EE-FF: the key of all matching
    char mld_mac[18];
    uint8_t is_guest;
    uint8_t is_mlo;
    char wire_type[16];
    char connection_type[16];
    char device_id[128]; // node that it is attached to
    uint32_t signal_level_2g;
    uint32_t signal_level_5g;
    uint32_t client_type;
    uint32_t reserved;
    int64_t rerx_byte;
    int64_t retx_byte;
    uint32_t network_type;
    uint8_t is_iotdevice;
    const char *iot_module;   // constant text or null
    const char *iot_category; // constant text or null
    uint32_t phymode;         // -1 (4294967295) until known, like the rates
    uint32_t txrate;
    uint32_t rxrate;
    uint8_t is_exist; // 1: confirmed by the client management service or the satellites' file
};

struct PreCollectInfo {
    PreClientInfo *clients; // owned; null when absent
    int32_t client_num;
    MeshDeviceInfo *devices; // owned; null when absent
    int32_t device_num;
    uint64_t backhaul_num; // kBackhaulSlots once devices are there
    int32_t myself_client_num;
};

// The holder. The steps of the snapshot write it; collectors use the functions below.
extern PreCollectInfo telemetry_pre_collect;

// --- Devices ---

// New zeroed array of n records, each with its four statistics blocks: 0, or -1 with no array.
int telemetry_init_device_info_list(int n);
void telemetry_free_device_info_list();
MeshDeviceInfo *telemetry_get_device_info_list();
int telemetry_get_device_num();
// First main node, or null.
MeshDeviceInfo *telemetry_find_fap_device();
// Address of the main node, null when the list has none.
const char *telemetry_get_fap_ipaddr();
// MAC of the node with that id (at most 64 characters compared), or null.
const char *telemetry_get_device_mac_by_id(const char *device_id);
// First node whose mac begins with the text (already in AA-BB-.. form), or null.
MeshDeviceInfo *telemetry_find_device_by_mac(const char *mac);
bool telemetry_is_mesh_network();
int telemetry_get_band_num();

// --- Clients ---

void telemetry_free_client_info_list();
// Gives back what the functions below find clients with; the next one makes it anew.
void telemetry_forget_client_index();
PreClientInfo *telemetry_get_client_info_list();
int telemetry_get_client_num();
int telemetry_get_myself_client_num_value();
// First confirmed client whose mac begins with the converted text, or null.
PreClientInfo *get_telemetry_pre_client_info(const char *mac);
// First client, confirmed or not, whose mac begins with the text (already in AA-BB-.. form), or null.
PreClientInfo *telemetry_find_client_by_mac(const char *mac);
