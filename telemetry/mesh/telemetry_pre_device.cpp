// The device side of the snapshot: the mesh device list, completed from configuration, context and
// satellites.
#include "telemetry_pre_device.h"

#include <cstring>
#include <string>

#include "telemetry_handles.h"
#include "telemetry_json_read.h"
#include "telemetry_links.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_satellites.h"
#include "telemetry_snapshot.h"
#include "telemetry_uci.h"
#include "telemetry_utils.h"

// --- Reading the list ---

// Copies a member's text into its field; what does not fit is cut and said.
template <size_t N> static void copy_member(char (&field)[N], const cJSON *entry, const char *key) {
    const char *text = json_text(entry, key);
    if (text != nullptr && strlen(text) >= N)
        LOG_ERROR("%s of %.64s is longer than %zu characters, cut", key, entry->string, N - 1);
    copy_text(field, text);
}

static void fill_device_record(MeshDeviceInfo *device, const cJSON *entry) {
    // A key of 64 characters or more fills the field; everybody compares over at most 64.
    const size_t key_length = strnlen(entry->string, sizeof(device->device_id));
    memcpy(device->device_id, entry->string, key_length);
    const char *address = json_text(entry, "mac");
    char mac[kMacTextSize] = {};
    if (address != nullptr && mac_to_upper_short_line(mac, address) == 0)
        copy_text(device->mac, mac);
    copy_member(device->device_model, entry, "device_model");
    copy_member(device->fw_version, entry, "fw_version");
    copy_member(device->ipaddr, entry, "ip");
    const char *role = json_text(entry, "role");
    device->is_fap = role != nullptr && strcmp(role, "AP") == 0 ? 1 : 0;
    device->wire_port_num = -1;
}

int telemetry_init_device_list_info_from_file() {
    const TextPtr text = telemetry_read_text(kMeshDeviceListPath, kListFileSize);
    if (text == nullptr) {
        LOG_ERROR("open file %s failed", kMeshDeviceListPath);
        return -1;
    }
    const JsonPtr root(cJSON_Parse(text.get()));
    if (!root) {
        LOG_ERROR("cJSON parse failed");
        return -1;
    }
    const int n = cJSON_IsObject(root.get()) ? cJSON_GetArraySize(root.get()) : 0;
    if (n < 1 || telemetry_init_device_info_list(n) != 0) {
        LOG_ERROR("device info init failed");
        return -1;
    }
    MeshDeviceInfo *device = telemetry_pre_collect.devices;
    for (const cJSON *entry = root->child; entry != nullptr; entry = entry->next)
        fill_device_record(device++, entry);
    return 0;
}

// --- Completion ---

int telemetry_get_hwversion_info_from_ctx(const TelemetryCtx *ctx) {
    if (ctx == nullptr || telemetry_pre_collect.devices == nullptr || telemetry_pre_collect.device_num < 1) {
        LOG_ERROR("device info is NULL");
        return -1;
    }
    MeshDeviceInfo *device = telemetry_find_fap_device();
    if (device != nullptr)
        copy_text(device->hw_version, ctx->hw_version);
    return 0;
}

int telemetry_get_hwversion_info_from_getfirm(char *buffer) {
    if (buffer == nullptr) {
        LOG_ERROR("hwversion params error");
        return -1;
    }
    char version[66] = {};
    if (shell_get_value("getfirm HARDVERSION", version, 65) != 0) {
        LOG_ERROR("shell_get_value hw_version error");
        return -1;
    }
    copy_text(buffer, 65, version);
    return 0;
}

// First device whose id is a prefix of the section's name.
static MeshDeviceInfo *device_of_section(const char *section_name) {
    for (int i = 0; i < telemetry_get_device_num(); ++i) {
        MeshDeviceInfo *device = &telemetry_pre_collect.devices[i];
        const size_t length = strnlen(device->device_id, sizeof(device->device_id));
        if (strncmp(section_name, device->device_id, length) == 0)
            return device;
    }
    return nullptr;
}

// Copies a section's option into the 64-character field of the device that the section names.
static int set_device_option(uci_context *uci, uci_element *section, const char *option,
                             char (MeshDeviceInfo::*field)[64]) {
    if (uci == nullptr || section == nullptr) {
        LOG_ERROR("params error");
        return -1;
    }
    MeshDeviceInfo *device = device_of_section(section->name);
    if (device == nullptr)
        return -1;
    const char *value = uci_lookup_option_string(uci, uci_to_section(section), option);
    if (value == nullptr)
        return -1;
    if (strlen(value) >= sizeof(device->*field))
        LOG_ERROR("%s of %s is longer than 63 characters, cut", option, section->name);
    copy_text(device->*field, value);
    return 0;
}

int telemetry_set_device_nickname(void *, uci_context *uci, uci_element *section) {
    return set_device_option(uci, section, "nickname", &MeshDeviceInfo::nickname);
}

int telemetry_set_device_prefer(void *, uci_context *uci, uci_element *section) {
    return set_device_option(uci, section, "prefer_connect_device",
                             &MeshDeviceInfo::prefer_connect_device_id);
}

int telemetry_get_device_nickname() {
    return telemetry_traverse_config_section_and_do("bind_device_list", telemetry_set_device_nickname,
                                                    nullptr);
}

int telemetry_get_device_prefer() {
    return telemetry_traverse_config_section_and_do("device_prefer", telemetry_set_device_prefer, nullptr);
}

int telemetry_collect_fap_device_info() {
    MeshDeviceInfo *device = telemetry_find_fap_device();
    if (device == nullptr)
        return -1;
    // A board without a port profile keeps its other figures.
    telemetry_collect_wired_port_num(&device->wire_port_num, device->wired_ports, kWiredPortCount, 1);
    device->band_num = telemetry_get_band_num();
    return 0;
}

int telemetry_collect_RE_device_info() {
    const char *address = telemetry_get_fap_ipaddr();
    if (address == nullptr) {
        LOG_ERROR("get ap ip addr failed!");
        return -1;
    }
    return telemetry_collect_re_backhaul_info(address);
}

// --- Dump ---

static void print_backhaul_slot(const BackhaulInfo *slot, int index) {
    LOG_DEBUG("backhaul index:%d", index);
    LOG_DEBUG("ifname:%s", slot->ifname);
    LOG_DEBUG("rssi:%d", slot->rssi);
    LOG_DEBUG("channel:%d", slot->channel);
    LOG_DEBUG("chan_util:%d", slot->chan_util);
    LOG_DEBUG("backhaul_type:%s", slot->backhaul_type);
    LOG_DEBUG("tx:%d", slot->stats->tx);
    LOG_DEBUG("rx:%d", slot->stats->rx);
    LOG_DEBUG("backhaul index :%d", index);
}

static void print_device(const MeshDeviceInfo *device, int index) {
    LOG_DEBUG("device index : %d", index);
    LOG_DEBUG("device_id:%.64s", device->device_id);
    LOG_DEBUG("ipaddr:%s", device->ipaddr);
    LOG_DEBUG("mac:%s", device->mac);
    LOG_DEBUG("device_model:%s", device->device_model);
    LOG_DEBUG("fw_version:%s", device->fw_version);
    LOG_DEBUG("nickname:%s", device->nickname);
    LOG_DEBUG("prefer_connect_device_id:%s", device->prefer_connect_device_id);
    LOG_DEBUG("wire num port:%d", device->wire_port_num);
    if (device->is_fap != 1)
        LOG_DEBUG("parent_mac:%s", device->parent_mac);
    LOG_DEBUG("ping delay:%s", device->ping_delay);
    LOG_DEBUG("band num:%d", device->band_num);
    for (int slot = 0; slot < static_cast<int>(telemetry_pre_collect.backhaul_num); ++slot)
        print_backhaul_slot(&device->backhaul[slot], slot);
    for (const WiredPortInfo &port : device->wired_ports)
        LOG_DEBUG("wired port speed %d :%d", port.port, port.speed);
    LOG_DEBUG("device index:%d", index);
}

void telemetry_print_device_info() {
    if (telemetry_pre_collect.devices == nullptr || telemetry_pre_collect.device_num == 0) {
        LOG_DEBUG("no device list info");
        return;
    }
    for (int i = 0; i < telemetry_pre_collect.device_num; ++i)
        print_device(&telemetry_pre_collect.devices[i], i);
}

// --- The whole side ---

// The steps whose failure leaves no device list for the cycle: null, or what to say of the first that failed.
static const char *build_device_list(const TelemetryCtx *ctx) {
    if (telemetry_init_device_list_info_from_file() != 0)
        return "get mesh device list failed";
    if (telemetry_get_hwversion_info_from_ctx(ctx) != 0)
        return "get hwversion failed";
    if (telemetry_get_device_nickname() != 0)
        return "get vela nickname failed";
    if (telemetry_get_device_prefer() != 0)
        return "get vela prefer connect device info failed";
    if (telemetry_collect_fap_device_info() != 0)
        return "get fap info failed";
    return nullptr;
}

int telemetry_pre_device_info(TelemetryCtx *ctx) {
    if (ctx == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    telemetry_free_device_info_list();
    const char *failure = build_device_list(ctx);
    if (failure != nullptr) {
        LOG_ERROR("%s", failure);
        telemetry_free_device_info_list();
        return -1;
    }
    if (telemetry_is_mesh_network() && telemetry_collect_RE_device_info() != 0)
        LOG_ERROR("get RE info failed");
    if (telemetry_debug_level == TELEMETRY_LOG_DEBUG)
        telemetry_print_device_info();
    return 0;
}
