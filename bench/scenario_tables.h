// What a scenario's main node asks of others in one cycle, as tables in this process: the replies of its
// services and satellites as JSON, and a driver without a board.
#pragma once

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <utility>

#include "lab_root.h"
#include "telemetry_transfer.h"
#include "telemetry_platform_mtk.h"
#include "wlan_platform.h"

namespace {

const lab::Scenario *scenario;

const lab::ScenarioNode &main_node() {
    return scenario->nodes[0];
}

// --- Services
// ------------------------------------------------------------------------------------------------------

std::string print(cJSON *tree) {
    const lab::JsonTree owned(tree);
    return lab::print_json(tree);
}

std::string traffic_reply() {
    cJSON *reply = cJSON_CreateObject();
    cJSON_AddNumberToObject(reply, "total", static_cast<double>(scenario->clients.size()));
    cJSON *list = cJSON_AddArrayToObject(reply, "tfslist");
    for (const lab::ScenarioClient &client : scenario->clients) {
        cJSON *entry = cJSON_CreateObject();
        cJSON_AddItemToArray(list, entry);
        cJSON_AddStringToObject(entry, "ip", client.ip.c_str());
        cJSON_AddStringToObject(entry, "mac", client.mac.c_str());
        cJSON_AddNumberToObject(entry, "retx_byte", client.retx_byte);
        cJSON_AddNumberToObject(entry, "rerx_byte", client.rerx_byte);
    }
    return print(reply);
}

std::string own_clients_reply() {
    cJSON *reply = cJSON_CreateObject();
    for (const lab::ScenarioClient &client : scenario->clients) {
        if (client.node != main_node().device_id)
            continue;
        cJSON *entry = cJSON_AddObjectToObject(reply, client.mac.c_str());
        for (const auto &[key, text] : {std::pair("ip", &client.ip),
                                        {"mac", &client.mac},
                                        {"hostname", &client.hostname},
                                        {"wire_type", &client.wire_type},
                                        {"device_id", &client.node},
                                        {"connection_type", &client.connection_type}})
            cJSON_AddStringToObject(entry, key, text->c_str());
        for (const auto &[key, number] : {std::pair("is_guest", static_cast<int>(client.is_guest)),
                                          {"network_type", client.network_type},
                                          {"signal_level_2g", client.signal_level_2g},
                                          {"signal_level_5g", client.signal_level_5g},
                                          {"client_type", client.client_type}})
            cJSON_AddNumberToObject(entry, key, number);
    }
    return print(reply);
}

std::string node_list_reply() {
    cJSON *reply = cJSON_CreateObject();
    for (const lab::ScenarioNode &node : scenario->nodes) {
        cJSON *entry = cJSON_AddObjectToObject(reply, node.device_id.c_str());
        cJSON_AddStringToObject(entry, "mac", node.mac.c_str());
        cJSON_AddStringToObject(entry, "ip", node.ip.c_str());
    }
    return print(reply);
}

// One satellite's answer to an opcode.
lab::JsonTree satellite_answer(int opcode, const lab::ScenarioNode &node) {
    static constexpr std::pair<int, const char *> kFixed[] = {
        {TELEMETRY_TRANSFER_DEVICE,
         R"({"wired_port_used_num":2,"port_info":[{"port_num":1,"port_speed":1000},{"port_num":2,"port_speed":1000}],)"
         R"("parent_mac":"02:00:00:01:00:01","ping_delay":"1.600000","hw_version":"2.0","backhaul_info":[)"
         R"({"backhaul_type":"2.4G","backhaul_rssi":42,"backhaul_txrate":280,"backhaul_rxrate":253,)"
         R"("backhaul_channel":6,"backhaul_channle_util":54},{"backhaul_type":"5G","backhaul_rssi":42,)"
         R"("backhaul_txrate":1722,"backhaul_rxrate":1436,"backhaul_channel":44,"backhaul_channle_util":51}]})"},
        {TELEMETRY_TRANSFER_SYSTEM,
         R"({"sys_mode":"router","cpu_usage":7,"cpu_freq":1300000,"mem_total":512000,"mem_usage":59,"mem_free":128000,)"
         R"("wifi0_temp":60,"wifi1_temp":60,"wifi2_temp":60,"cpu_temp":61,"nat_num":417,)"
         R"("lowpower":{"res":"success","associate_time":4,"associate_duration":130}})"},
        {TELEMETRY_TRANSFER_USB,
         R"({"usb_enable":1,"config_is_change":0,"usb_type":1,"vendor_id":"1d6b","product_id":"0104"})"},
        {TELEMETRY_TRANSFER_AFC, R"({"en":1,"st":"granted","ex":7200,"cl":[{"oc":131,"ch":37,"pw":30}]})"},
        {TELEMETRY_TRANSFER_CLIENT, "{}"},
    };
    lab::JsonTree answer;
    for (const auto &[known, text] : kFixed) {
        if (known == opcode)
            answer.reset(cJSON_Parse(text));
    }
    cJSON_AddStringToObject(answer.get(), "mac", node.mac.c_str());
    if (opcode != TELEMETRY_TRANSFER_CLIENT)
        return answer;
    cJSON *list = cJSON_AddArrayToObject(answer.get(), "client_sta_list");
    for (const lab::ScenarioClient &client : scenario->clients) {
        if (client.node != node.device_id || client.interface.empty())
            continue;
        cJSON *station = cJSON_CreateObject();
        cJSON_AddItemToArray(list, station);
        cJSON_AddStringToObject(station, "mac_addr", client.mac.c_str());
        cJSON_AddNumberToObject(station, "pymode", client.phymode);
        cJSON_AddNumberToObject(station, "ng_rxrate", client.rx);
        cJSON_AddNumberToObject(station, "ng_txrate", client.tx);
    }
    return answer;
}

std::string satellites_reply(int opcode) {
    cJSON *reply = cJSON_CreateObject();
    const bool single = scenario->nodes.size() == 2;
    cJSON_AddNumberToObject(reply, "success", static_cast<double>(scenario->nodes.size() - 1));
    cJSON *list = single ? nullptr : cJSON_AddArrayToObject(reply, "data");
    for (size_t i = 1; i < scenario->nodes.size(); ++i) {
        cJSON *answer = cJSON_CreateObject();
        cJSON_AddItemToObject(answer, "result", satellite_answer(opcode, scenario->nodes[i]).release());
        if (single)
            cJSON_AddItemToObject(reply, "data", answer);
        else
            cJSON_AddItemToArray(list, answer);
    }
    return print(reply);
}

using JsonReplies = std::map<std::string, std::string>; // by "object.method"; of "sync.request" by opcode

JsonReplies scenario_replies() {
    JsonReplies replies = {
        {"tfstats.get", traffic_reply()},
        {"client_mgmt.get_myself", own_clients_reply()},
        {"client_mgmt.get", own_clients_reply()},
        {"sync.list", node_list_reply()},
        {"low_power.telemetry_get", R"({"res":"success","associate_time":3,"associate_duration":120})"},
        {"network.interface.wan.status", R"({"up":true,"uptime":86400,"l3_device":"eth1"})"},
        {"network.interface.wan6.status", R"({"up":true,"uptime":86390})"},
    };
    for (const int opcode : {TELEMETRY_TRANSFER_DEVICE, TELEMETRY_TRANSFER_CLIENT, TELEMETRY_TRANSFER_SYSTEM,
                             TELEMETRY_TRANSFER_USB, TELEMETRY_TRANSFER_AFC})
        replies["sync.request." + std::to_string(opcode)] = satellites_reply(opcode);
    return replies;
}

// --- Driver
// --------------------------------------------------------------------------------------------------------

int add_stations(const char *ifname, ClientStaList *list, uint32_t *count) {
    for (const lab::ScenarioClient &client : scenario->clients) {
        if (client.node != main_node().device_id || client.interface != ifname || *count >= list->capacity)
            continue;
        ClientStaInfo &station = list->stations[(*count)++];
        unsigned bytes[6] = {};
        sscanf(client.mac.c_str(), "%x:%x:%x:%x:%x:%x", &bytes[0], &bytes[1], &bytes[2], &bytes[3], &bytes[4],
               &bytes[5]);
        std::copy(std::begin(bytes), std::end(bytes), station.mac);
        station.txrate = static_cast<uint32_t>(client.tx);
        station.rxrate = static_cast<uint32_t>(client.rx);
    }
    return 1;
}

WlanPlatformOps driver_table() {
    WlanPlatformOps ops = wlan_platform_ops_mtk; // interface names are the real ones
    ops.get_device_temperature = [](const char *, double *temperature) { return *temperature = 54, 1; };
    ops.get_backhaul_ap_channel = [](uint32_t band, uint32_t *channel) {
        return *channel = band == 0 ? 6 : 44, 1;
    };
    ops.get_uplink_rate = [](const char *, BackhaulStats *, uint8_t *) { return 0; };
    ops.get_channel_util = [](const char *, uint8_t *, uint32_t, uint8_t) { return 0; };
    ops.get_wifi_bandwidth = [](uint32_t *bandwidth) { return *bandwidth = 80, 1; };
    ops.get_band_client_sta_info = add_stations;
    return ops;
}

} // namespace
