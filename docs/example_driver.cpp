// Boards whose Wi-Fi firmware leaves its figures in files below /sys/kernel/acme.
#include <string>

#include "telemetry_log.h"
#include "telemetry_utils.h"
#include "wlan_platform.h"

static int read_figure(const std::string &path, int *value) {
    char text[32] = {};
    if (telemetry_parse_file(path.c_str(), text, sizeof(text)) != 0)
        return 0;
    *value = telemetry_text_to_int(text);
    return 1;
}

static int wlan_get_backhaul_ap_channel_acme(uint32_t band, uint32_t *channel) {
    int value = 0;
    if (read_figure("/sys/kernel/acme/radio" + std::to_string(band) + "/channel", &value) != 1 ||
        value <= 0) {
        LOG_ERROR("%s: no channel of band %u", __func__, band);
        return 0;
    }
    *channel = static_cast<uint32_t>(value);
    return 1;
}

// What the board cannot tell stays empty: its members are unknown or missing in the records.
const WlanPlatformOps wlan_platform_ops_acme = {
    .get_device_temperature = nullptr,
    .get_cpu_temperature = nullptr,
    .get_backhaul_ap_channel = wlan_get_backhaul_ap_channel_acme,
    .get_uplink_rate = nullptr,
    .get_channel_util = nullptr,
    .get_sta_if_name = nullptr,
    .get_band_if_name = nullptr,
    .get_wifi_bandwidth = nullptr,
    .reserved = nullptr,
    .get_band_client_sta_info = nullptr,
};
