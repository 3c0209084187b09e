// Questions to the Wi-Fi driver. Collectors call the generic wlan_get_* entries only; the table behind them
// holds the implementation for the board. Bands: 0 is 2.4 GHz, 1 is 5 GHz; a driver may know more and fails
// for those that it does not. Every entry gives 1 on success, 0 on failure or when the board has no such
// operation. Units are the records': rates in Mbit/s, signals as dBm + 92, widths in MHz, shares in percent,
// temperatures in degrees Celsius. Texts of interfaces have 15 characters at most.
#pragma once

#include <cstdint>

// One station of this node, as the driver reports it.
struct ClientStaInfo {
    uint8_t mac[6];
    uint8_t mld_mac[6]; // multi-link address; zero when the driver does not tell
    uint32_t phymode;   // the records' code, 5 for what the driver cannot name
    uint32_t rxrate;    // Mbit/s, of what the station sends
    uint32_t txrate;    // Mbit/s, of what it is sent
    uint8_t is_mlo;
};

// Stations of all interfaces of this node.
struct ClientStaList {
    uint8_t count;     // clients that the client management service reports for this node, kept in 8 bits
    uint32_t capacity; // entries behind `stations`
    ClientStaInfo *stations;
};

// Rates of one backhaul link, 12 bytes.
struct BackhaulStats {
    uint16_t tx;
    uint16_t rx;
    uint8_t mac[6]; // peer
    uint8_t reserved[2];
};
static_assert(sizeof(BackhaulStats) == 12);

struct WlanPlatformOps {
    int (*get_device_temperature)(const char *ifname, double *temperature);
    int (*get_cpu_temperature)(double *temperature);
    int (*get_backhaul_ap_channel)(uint32_t band, uint32_t *channel);
    int (*get_uplink_rate)(const char *ifname, BackhaulStats *stats, uint8_t *rssi);
    int (*get_channel_util)(const char *ifname, uint8_t *util, uint32_t band, uint8_t flag);
    int (*get_sta_if_name)(int32_t band, char *name, int32_t size);
    int (*get_band_if_name)(int32_t band, int32_t network_type, char *name, int32_t size);
    int (*get_wifi_bandwidth)(uint32_t *bandwidth);
    void (*reserved)(); // no operation on any board so far
    int (*get_band_client_sta_info)(const char *ifname, ClientStaList *list, uint32_t *count);
};

// The table in force.
extern const WlanPlatformOps *wlan_platform_ops;
// The MediaTek table (mtk/telemetry_platform_mtk.cpp).
extern const WlanPlatformOps wlan_platform_ops_mtk;
// The stock system's, over the bus (iwinfo/telemetry_platform_iwinfo.cpp).
extern const WlanPlatformOps wlan_platform_ops_iwinfo;

// Puts the table that option `telemetry`.`basic`.`wlan_driver` names into force: "mtk", also without the
// option, or "iwinfo". Another name costs a line and is mtk.
void wlan_load_driver();

// Temperature of the radio "wifi0" to "wifi2".
int wlan_get_device_temperature(const char *ifname, double *temperature);
// The CPU's, in whole degrees; -1.0 and 0 when it cannot be read.
int wlan_get_cpu_temperature(double *temperature);
// Channel of the radio's access point interface.
int wlan_get_backhaul_ap_channel(uint32_t band, uint32_t *channel);
// Rates in Mbit/s, peer and signal (dBm + 92, modulo 256) of an uplink interface.
int wlan_get_uplink_rate(const char *ifname, BackhaulStats *stats, uint8_t *rssi);
// Channel utilisation in percent.
int wlan_get_channel_util(const char *ifname, uint8_t *util, uint32_t band, uint8_t flag);
// Name of the station (uplink) interface; `size` of the buffer in bytes.
int wlan_get_sta_if_name(int32_t band, char *name, int32_t size);
// Name of an access point interface for network types 0, 1, 2.
int wlan_get_band_if_name(int32_t band, int32_t network_type, char *name, int32_t size);
// Channel width of the 5 GHz radio in MHz.
int wlan_get_wifi_bandwidth(uint32_t *bandwidth);
// Appends the interface's stations at index *count of the list and raises *count; entries beyond the list's
// capacity are cut with one log line.
int wlan_get_band_client_sta_info(const char *ifname, ClientStaList *list, uint32_t *count);
