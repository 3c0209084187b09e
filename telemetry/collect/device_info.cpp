// "device_info": every mesh node's versions, names, wired ports, parent and backhaul.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "collector_patterns.h"
#include "collectors.h"
#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_snapshot.h"
#include "telemetry_utils.h"

// The node's preferred uplink; nothing when it prefers none or one that the mesh does not have.
static void add_preferred_uplink(cJSON *entry, const MeshDeviceInfo *device) {
    if (device->prefer_connect_device_id[0] == '\0')
        return;
    const char *mac = telemetry_get_device_mac_by_id(device->prefer_connect_device_id);
    if (mac != nullptr)
        telemetry_add_mac_md5_to_cJSON_object(entry, "pcd", mac);
}

static void add_uplink(cJSON *entry, const MeshDeviceInfo *device) {
    if (device->parent_mac[0] == '\0' ||
        telemetry_add_mac_md5_to_cJSON_object(entry, "pm", device->parent_mac) != 0)
        cJSON_AddStringToObject(entry, "pm", "");
    // A satellite's text; "inf" and "nan" are no numbers to JSON.
    const double delay = device->ping_delay[0] != '\0' ? strtod(device->ping_delay, nullptr) : -1;
    cJSON_AddNumberToObject(entry, "ddl", std::isfinite(delay) ? delay : -1);
}

static int lan_ports_in_use(const MeshDeviceInfo *device) {
    // The main node's WAN port always counts as in use.
    const int ports = std::max(device->wire_port_num, 0);
    return device->is_fap == 1 && ports > 0 ? ports - 1 : ports;
}

static bool add_wired_ports(cJSON *entry, const MeshDeviceInfo *device) {
    const int in_use = lan_ports_in_use(device);
    cJSON_AddNumberToObject(entry, "lpn", in_use);
    if (in_use < 1)
        return true;
    cJSON *speeds = cJSON_AddObjectToObject(entry, "lps");
    if (speeds == nullptr)
        return false;
    for (const WiredPortInfo &port : device->wired_ports) {
        char key[16];
        if (port.speed <= 0)
            continue;
        snprintf(key, sizeof(key), "p%d", port.port);
        cJSON_AddNumberToObject(speeds, key, port.speed);
    }
    return true;
}

static JsonPtr build_backhaul(const MeshDeviceInfo *device) {
    JsonPtr links(cJSON_CreateArray());
    if (!links) {
        LOG_ERROR("cJSON_CreateArray failed");
        return nullptr;
    }
    for (int i = 0; i < std::min(device->band_num, kBackhaulSlots); ++i) {
        const BackhaulInfo *slot = &device->backhaul[i];
        JsonPtr link(cJSON_CreateObject());
        if (!link) {
            LOG_ERROR("cJSON_CreateObject failed");
            return nullptr;
        }
        if (slot->backhaul_type[0] != '\0')
            cJSON_AddStringToObject(link.get(), "bt", slot->backhaul_type);
        else
            cJSON_AddNullToObject(link.get(), "bt");
        cJSON_AddNumberToObject(link.get(), "ri", slot->rssi);
        cJSON_AddNumberToObject(link.get(), "btx", slot->stats->tx);
        cJSON_AddNumberToObject(link.get(), "brx", slot->stats->rx);
        cJSON_AddNumberToObject(link.get(), "bc", slot->channel);
        cJSON_AddNumberToObject(link.get(), "cu", slot->chan_util);
        cJSON_AddItemToArray(links.get(), link.release());
    }
    return links;
}

static JsonPtr build_device_entry(const MeshDeviceInfo *device) {
    JsonPtr entry(cJSON_CreateObject());
    if (!entry) {
        LOG_ERROR("cJSON_CreateObject failed");
        return nullptr;
    }
    if (telemetry_add_mac_md5_to_cJSON_object(entry.get(), "dm", device->mac) != 0) {
        LOG_ERROR("cJSON_Add Mac Md5 failed");
        return nullptr;
    }
    cJSON_AddStringToObject(entry.get(), "dmodel", device->device_model);
    cJSON_AddStringToObject(entry.get(), "fw", device->fw_version);
    cJSON_AddStringToObject(entry.get(), "hv", device->hw_version);
    cJSON_AddStringToObject(entry.get(), "dnk", device->nickname);
    add_preferred_uplink(entry.get(), device);
    cJSON_AddNumberToObject(entry.get(), "wpn", device->wire_port_num);
    if (device->is_fap != 1)
        add_uplink(entry.get(), device);
    if (!add_wired_ports(entry.get(), device)) {
        LOG_ERROR("cJSON_CreateObject failed");
        return nullptr;
    }
    if (device->is_fap == 1)
        return entry;
    JsonPtr links = build_backhaul(device);
    return links && telemetry_attach_member(entry.get(), "bh", std::move(links)) ? std::move(entry) : nullptr;
}

static int telemetry_add_collected_device_info(cJSON *payload, uint32_t *count) {
    const MeshDeviceInfo *devices = telemetry_get_device_info_list();
    const int device_num = telemetry_get_device_num();
    if (devices == nullptr) {
        LOG_ERROR("no device info!");
        return -1;
    }
    LOG_DEBUG("get pre device info start device num is %d", device_num);
    JsonPtr list(cJSON_CreateArray());
    if (!list) {
        LOG_ERROR("cJSON_CreateArray failed");
        return -1;
    }
    for (int i = 0; i < device_num; ++i) {
        JsonPtr entry = build_device_entry(&devices[i]);
        if (!entry)
            return -1;
        cJSON_AddItemToArray(list.get(), entry.release());
    }
    cJSON_AddNumberToObject(payload, "dn", device_num);
    if (!telemetry_attach_member(payload, "dl", std::move(list)))
        return -1;
    *count += static_cast<uint32_t>(device_num);
    return 0;
}

int collect_device_list(TelemetryCtx *ctx, cJSON *payload, uint32_t *count) {
    if (ctx == nullptr || payload == nullptr || count == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    if (ctx->collect_stgy2_now == 0) {
        LOG_DEBUG("dont need to collect client info!");
        return 0;
    }
    if (telemetry_add_collected_device_info(payload, count) != 0) {
        LOG_ERROR("add collected device info error");
        return -1;
    }
    return 0;
}
