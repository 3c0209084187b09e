#include "telemetry_satellites.h"

#include <cstring>

#include "telemetry_handles.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_snapshot.h"
#include "telemetry_transfer.h"
#include "telemetry_utils.h"

// --- The satellites themselves ---

// Copies a member's text into its field; what does not fit is cut and said.
template <size_t N> static void copy_member(char (&field)[N], const cJSON *object, const char *key) {
    const char *text = json_text(object, key);
    if (text == nullptr)
        return;
    if (strlen(text) >= N)
        LOG_ERROR("%s is longer than %zu characters, cut", key, N - 1);
    copy_text(field, text);
}

static void apply_ports(MeshDeviceInfo *device, const cJSON *ports) {
    int index = 0;
    for (const cJSON *entry = ports->child; entry != nullptr; entry = entry->next, ++index) {
        if (index >= kWiredPortCount) {
            LOG_ERROR("port_info has more than %d ports, cut", kWiredPortCount);
            return;
        }
        json_number(entry, "port_num", &device->wired_ports[index].port);
        json_number(entry, "port_speed", &device->wired_ports[index].speed);
    }
}

static void apply_backhaul(MeshDeviceInfo *device, const cJSON *links) {
    int index = 0;
    for (const cJSON *entry = links->child; entry != nullptr; entry = entry->next, ++index) {
        if (index >= kBackhaulSlots) {
            LOG_ERROR("backhaul_info has more than %d links, cut", kBackhaulSlots);
            break;
        }
        BackhaulInfo *slot = &device->backhaul[index];
        copy_member(slot->backhaul_type, entry, "backhaul_type");
        json_number(entry, "backhaul_rssi", &slot->rssi);
        json_number(entry, "backhaul_txrate", &slot->stats->tx);
        json_number(entry, "backhaul_rxrate", &slot->stats->rx);
        json_number(entry, "backhaul_channel", &slot->channel);
        json_number(entry, "backhaul_channle_util", &slot->chan_util);
    }
    device->band_num = index;
}

void telemetry_apply_re_backhaul_result(const cJSON *result) {
    if (result == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    const char *sender = json_text(result, "mac");
    char mac[kMacTextSize] = {};
    if (sender == nullptr || mac_to_upper_short_line(mac, sender) != 0)
        return;
    MeshDeviceInfo *device = telemetry_find_device_by_mac(mac);
    if (device == nullptr)
        return;
    json_number(result, "wired_port_used_num", &device->wire_port_num);
    const char *parent = json_text(result, "parent_mac");
    if (parent != nullptr && mac_to_upper_short_line(mac, parent) == 0)
        copy_text(device->parent_mac, mac);
    copy_member(device->ping_delay, result, "ping_delay");
    copy_member(device->hw_version, result, "hw_version");
    const cJSON *ports = cJSON_GetObjectItemCaseSensitive(result, "port_info");
    if (cJSON_IsArray(ports))
        apply_ports(device, ports);
    const cJSON *links = cJSON_GetObjectItemCaseSensitive(result, "backhaul_info");
    if (cJSON_IsArray(links))
        apply_backhaul(device, links);
}

static void apply_device_result(const cJSON *result, void *) {
    telemetry_apply_re_backhaul_result(result);
}

void handle_ubus_call_from_re_backhaul_info(blob_attr *message, void *user) {
    telemetry_transfer_handle_reply(message, apply_device_result, user);
}

int telemetry_collect_re_backhaul_info(const char *fap_ipaddr) {
    if (fap_ipaddr == nullptr) {
        LOG_ERROR("invalid input");
        return -1;
    }
    return telemetry_transfer_call(TELEMETRY_TRANSFER_DEVICE, true, fap_ipaddr,
                                   handle_ubus_call_from_re_backhaul_info, nullptr);
}

// --- Station details of the satellites' clients ---

// Empty entries of a list that have a line each.
static constexpr int kEmptyEntriesSaid = 16;

void parseClientStaInfoMsg(const cJSON *result) {
    if (telemetry_get_client_info_list() == nullptr) {
        LOG_ERROR("client info is NULL");
        return;
    }
    if (result == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    const cJSON *list = cJSON_GetObjectItemCaseSensitive(result, "client_sta_list");
    int empty = 0;
    for (const cJSON *entry = cJSON_IsArray(list) ? list->child : nullptr; entry != nullptr;
         entry = entry->next) {
        if (entry->child == nullptr) {
            // A list may have a hundred thousand of them.
            if (++empty <= kEmptyEntriesSaid)
                LOG_ERROR("pItem is NULL");
            continue;
        }
        const char *address = json_text(entry, "mac_addr");
        char mac[kMacTextSize] = {};
        if (address == nullptr || mac_to_upper_short_line(mac, address) != 0)
            continue;
        PreClientInfo *client = telemetry_find_client_by_mac(mac);
        if (client == nullptr)
            continue;
        json_number(entry, "pymode", &client->phymode);
        json_number(entry, "ng_rxrate", &client->rxrate);
        json_number(entry, "ng_txrate", &client->txrate);
    }
    if (empty > kEmptyEntriesSaid)
        LOG_ERROR("client_sta_list has %d empty entries", empty);
}

static void apply_client_result(const cJSON *result, void *) {
    parseClientStaInfoMsg(result);
}

void handle_ubus_call_from_re_client_sta_list(blob_attr *message, void *user) {
    telemetry_transfer_handle_reply(message, apply_client_result, user);
}

int telemetry_get_re_client_sta_list() {
    return telemetry_transfer_call(TELEMETRY_TRANSFER_CLIENT, false, nullptr,
                                   handle_ubus_call_from_re_client_sta_list, nullptr);
}
