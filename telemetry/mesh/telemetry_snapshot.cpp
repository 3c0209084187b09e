#include "telemetry_snapshot.h"

#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unordered_map>

#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_utils.h"

PreCollectInfo telemetry_pre_collect;

// --- Devices ---

void telemetry_free_device_info_list() {
    PreCollectInfo *info = &telemetry_pre_collect;
    for (int i = 0; info->devices != nullptr && i < info->device_num; ++i) {
        for (BackhaulInfo &slot : info->devices[i].backhaul)
            free(slot.stats);
    }
    free(info->devices);
    info->devices = nullptr;
    info->device_num = 0;
}

static bool allocate_backhaul_stats(MeshDeviceInfo *device) {
    for (BackhaulInfo &slot : device->backhaul) {
        slot.stats = telemetry_zeroed<BackhaulStats>(1);
        if (slot.stats == nullptr)
            return false;
    }
    return true;
}

int telemetry_init_device_info_list(int n) {
    PreCollectInfo *info = &telemetry_pre_collect;
    telemetry_free_device_info_list();
    if (n < 1)
        return -1;
    info->devices = telemetry_zeroed<MeshDeviceInfo>(static_cast<size_t>(n));
    if (info->devices == nullptr) {
        LOG_ERROR("malloc failed!");
        return -1;
    }
    info->device_num = n;
    info->backhaul_num = kBackhaulSlots;
    for (int i = 0; i < n; ++i) {
        if (!allocate_backhaul_stats(&info->devices[i])) {
            LOG_ERROR("malloc failed!");
            telemetry_free_device_info_list();
            return -1;
        }
    }
    return 0;
}

MeshDeviceInfo *telemetry_get_device_info_list() {
    return telemetry_pre_collect.devices;
}

int telemetry_get_device_num() {
    return telemetry_pre_collect.device_num;
}

MeshDeviceInfo *telemetry_find_fap_device() {
    for (int i = 0; i < telemetry_get_device_num(); ++i) {
        if (telemetry_pre_collect.devices[i].is_fap == 1)
            return &telemetry_pre_collect.devices[i];
    }
    return nullptr;
}

const char *telemetry_get_fap_ipaddr() {
    const MeshDeviceInfo *device = telemetry_find_fap_device();
    return device != nullptr ? device->ipaddr : nullptr;
}

const char *telemetry_get_device_mac_by_id(const char *device_id) {
    if (device_id == nullptr) {
        LOG_ERROR("param error");
        return nullptr;
    }
    for (int i = 0; i < telemetry_pre_collect.device_num; ++i) {
        const MeshDeviceInfo *device = &telemetry_pre_collect.devices[i];
        if (strncmp(device->device_id, device_id, sizeof(device->device_id)) == 0)
            return device->mac;
    }
    return nullptr;
}

MeshDeviceInfo *telemetry_find_device_by_mac(const char *mac) {
    if (mac == nullptr) {
        LOG_ERROR("param error");
        return nullptr;
    }
    const size_t length = strlen(mac);
    // An empty text is no address, though every text begins with it.
    for (int i = 0; length > 0 && i < telemetry_pre_collect.device_num; ++i) {
        if (strncmp(telemetry_pre_collect.devices[i].mac, mac, length) == 0)
            return &telemetry_pre_collect.devices[i];
    }
    return nullptr;
}

bool telemetry_is_mesh_network() {
    return telemetry_pre_collect.device_num > 1;
}

int telemetry_get_band_num() {
    return kBackhaulBands;
}

// --- Clients ---

// Index of the first record of each MAC. A complete text finds its record here; a shorter one, which matches
// by prefix, walks the array. Cleared with the array, built at the first lookup.
using MacIndex = std::unordered_map<std::string_view, int32_t>;

static MacIndex &mac_index() {
    static MacIndex index;
    return index;
}

static constexpr size_t kFullMacLength = 17;

static void build_mac_index() {
    auto &index = mac_index();
    index.reserve(static_cast<size_t>(telemetry_pre_collect.client_num));
    for (int32_t i = 0; i < telemetry_pre_collect.client_num; ++i)
        index.emplace(telemetry_pre_collect.clients[i].mac, i);
}

// First record whose mac begins with the text, among the confirmed ones when asked. An empty text is no
// address, and one longer than every record's matches none.
static PreClientInfo *find_client(std::string_view mac, bool confirmed) {
    PreCollectInfo *info = &telemetry_pre_collect;
    if (info->clients == nullptr || mac.empty() || mac.size() > kFullMacLength)
        return nullptr;
    int32_t first = 0;
    if (mac.size() == kFullMacLength) {
        if (mac_index().empty())
            build_mac_index();
        const auto found = mac_index().find(mac);
        if (found == mac_index().end())
            return nullptr;
        first = found->second;
    }
    for (int32_t i = first; i < info->client_num; ++i) {
        PreClientInfo *client = &info->clients[i];
        if (strncmp(client->mac, mac.data(), mac.size()) == 0 && (!confirmed || client->is_exist != 0))
            return client;
    }
    return nullptr;
}

PreClientInfo *telemetry_find_client_by_mac(const char *mac) {
    if (mac == nullptr) {
        LOG_ERROR("param error");
        return nullptr;
    }
    return find_client(mac, false);
}

PreClientInfo *get_telemetry_pre_client_info(const char *mac) {
    if (mac == nullptr) {
        LOG_ERROR("params is NULL");
        return nullptr;
    }
    if (telemetry_pre_collect.client_num == 0) {
        LOG_ERROR("clients num is 0");
        return nullptr;
    }
    if (telemetry_pre_collect.clients == nullptr) {
        LOG_ERROR("pre client info is NULL");
        return nullptr;
    }
    char converted[kMacTextSize] = {};
    if (mac_to_upper_short_line(converted, mac) != 0)
        return nullptr;
    return find_client(converted, true);
}

void telemetry_forget_client_index() {
    mac_index() = MacIndex(); // with its table
}

void telemetry_free_client_info_list() {
    telemetry_forget_client_index();
    free(telemetry_pre_collect.clients);
    telemetry_pre_collect.clients = nullptr;
    telemetry_pre_collect.client_num = 0;
}

PreClientInfo *telemetry_get_client_info_list() {
    return telemetry_pre_collect.clients;
}

int telemetry_get_client_num() {
    return telemetry_pre_collect.client_num;
}

int telemetry_get_myself_client_num_value() {
    return telemetry_pre_collect.myself_client_num;
}
