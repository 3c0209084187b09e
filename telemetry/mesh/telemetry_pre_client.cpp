// The client side of the snapshot: every client that the traffic statistics know, completed step by step.
#include "telemetry_pre_client.h"

#include "telemetry_log.h"
#include "telemetry_satellites.h"
#include "telemetry_snapshot.h"

// --- Dump ---

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
    telemetry_forget_client_index(); // the collectors walk the list
    if (telemetry_debug_level == TELEMETRY_LOG_DEBUG)
        telemetry_print_client_info();
    return 0;
}
