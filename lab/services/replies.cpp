#include "replies.h"

#include <cstring>

namespace lab {

namespace {

bool is_main(const Scenario &scenario, const ScenarioNode &self) {
    return self.device_id == scenario.nodes[0].device_id;
}

void add_text(blob_buf *reply, const char *name, const std::string &text) {
    if (!text.empty())
        blobmsg_add_string(reply, name, text.c_str());
}

void add_number(blob_buf *reply, const char *name, int number) {
    blobmsg_add_u32(reply, name, static_cast<uint32_t>(number));
}

// Traffic passes the main node: it knows every client of the mesh, a satellite those that hang from it.
void tfstats_get(const Scenario &scenario, const ScenarioNode &self, blob_buf *reply) {
    const bool all = is_main(scenario, self);
    int total = 0;
    for (const ScenarioClient &client : scenario.clients)
        total += client.in_tfstats && (all || client.node == self.device_id);
    add_number(reply, "total", total);
    void *list = blobmsg_open_array(reply, "tfslist");
    for (const ScenarioClient &client : scenario.clients) {
        if (!client.in_tfstats || (!all && client.node != self.device_id))
            continue;
        void *entry = blobmsg_open_table(reply, nullptr);
        add_text(reply, "ip", client.ip);
        add_text(reply, "mac", client.mac);
        blobmsg_add_u64(reply, "retx_byte", static_cast<uint64_t>(client.retx_byte));
        blobmsg_add_u64(reply, "rerx_byte", static_cast<uint64_t>(client.rerx_byte));
        blobmsg_close_table(reply, entry);
    }
    blobmsg_close_array(reply, list);
}

void add_client(const ScenarioClient &client, blob_buf *reply) {
    void *entry = blobmsg_open_table(reply, client.mac.c_str());
    add_text(reply, "ip", client.ip);
    add_text(reply, "mac", client.mac);
    add_text(reply, "wire_type", client.wire_type);
    add_text(reply, "hostname", client.hostname);
    add_number(reply, "is_guest", client.is_guest);
    add_text(reply, "connection_type", client.connection_type);
    add_text(reply, "device_id", client.node);
    add_number(reply, "network_type", client.network_type);
    add_number(reply, "signal_level_2g", client.signal_level_2g);
    add_number(reply, "signal_level_5g", client.signal_level_5g);
    add_number(reply, "signal_level_6g", client.signal_level_6g);
    add_number(reply, "client_type", client.client_type);
    blobmsg_close_table(reply, entry);
}

void client_mgmt_get_myself(const Scenario &scenario, const ScenarioNode &self, blob_buf *reply) {
    for (const ScenarioClient &client : scenario.clients) {
        if (client.in_client_mgmt && client.node == self.device_id)
            add_client(client, reply);
    }
}

void client_mgmt_get(const Scenario &scenario, const ScenarioNode &self, blob_buf *reply) {
    for (const ScenarioClient &client : scenario.clients) {
        if (client.in_client_mgmt && (is_main(scenario, self) || client.node == self.device_id))
            add_client(client, reply);
    }
}

void sync_list(const Scenario &scenario, const ScenarioNode &, blob_buf *reply) {
    for (const ScenarioNode &node : scenario.nodes) {
        void *entry = blobmsg_open_table(reply, node.device_id.c_str());
        add_text(reply, "ip", node.ip);
        add_text(reply, "mac", node.mac);
        add_text(reply, "device_model", node.model);
        add_text(reply, "role", node.role);
        blobmsg_close_table(reply, entry);
    }
}

const cJSON *member(const ScenarioNode &node, const char *path) {
    const cJSON *item = node.json;
    const std::string names = path;
    for (size_t begin = 0, end; item && begin <= names.size(); begin = end + 1) {
        end = std::min(names.find('.', begin), names.size());
        item = cJSON_GetObjectItemCaseSensitive(item, names.substr(begin, end - begin).c_str());
    }
    return item;
}

void add_json(blob_buf *reply, const cJSON *object) {
    blobmsg_add_json_from_string(reply, print_json(object).c_str());
}

void low_power_get(const Scenario &, const ScenarioNode &self, blob_buf *reply) {
    add_json(reply, member(self, "low_power"));
}

void wan_status(const Scenario &, const ScenarioNode &self, blob_buf *reply) {
    add_json(reply, member(self, "network.wan"));
}

void wan6_status(const Scenario &, const ScenarioNode &self, blob_buf *reply) {
    add_json(reply, member(self, "network.wan6"));
}

} // namespace

const ServiceMethod kServiceMethods[12] = {
    {"tfstats", "get", tfstats_get, nullptr},
    {"client_mgmt", "get_myself", client_mgmt_get_myself, nullptr},
    {"client_mgmt", "get", client_mgmt_get, nullptr},
    {"sync", "list", sync_list, nullptr},
    {"sync", "request", nullptr, nullptr},
    {"low_power", "telemetry_get", low_power_get, "low_power"},
    {"network.interface.wan", "status", wan_status, "network.wan"},
    {"network.interface.wan6", "status", wan6_status, "network.wan6"},
    {"iwinfo", "devices", nullptr, "iwinfo", iwinfo_devices},
    {"iwinfo", "info", nullptr, "iwinfo", iwinfo_info},
    {"iwinfo", "assoclist", nullptr, "iwinfo", iwinfo_assoclist},
    {"iwinfo", "survey", nullptr, "iwinfo", iwinfo_survey},
};

bool service_is_there(const ServiceMethod &method, const ScenarioNode &self) {
    return method.needs == nullptr || cJSON_IsObject(member(self, method.needs));
}

} // namespace lab
