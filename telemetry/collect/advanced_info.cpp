// "advanced_info": VPN servers and client, and what is opened towards the internet, when it changed.
#include "collectors.h"
#include "setting_rows.h"
#include "telemetry_log.h"

static constexpr SettingRow kAdvancedRows[] = {
    {"ovs", SETTING_FLAG, "openvpn", "server", "enabled", nullptr},
    {"pps", SETTING_FLAG, "pptpd", "server", "enabled", nullptr},
    {"l2s", SETTING_FLAG, "l2tp", "server", "enabled", nullptr},
    {"ips", SETTING_FLAG, "ipsec", "server", "enabled", nullptr},
    {"wgs", SETTING_ANY, "network", "interface", "proto", "wireguard"},
    {"vc", SETTING_FLAG, "vpn", "client", "enabled", nullptr},
    {"vk", SETTING_TEXT, "vpn", "client", "kind", nullptr},
    {"vn", SETTING_SECTIONS, "vpn", "server", nullptr, nullptr},
    {"vd", SETTING_SECTIONS, "vpn", "device", nullptr, nullptr},
    {"pf", SETTING_SECTIONS, "firewall", "redirect", nullptr, nullptr},
    {"dm", SETTING_FLAG, "firewall", "dmz", "enabled", nullptr},
    {"up", SETTING_FLAG, "upnpd", "config", "enabled", nullptr},
    {"dd", SETTING_ANY, "ddns", "service", "enabled", "1"},
};

int collect_advanced_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count) {
    if (ctx == nullptr || payload == nullptr || count == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    if (ctx->collect_stgy2_now == 0) {
        LOG_DEBUG("dont need to collect advanced info!");
        return 0;
    }
    return telemetry_collect_settings(kAdvancedRows, "advanced", "settings", "md5 same, don't collect!",
                                      payload, count);
}
