#include "telemetry_links.h"

#include <cstring>
#include <string>

#include "telemetry_command.h"
#include "telemetry_handles.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_repeat.h"
#include "telemetry_uci.h"
#include "telemetry_uci_package.h"
#include "telemetry_utils.h"

struct BackhaulBand {
    const char *type;
    uint32_t util_band; // how the channel utilisation query names the band
};

static constexpr BackhaulBand kBackhaulBandTable[kBackhaulBands] = {
    {"2.4G", 2},
    {"5G", 3},
};

// A script that hung once is not asked again while the same ports are walked.
static bool port_script_hangs;

// Runs the port script; its first line as a number, or no value when it could not be run.
template <int Size> static bool run_port_script(const char *arguments, int *number) {
    if (port_script_hangs)
        return false;
    const std::string command = telemetry_path(kWirePortScript) + " " + arguments;
    const uint32_t killed = telemetry_commands_killed();
    char output[Size + 1] = {};
    const int result = shell_get_value(command.c_str(), output, Size);
    port_script_hangs = telemetry_commands_killed() != killed;
    if (result != 0)
        return false;
    *number = telemetry_text_to_int(output);
    return true;
}

int get_wan_port() {
    int port = -1;
    if (!run_port_script<16>("wan_num", &port)) {
        LOG_ERROR("shell_get_value wan_num fail.");
        return -1;
    }
    return port;
}

int telemetry_get_port_link_status(int port) {
    int linked = 0;
    const std::string arguments = "port_link_status " + std::to_string(port);
    return run_port_script<128>(arguments.c_str(), &linked) && linked != 0 ? 0 : -1;
}

int telemetry_get_port_speed(int port, int32_t *counter) {
    int speed = 0;
    const std::string arguments = "port_speed " + std::to_string(port);
    if (!run_port_script<128>(arguments.c_str(), &speed))
        return 0;
    if (speed > 0 && counter != nullptr)
        ++*counter;
    return speed;
}

// Number of an Ethernet port's section; false for every other section.
static bool read_port_section(uci_context *uci, uci_section *section, int *port) {
    const char *type = uci_lookup_option_string(uci, section, "type");
    if (type == nullptr || strncmp(type, "eth", strlen(type)) != 0)
        return false;
    const char *number = uci_lookup_option_string(uci, section, "port");
    if (number == nullptr)
        return false;
    *port = telemetry_text_to_int(number);
    return true;
}

int telemetry_collect_wired_port_num(int32_t *used, WiredPortInfo *ports, int capacity, int count_wan) {
    if (used == nullptr || ports == nullptr || capacity < 1) {
        LOG_ERROR("param error");
        return -1;
    }
    const TelemetryUciPtr uci = telemetry_uci_open(TELEMETRY_UCI_PROFILE, {});
    if (!uci)
        return -1;
    const LoadedPackage package(uci.get(), "interfaces");
    if (package.get() == nullptr) {
        uci_perror(uci.get(), "load profile");
        LOG_MISSING("uci load interface failed");
        return -1;
    }
    port_script_hangs = false;
    const int wan = count_wan != 0 ? get_wan_port() : -1;
    memset(ports, 0, sizeof(*ports) * static_cast<size_t>(capacity));
    int index = 0;
    int32_t in_use = 0;
    uci_element *element = nullptr;
    uci_foreach_element(&package.get()->sections, element) {
        int port = 0;
        if (!read_port_section(uci.get(), uci_to_section(element), &port))
            continue;
        if (index >= capacity) {
            LOG_ERROR("port count found exceeds the maximun allowed");
            break;
        }
        ports[index].port = port;
        if (count_wan != 0 && port == wan)
            ++in_use;
        else if (telemetry_get_port_link_status(port) == 0)
            ports[index].speed = telemetry_get_port_speed(port, &in_use);
        ++index;
    }
    port_script_hangs = false;
    *used = in_use;
    return 0;
}

// Each question that fails costs its own figure only: false when one did.
static bool collect_backhaul_slot(int band, BackhaulInfo *slot) {
    bool complete = true;
    copy_text(slot->backhaul_type, kBackhaulBandTable[band].type);
    if (wlan_get_sta_if_name(band, slot->ifname, sizeof(slot->ifname)) != 1) {
        LOG_ERROR("get RE backhual ifname failed");
        complete = false;
    }
    if (wlan_get_uplink_rate(slot->ifname, slot->stats, &slot->rssi) != 1) {
        LOG_ERROR("get uplink rate failed");
        complete = false;
    }
    uint32_t channel = 0;
    if (wlan_get_backhaul_ap_channel(static_cast<uint32_t>(band), &channel) == 1) {
        slot->channel = static_cast<int32_t>(channel);
    } else {
        LOG_ERROR("get backhual ap channel failed");
        complete = false;
    }
    if (wlan_get_channel_util(slot->ifname, &slot->chan_util, kBackhaulBandTable[band].util_band, 1) != 1) {
        LOG_ERROR("get channel util failed");
        complete = false;
    }
    return complete;
}

int telemetry_collect_backhaul_info(BackhaulInfo *slots) {
    if (slots == nullptr) {
        LOG_ERROR("params error");
        return -1;
    }
    int result = 0;
    for (int band = 0; band < telemetry_get_band_num(); ++band) {
        if (!collect_backhaul_slot(band, &slots[band]))
            result = -1;
    }
    return result;
}

int telemetry_collect_device_parent_mac(char *buffer) {
    if (buffer == nullptr) {
        LOG_ERROR("params error!");
        return -1;
    }
    const TextPtr text = telemetry_read_text(kWorkModePath, kListFileSize);
    if (text == nullptr) {
        LOG_ERROR("open file %s failed", kWorkModePath);
        return -1;
    }
    const JsonPtr root(cJSON_Parse(text.get()));
    if (!root) {
        LOG_ERROR("cJSON parse failed");
        return -1;
    }
    const char *mode = json_text(root.get(), "work_mode");
    if (mode == nullptr || strncmp("FAP", mode, strlen(mode)) == 0)
        return 0;
    const char *parent = json_text(root.get(), "parent_mac");
    char mac[kMacTextSize] = {};
    if (parent == nullptr || mac_to_upper_short_line(mac, parent) != 0)
        return -1;
    copy_text(buffer, sizeof(MeshDeviceInfo::parent_mac), mac);
    return 0;
}
