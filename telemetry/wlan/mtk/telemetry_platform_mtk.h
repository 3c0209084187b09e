// The MediaTek driver's private request and the operations built on it. Collectors use the generic entries of
// collect/wlan_platform.h; this header is for the operation table and the tests.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wlan_platform.h"

// The private request: SIOCIWFIRSTPRIV + 1. The sub-command travels in the block's flags.
inline constexpr unsigned long kMtkPrivateRequest = 0x8BE1;

enum MtkSubcommand : uint16_t {
    MTK_CHANNEL_UTIL = 0x7B0,
    MTK_STATION_TABLE = 0x7B1,
    MTK_AP_CHANNEL = 0x7B2,
    MTK_BANDWIDTH = 0x7B3,
    MTK_UPLINK_RATE = 0x7B4,
    MTK_DEVICE_TEMPERATURE = 0x9A1,
};

// Answers, as the driver lays them out.
struct MtkUplinkRecord {
    uint8_t mac[6]; // peer
    uint8_t reserved1[2];
    uint64_t tx;
    uint64_t rx;
    int8_t rssi; // dBm
    uint8_t reserved2[7];
};
static_assert(sizeof(MtkUplinkRecord) == 32 && offsetof(MtkUplinkRecord, rssi) == 24);

struct MtkStationEntry {
    uint8_t mac[6];
    uint8_t reserved1[2];
    uint64_t tx;
    uint64_t rx;
    uint8_t reserved2[2];
    uint16_t phymode;
    uint8_t reserved3[4];
};
static_assert(sizeof(MtkStationEntry) == 32 && offsetof(MtkStationEntry, phymode) == 26);

inline constexpr uint32_t kMtkStationRoom = 64;

struct MtkStationTable {
    uint16_t count;
    uint8_t reserved[6];
    MtkStationEntry stations[kMtkStationRoom];
};
static_assert(sizeof(MtkStationTable) == 2056 && offsetof(MtkStationTable, stations) == 8);

// All give 1 on success and 0 on failure, with the result untouched (but for the CPU temperature: -1.0).

// Chip temperature. `ifname` must be given and is not used: the driver has one sensor, asked through ra0.
int wlan_get_device_temperature_mtk(const char *ifname, double *temperature);
// First two characters of the thermal zone's file: whole degrees from 10 to 99.
int wlan_get_cpu_temperature_mtk(double *temperature);
int wlan_get_backhaul_ap_channel_mtk(uint32_t band, uint32_t *channel);
// Rates are cut to 16 bits; *rssi is dBm + 92 modulo 256. Both rates 0 is a success.
int wlan_get_uplink_rate_mtk(const char *ifname, BackhaulStats *stats, uint8_t *rssi);
// Band and flag are not used.
int wlan_get_channel_util_mtk(const char *ifname, uint8_t *util, uint32_t band, uint8_t flag);
int wlan_get_sta_if_name_mtk(int32_t band, char *name, int32_t size);
int wlan_get_band_if_name_mtk(int32_t band, int32_t network_type, char *name, int32_t size);
int wlan_get_wifi_bandwidth_mtk(uint32_t *bandwidth);
// Appends at list->stations[*count]. Entries beyond the driver's table, its answer or the list are cut.
int wlan_get_band_client_sta_info_mtk(const char *ifname, ClientStaList *list, uint32_t *count);

// Bandwidth code to MHz, 0 for an unknown one.
uint32_t fix_bandwidth(uint32_t code);
// The driver's phy mode to the reported code, 5 for an unknown one.
uint32_t fix_phymode(uint32_t phymode);
