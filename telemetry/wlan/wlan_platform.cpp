#include "wlan_platform.h"

#include <cstring>

#include "telemetry_log.h"
#include "telemetry_uci.h"

const WlanPlatformOps *wlan_platform_ops = &wlan_platform_ops_mtk;

// A row a driver; the first is the default.
static constexpr struct {
    const char *name;
    const WlanPlatformOps *ops;
} kDrivers[] = {
    {"mtk", &wlan_platform_ops_mtk},
    {"iwinfo", &wlan_platform_ops_iwinfo},
};

void wlan_load_driver() {
    char name[64] = {};
    wlan_platform_ops = kDrivers[0].ops;
    if (telemetry_get_uci_value("telemetry", "basic", "wlan_driver", name, sizeof(name),
                                TELEMETRY_UCI_SYSTEM) != 0)
        return;
    for (const auto &driver : kDrivers) {
        if (strcmp(driver.name, name) == 0) {
            wlan_platform_ops = driver.ops;
            return;
        }
    }
    LOG_ERROR("telemetry.basic.wlan_driver is no driver that is known: %.32s", name);
}

// Only the low byte of an operation's result counts: an operation that answers 256 has failed.
template <auto Slot, typename... Arguments> static int platform_call(Arguments... arguments) {
    if (wlan_platform_ops == nullptr || wlan_platform_ops->*Slot == nullptr)
        return 0;
    return static_cast<uint8_t>((wlan_platform_ops->*Slot)(arguments...)) != 0 ? 1 : 0;
}

int wlan_get_device_temperature(const char *ifname, double *temperature) {
    return platform_call<&WlanPlatformOps::get_device_temperature>(ifname, temperature);
}

int wlan_get_cpu_temperature(double *temperature) {
    return platform_call<&WlanPlatformOps::get_cpu_temperature>(temperature);
}

int wlan_get_backhaul_ap_channel(uint32_t band, uint32_t *channel) {
    return platform_call<&WlanPlatformOps::get_backhaul_ap_channel>(band, channel);
}

int wlan_get_uplink_rate(const char *ifname, BackhaulStats *stats, uint8_t *rssi) {
    return platform_call<&WlanPlatformOps::get_uplink_rate>(ifname, stats, rssi);
}

int wlan_get_channel_util(const char *ifname, uint8_t *util, uint32_t band, uint8_t flag) {
    return platform_call<&WlanPlatformOps::get_channel_util>(ifname, util, band, flag);
}

int wlan_get_sta_if_name(int32_t band, char *name, int32_t size) {
    return platform_call<&WlanPlatformOps::get_sta_if_name>(band, name, size);
}

int wlan_get_band_if_name(int32_t band, int32_t network_type, char *name, int32_t size) {
    return platform_call<&WlanPlatformOps::get_band_if_name>(band, network_type, name, size);
}

int wlan_get_wifi_bandwidth(uint32_t *bandwidth) {
    return platform_call<&WlanPlatformOps::get_wifi_bandwidth>(bandwidth);
}

int wlan_get_band_client_sta_info(const char *ifname, ClientStaList *list, uint32_t *count) {
    return platform_call<&WlanPlatformOps::get_band_client_sta_info>(ifname, list, count);
}
