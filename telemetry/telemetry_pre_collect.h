// The snapshot of the mesh that the collectors of one cycle share: its nodes and its clients.
#pragma once

#include <cstddef>
#include <cstdint>

#include "collect/wlan_platform.h"
#include "telemetry_ctx.h"

inline constexpr int kWiredPortCount = 16;
inline constexpr int kBackhaulSlots = 4;
inline constexpr int kBackhaulBands = 2;
// One pass over the access point interfaces asks every band for every network type.
inline constexpr int kStationBands = 2;
inline constexpr int kNetworkTypes = 4;
// Room for all that the driver can report in such a pass: 64 stations an interface.
inline constexpr uint32_t kStationCapacity = kStationBands * kNetworkTypes * 64;
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

// The holder. Topics of the snapshot write it; collectors use the accessors below.
extern PreCollectInfo telemetry_pre_collect;

// Builds the snapshot: devices, then clients. 0 when both succeeded, else -1 with whatever part could be had.
int telemetry_pre_collect_info(TelemetryCtx *ctx);
void telemetry_free_pre_collect_info();

// --- Devices (telemetry_pre_device.cpp) ---

int telemetry_pre_device_info(TelemetryCtx *ctx);
// Reads /tmp/sync-server/mesh_dev_list into a new array.
int telemetry_init_device_list_info_from_file();
// New zeroed array of n records, each with its four statistics blocks.
int telemetry_init_device_info_list(int n);
void telemetry_free_device_info_list();
int telemetry_get_hwversion_info_from_ctx(const TelemetryCtx *ctx);
// Hardware version from the firmware tool; `buffer` holds 65 characters.
int telemetry_get_hwversion_info_from_getfirm(char *buffer);
int telemetry_set_device_nickname(void *user, uci_context *uci, uci_element *section);
int telemetry_set_device_prefer(void *user, uci_context *uci, uci_element *section);
int telemetry_get_device_nickname();
int telemetry_get_device_prefer();
int telemetry_collect_fap_device_info();
int telemetry_collect_RE_device_info();
void telemetry_print_device_info();

MeshDeviceInfo *telemetry_get_device_info_list();
int telemetry_get_device_num();
// Address of the main node, null when the list has none.
const char *telemetry_get_fap_ipaddr();
// MAC of the node with that id (at most 64 characters compared), or null.
const char *telemetry_get_device_mac_by_id(const char *device_id);
// First node whose mac begins with the text (already in AA-BB-.. form), or null.
MeshDeviceInfo *telemetry_find_device_by_mac(const char *mac);
bool telemetry_is_mesh_network();
int telemetry_get_band_num();

// --- Clients (telemetry_pre_client.cpp and the files of its steps) ---

int telemetry_pre_clients_info();
void telemetry_free_client_info_list();
// First confirmed client whose mac begins with the converted text, or null.
PreClientInfo *get_telemetry_pre_client_info(const char *mac);
PreClientInfo *telemetry_get_client_info_list();
int telemetry_get_client_num();
int telemetry_get_myself_client_num_value();
void telemetry_print_client_info();
// First client, confirmed or not, whose mac begins with the text (already in AA-BB-.. form), or null.
PreClientInfo *telemetry_find_client_by_mac(const char *mac);

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

// --- Queries to satellites (telemetry_transfer.cpp) ---

enum TelemetryTransferOpcode : int32_t {
    TELEMETRY_TRANSFER_DEVICE = 50946,
    TELEMETRY_TRANSFER_CLIENT = 50947,
    TELEMETRY_TRANSFER_SYSTEM = 50948,
    TELEMETRY_TRANSFER_USB = 50949,
    TELEMETRY_TRANSFER_AFC = 50952,
};

// Applies one answer's "result" object.
using TelemetryTransferApply = void (*)(const cJSON *result, void *user);

// Calls object.method over a fresh connection, waiting up to 50 s: 0 or -1.
int ubus_client_call(const char *object, const char *method, blob_attr *arguments,
                     void (*reply)(blob_attr *message, void *user), void *user);
// Asks the satellites (and this node when include_myself) by opcode; `ip_ap_addr`, when given, goes into
// "params". Each answer's result is handed to `apply`. 0, or -1 when the call failed.
int telemetry_transfer_request(int32_t opcode, bool include_myself, const char *ip_ap_addr,
                               TelemetryTransferApply apply, void *user);
// Walks a combined reply ("success", "data") and applies each answer's result.
void telemetry_transfer_handle_reply(blob_attr *message, TelemetryTransferApply apply, void *user);
const cJSON *getTransferMsgReply(const cJSON *answer);
int telemetry_collect_re_backhaul_info(const char *fap_ipaddr);
int telemetry_get_re_client_sta_list();
void telemetry_apply_re_backhaul_result(const cJSON *result);
void parseClientStaInfoMsg(const cJSON *result);
void handle_ubus_call_from_re_backhaul_info(blob_attr *message, void *user);
void handle_ubus_call_from_re_client_sta_list(blob_attr *message, void *user);

// --- This node's links (telemetry_links.cpp) ---

// Wired ports of the board profile into ports[capacity]; *used is the number in use. With count_wan the WAN
// port counts as used, and its speed is not read.
int telemetry_collect_wired_port_num(int32_t *used, WiredPortInfo *ports, int capacity, int count_wan);
int get_wan_port();
// 0 with link, -1 without.
int telemetry_get_port_link_status(int port);
// Speed, and *counter + 1 when it is above 0.
int telemetry_get_port_speed(int port, int32_t *counter);
// Fills slots 0 and 1 of an array of kBackhaulSlots; every slot has its statistics block.
int telemetry_collect_backhaul_info(BackhaulInfo *slots);
// Parent's MAC on a satellite; `buffer` holds at least 18 characters and is untouched on the main node.
int telemetry_collect_device_parent_mac(char *buffer);
