// The client side of the snapshot: every client that the traffic statistics know, completed step by step.
#include "telemetry_pre_collect.h"

#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>

#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_utils.h"

// --- Lookup by MAC ---

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
// address.
static PreClientInfo *find_client(std::string_view mac, bool confirmed) {
    PreCollectInfo *info = &telemetry_pre_collect;
    if (info->clients == nullptr || mac.empty())
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
    char converted[18] = {};
    if (mac_to_upper_short_line(converted, mac) != 0)
        return nullptr;
    return find_client(converted, true);
}

// --- The array ---

void telemetry_free_client_info_list() {
    mac_index() = MacIndex(); // with its table: nothing of a cycle stays in memory
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

static const char *text_or_none(const char *text) {
    return text != nullptr ? text : "none";
}

static void print_client(const PreClientInfo *client, int index) {
    LOG_DEBUG("client index : %d", index);
    LOG_DEBUG("ap mac : %s", client->ap_mac);
    LOG_DEBUG("client_type : %u", client->client_type);
    LOG_DEBUG("connection_type : %s", client->connection_type);
    LOG_DEBUG("device_id : %s", client->device_id);
    LOG_DEBUG("hostname : %s", client->hostname);
    LOG_DEBUG("iot_category : %s", text_or_none(client->iot_category));
    LOG_DEBUG("iot_module : %s", text_or_none(client->iot_module));
    LOG_DEBUG("ipaddr : %s", client->ipaddr);
    LOG_DEBUG("is_exist : %d", client->is_exist);
    LOG_DEBUG("is_guest : %d", client->is_guest);
    LOG_DEBUG("is_mlo : %d", client->is_mlo);
    LOG_DEBUG("is_iotdevice : %d", client->is_iotdevice);
    LOG_DEBUG("mac : %s", client->mac);
    LOG_DEBUG("rerx_byte : %lld", static_cast<long long>(client->rerx_byte));
    LOG_DEBUG("retx_byte : %lld", static_cast<long long>(client->retx_byte));
    LOG_DEBUG("wire_type : %s", client->wire_type);
    LOG_DEBUG("signal_level_2g : %u", client->signal_level_2g);
    LOG_DEBUG("signal_level_5g : %u", client->signal_level_5g);
    LOG_DEBUG("wire_type : %s", client->wire_type);
    LOG_DEBUG("pymode:%u", client->phymode);
    LOG_DEBUG("client index : %d end", index);
}

void telemetry_print_client_info() {
    if (telemetry_pre_collect.clients == nullptr || telemetry_pre_collect.client_num == 0) {
        LOG_DEBUG("no collect client info");
        return;
    }
    for (int i = 0; i < telemetry_pre_collect.client_num; ++i)
        print_client(&telemetry_pre_collect.clients[i], i);
}

// --- The whole side ---

struct ClientStep {
    int (*run)();
    bool fatal;
    const char *message;
};

static constexpr ClientStep kClientSteps[] = {
    {telemetry_get_client_list_from_tfstats, true, "pre_collect ubus clients info error"},
    {telemetry_complete_ap_client_list_info, true, "pre_collect AP clients info failed"},
    {telemetry_complete_re_client_list_info, true, "pre_collect RE clients info failed"},
    {telemetry_complete_device_type_info, false, "telemetry_complete_device_type_info error"},
    {telemetry_identify_iot_device_from_client_list, true, "pre_collect iot clients info failed"},
    {telemetry_get_client_host_ap_mac_from_sync_server, true, "pre_collect get sync list failed"},
    {telemetry_get_client_sta_list, true, "pre_collect get client sta list failed"},
};

int telemetry_pre_clients_info() {
    telemetry_free_client_info_list();
    for (const ClientStep &step : kClientSteps) {
        if (step.run() == 0)
            continue;
        TELEMETRY_LOG(step.fatal ? TELEMETRY_LOG_ERROR : TELEMETRY_LOG_DEBUG, "%s", step.message);
        if (!step.fatal)
            continue;
        telemetry_free_client_info_list();
        return -1;
    }
    if (telemetry_is_mesh_network() && telemetry_get_re_client_sta_list() != 0)
        LOG_ERROR("get RE sta list error");
    if (telemetry_debug_level == TELEMETRY_LOG_DEBUG)
        telemetry_print_client_info();
    return 0;
}
