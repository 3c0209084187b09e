#include "telemetry_platform_mtk.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <linux/wireless.h>
#include <memory>
#include <new>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_repeat.h"
#include "telemetry_utils.h"

static_assert(kMtkPrivateRequest == SIOCIWFIRSTPRIV + 1);

// One kind of question. The messages take the operation's name; a text without "%s" ignores it.
struct MtkRequest {
    uint16_t subcommand;
    uint16_t length; // of the answer, bytes
    const char *socket_error;
    const char *ioctl_error;
};

static constexpr MtkRequest kDeviceTemperature = {MTK_DEVICE_TEMPERATURE, sizeof(int32_t),
                                                  "%s: create socket error", "%s: ioctl error"};
static constexpr MtkRequest kChannelUtil = {MTK_CHANNEL_UTIL, 1, "create socket error", "%s: ioctl error"};
static constexpr MtkRequest kStationTable = {MTK_STATION_TABLE, sizeof(MtkStationTable),
                                             "%s: creat socket failed", "%s: ioctl failed."};
static constexpr MtkRequest kApChannel = {MTK_AP_CHANNEL, 1, "%s: create socket error", "%s: ioctl error"};
static constexpr MtkRequest kBandwidth = {MTK_BANDWIDTH, 1, "%s: create socket error", "%s: ioctl error"};
static constexpr MtkRequest kUplinkRate = {MTK_UPLINK_RATE, sizeof(MtkUplinkRecord),
                                           "%s: creat socket failed", "%s: ioctl failed."};

// Puts one question to the driver of `ifname` for `operation`; the answer goes to `answer` (request.length
// bytes, zeroed by the caller). Not every driver tells the answer's length, so it is not looked at.
static bool driver_request(const MtkRequest &request, const char *operation, const char *ifname,
                           void *answer) {
    const FdHandle fd(socket(AF_INET, SOCK_DGRAM, 0));
    if (!fd.valid()) {
        LOG_ERROR(request.socket_error, operation);
        return false;
    }
    iwreq block;
    memset(&block, 0, sizeof(block));
    copy_text(block.ifr_name, ifname);
    block.u.data.pointer = answer;
    block.u.data.length = request.length;
    block.u.data.flags = request.subcommand;
    if (ioctl(fd.get(), kMtkPrivateRequest, &block) < 0) {
        LOG_ERROR(request.ioctl_error, operation);
        return false;
    }
    return true;
}

uint32_t fix_bandwidth(uint32_t code) {
    static constexpr uint32_t kMegahertz[] = {20, 40, 80, 160};
    if (code < std::size(kMegahertz))
        return kMegahertz[code];
    if (code == 4)
        LOG_ERROR("%s %d Error bandwidth", __func__, __LINE__);
    return 0;
}

uint32_t fix_phymode(uint32_t phymode) {
    static constexpr uint32_t kReported[] = {3, 0, 1, 2, 6};
    if (phymode < std::size(kReported))
        return kReported[phymode];
    LOG_ERROR("%s %d Error phymode", __func__, __LINE__);
    return 5;
}

int wlan_get_device_temperature_mtk(const char *ifname, double *temperature) {
    if (ifname == nullptr || temperature == nullptr) {
        LOG_ERROR("%s: invalid input!", __func__);
        return 0;
    }
    const std::unique_ptr<int32_t> answer(new (std::nothrow) int32_t(0));
    if (answer == nullptr) {
        LOG_ERROR("%s %d alloc fail", __func__, __LINE__);
        return 0;
    }
    if (!driver_request(kDeviceTemperature, __func__, "ra0", answer.get()))
        return 0;
    *temperature = *answer;
    LOG_DEBUG("%s %d: temperature = %d", __func__, __LINE__, *answer);
    return 1;
}

int wlan_get_cpu_temperature_mtk(double *temperature) {
    if (temperature == nullptr) {
        LOG_ERROR("%s: invalid input!", __func__);
        return 0;
    }
    char text[32] = {};
    if (telemetry_parse_file(kThermalZonePath, text, sizeof(text)) != 0) {
        LOG_ERROR("open file %s failed", kThermalZonePath);
        *temperature = -1.0;
        return 0;
    }
    // The file tells thousandths of a degree; two characters are whole degrees from 10 to 99.
    text[2] = '\0';
    *temperature = telemetry_text_to_int(text);
    LOG_DEBUG("%s %d: temperature = %d", __func__, __LINE__, static_cast<int>(*temperature));
    return 1;
}

int wlan_get_backhaul_ap_channel_mtk(uint32_t band, uint32_t *channel) {
    if (channel == nullptr) {
        LOG_ERROR("%s: invalid input!", __func__);
        return 0;
    }
    char ifname[IFNAMSIZ] = {};
    if (band == 0) {
        snprintf(ifname, sizeof(ifname), "ra%1d", 0);
    } else if (band == 1) {
        snprintf(ifname, sizeof(ifname), "rax%1d", 0);
    } else {
        LOG_ERROR("%s Error band : %d", __func__, static_cast<int>(band));
        return 0;
    }
    uint8_t answer = 0;
    if (!driver_request(kApChannel, __func__, ifname, &answer))
        return 0;
    *channel = answer;
    LOG_DEBUG("%s %d: ifname = %s, channel = %d", __func__, __LINE__, ifname, answer);
    return 1;
}

int wlan_get_uplink_rate_mtk(const char *ifname, BackhaulStats *stats, uint8_t *rssi) {
    if (ifname == nullptr || stats == nullptr || rssi == nullptr) {
        LOG_ERROR("%s: invalid input!", __func__);
        return 0;
    }
    MtkUplinkRecord rate = {};
    if (!driver_request(kUplinkRate, __func__, ifname, &rate))
        return 0;
    if (rate.tx == 0 && rate.rx == 0)
        LOG_DEBUG("%s %d: ifname = %s, driver get rate fail!!!", __func__, __LINE__, ifname);
    memcpy(stats->mac, rate.mac, sizeof(stats->mac));
    stats->tx = static_cast<uint16_t>(rate.tx);
    stats->rx = static_cast<uint16_t>(rate.rx);
    *rssi = static_cast<uint8_t>(rate.rssi + 92);
    LOG_DEBUG("%s %d: ifname = %s, rate->tx = %lu, rate->rx = %lu, rssi = %d ", __func__, __LINE__, ifname,
              static_cast<unsigned long>(rate.tx), static_cast<unsigned long>(rate.rx), rate.rssi);
    return 1;
}

int wlan_get_channel_util_mtk(const char *ifname, uint8_t *util, uint32_t, uint8_t) {
    if (ifname == nullptr || util == nullptr) {
        LOG_ERROR("%s: invalid input!", __func__);
        return 0;
    }
    if (!driver_request(kChannelUtil, __func__, ifname, util))
        return 0;
    LOG_DEBUG("%s %d: ifname = %s, chan_util = %d", __func__, __LINE__, ifname, *util);
    return 1;
}

int wlan_get_sta_if_name_mtk(int32_t band, char *name, int32_t size) {
    if (name == nullptr || size <= 0) {
        LOG_ERROR("%s invalid input", __func__);
        return 0;
    }
    static constexpr const char *kNames[] = {"apcli0", "apclix0"};
    if (band != 0 && band != 1) {
        LOG_ERROR("%s %d Error band : %d", __func__, __LINE__, band);
        return 0;
    }
    copy_text(name, static_cast<size_t>(size), kNames[band]);
    return 1;
}

int wlan_get_band_if_name_mtk(int32_t band, int32_t network_type, char *name, int32_t size) {
    if (name == nullptr || size <= 0) {
        LOG_ERROR("%s: invalid input!", __func__);
        return 0;
    }
    if (band != 0 && band != 1) {
        LOG_ERROR("%s %d Error band : %d", __func__, __LINE__, band);
        return 0;
    }
    static constexpr int kNumberOfType[] = {2, 4, 5};
    if (network_type < 0 || network_type >= static_cast<int32_t>(std::size(kNumberOfType))) {
        LOG_ERROR("%s %d Error network_type : %d", __func__, __LINE__, network_type);
        return 0;
    }
    const int number = kNumberOfType[network_type];
    if (band == 0)
        snprintf(name, static_cast<size_t>(size), "ra%1d", number);
    else
        snprintf(name, static_cast<size_t>(size), "rax%1d", number);
    return 1;
}

int wlan_get_wifi_bandwidth_mtk(uint32_t *bandwidth) {
    if (bandwidth == nullptr) {
        LOG_ERROR("%s: invalid input!", __func__);
        return 0;
    }
    static constexpr char kInterface[] = "rax0";
    uint8_t code = 0;
    if (!driver_request(kBandwidth, __func__, kInterface, &code))
        return 0;
    *bandwidth = fix_bandwidth(code);
    LOG_DEBUG("%s %d: ifname = %s, bandwidth = %d", __func__, __LINE__, kInterface,
              static_cast<int>(*bandwidth));
    return 1;
}

// Stations of an answer that can be kept: the smallest of the driver's count, its table's size, and the room
// of the list behind `used` entries.
static uint32_t station_room(const MtkStationTable &table, const ClientStaList &list, uint32_t used) {
    const uint32_t room = list.stations != nullptr && list.capacity > used ? list.capacity - used : 0;
    return std::min({static_cast<uint32_t>(table.count), kMtkStationRoom, room});
}

int wlan_get_band_client_sta_info_mtk(const char *ifname, ClientStaList *list, uint32_t *count) {
    if (ifname == nullptr || list == nullptr || count == nullptr) {
        LOG_ERROR("%s: invalid input!", __func__);
        return 0;
    }
    const std::unique_ptr<MtkStationTable> table(new (std::nothrow) MtkStationTable{});
    if (table == nullptr) {
        LOG_ERROR("%s %d alloc fail", __func__, __LINE__);
        return 0;
    }
    if (!driver_request(kStationTable, __func__, ifname, table.get()))
        return 0;
    const uint32_t kept = station_room(*table, *list, *count);
    if (kept < table->count)
        LOG_ERROR("%s: ifname = %s, the driver tells %d stations, kept %u", __func__, ifname, table->count,
                  kept);
    for (uint32_t i = 0; i < kept; i++) {
        const MtkStationEntry &station = table->stations[i];
        const uint8_t *mac = station.mac;
        LOG_DEBUG(
            "%s %d: ifname = %s, txrate = %lu, rxrate = %lu, pymode = %d, mac=%02x:%02x:%02x:%02x:%02x:%02x ",
            __func__, __LINE__, ifname, static_cast<unsigned long>(station.tx),
            static_cast<unsigned long>(station.rx), station.phymode, mac[0], mac[1], mac[2], mac[3], mac[4],
            mac[5]);
        if (station.tx == 0)
            LOG_MISSING("driver get rate fail!!!");
        ClientStaInfo &entry = list->stations[*count + i];
        memcpy(entry.mac, mac, sizeof(entry.mac));
        entry.txrate = static_cast<uint32_t>(station.tx);
        entry.rxrate = static_cast<uint32_t>(station.rx);
        entry.phymode = fix_phymode(station.phymode);
    }
    *count += kept;
    return 1;
}

const WlanPlatformOps wlan_platform_ops_mtk = {
    .get_device_temperature = wlan_get_device_temperature_mtk,
    .get_cpu_temperature = wlan_get_cpu_temperature_mtk,
    .get_backhaul_ap_channel = wlan_get_backhaul_ap_channel_mtk,
    .get_uplink_rate = wlan_get_uplink_rate_mtk,
    .get_channel_util = wlan_get_channel_util_mtk,
    .get_sta_if_name = wlan_get_sta_if_name_mtk,
    .get_band_if_name = wlan_get_band_if_name_mtk,
    .get_wifi_bandwidth = wlan_get_wifi_bandwidth_mtk,
    .reserved = nullptr,
    .get_band_client_sta_info = wlan_get_band_client_sta_info_mtk,
};
