// "advanced_info": VPN servers and client, and what is opened towards the internet, when it changed.
#include "collectors.h"
#include "setting_rows.h"
#include "telemetry_log.h"

static constexpr SettingRow kAdvancedRows[] = {
    {"ovs", SETTING_FLAG, "openvpn", "server", "enabled"},
    {"pps", SETTING_FLAG, "pptpd", "server", "enabled"},
    {"l2s", SETTING_FLAG, "l2tp", "server", "enabled"},
    {"ips", SETTING_FLAG, "ipsec", "server", "enabled"},
    {"wgs",
     SETTING_ANY,
     "network",
     "interface",
     nullptr,
     // A server waits at a port; a client has none.
     {{SETTING_IS, "proto", "wireguard"}, {SETTING_IN_USE, "listen_port"}, {SETTING_NOT_ON, "disabled"}}},
    {"vc", SETTING_FLAG, "vpn", "client", "enabled"},
    {"vk", SETTING_TEXT, "vpn", "client", "kind"},
    {"vn", SETTING_SECTIONS, "vpn", "server"},
    {"vd", SETTING_SECTIONS, "vpn", "device"},
    {"pf",
     SETTING_SECTIONS,
     "firewall",
     "redirect",
     nullptr,
     {{SETTING_IS_OR_DEFAULT, "target", "DNAT"}, {SETTING_NOT_OFF, "enabled"}}},
    {"dm", SETTING_FLAG, "firewall", "dmz", "enabled"},
    {"up", SETTING_FLAG, "upnpd", "config", "enabled"},
    {"dd", SETTING_ANY, "ddns", "service", nullptr, {{SETTING_ON, "enabled"}}},
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
