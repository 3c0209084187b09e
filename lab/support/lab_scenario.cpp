#include "lab_scenario.h"

#include <filesystem>
#include <set>
#include <stdexcept>

namespace lab {

namespace {

[[noreturn]] void wrong(const std::string &what, const std::string &why) {
    throw std::runtime_error(what + ": " + why);
}

// Device ids name sections of configuration files.
bool is_section_name(const std::string &text) {
    return !text.empty() &&
           text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_") ==
               text.npos;
}

void parse_ports(const cJSON *ports, ScenarioNode &node) {
    node.wan_port = static_cast<int>(json_number(ports, "wan", -1));
    const cJSON *item;
    cJSON_ArrayForEach(item, cJSON_GetObjectItemCaseSensitive(ports, "list")) {
        ScenarioPort port;
        port.port = static_cast<int>(json_number(item, "port"));
        port.type = json_text(item, "type", "eth");
        port.link = json_flag(item, "link", true);
        port.speed = static_cast<int>(json_number(item, "speed"));
        node.ports.push_back(port);
    }
}

ScenarioNode parse_node(const cJSON *item, bool is_main, const std::string &what) {
    ScenarioNode node;
    node.json = item;
    node.device_id = json_text(item, "device_id");
    if (!is_section_name(node.device_id))
        wrong(what, "a node's \"device_id\" must be made of letters, digits and '_'");
    node.role = json_text(item, "role", is_main ? "AP" : "RE");
    node.work_mode = json_text(item, "work_mode", is_main ? "FAP" : "RE");
    node.mac = json_text(item, "mac");
    node.ip = json_text(item, "ip");
    node.model = json_text(item, "model");
    node.fw_version = json_text(item, "fw_version");
    node.hw_version = json_text(item, "hw_version");
    node.nickname = json_text(item, "nickname");
    node.prefer_connect_device = json_text(item, "prefer_connect_device");
    node.sysmode = json_text(item, "sysmode", "router");
    node.parent = json_text(item, "parent");
    parse_ports(cJSON_GetObjectItemCaseSensitive(item, "ports"), node);
    return node;
}

ScenarioClient parse_client(const cJSON *item) {
    ScenarioClient client;
    client.json = item;
    client.mac = json_text(item, "mac");
    client.ip = json_text(item, "ip");
    client.hostname = json_text(item, "hostname");
    client.node = json_text(item, "node");
    client.wire_type = json_text(item, "wire_type", "wireless");
    client.connection_type = json_text(item, "connection_type");
    client.interface = json_text(item, "interface");
    client.iot_module = json_text(item, "iot_module");
    client.iot_category = json_text(item, "iot_category");
    client.mld_mac = json_text(item, "mld_mac");
    client.phymode = static_cast<int>(json_number(item, "phymode"));
    client.tx = static_cast<int>(json_number(item, "tx"));
    client.rx = static_cast<int>(json_number(item, "rx"));
    client.network_type = static_cast<int>(json_number(item, "network_type"));
    client.client_type = static_cast<int>(json_number(item, "client_type"));
    client.signal_level_2g = static_cast<int>(json_number(item, "signal_level_2g"));
    client.signal_level_5g = static_cast<int>(json_number(item, "signal_level_5g"));
    client.signal_level_6g = static_cast<int>(json_number(item, "signal_level_6g"));
    client.retx_byte = json_number(item, "retx_byte");
    client.rerx_byte = json_number(item, "rerx_byte");
    client.is_guest = json_flag(item, "is_guest", false);
    client.is_mlo = json_flag(item, "is_mlo", false);
    client.in_tfstats = json_flag(item, "in_tfstats", true);
    client.in_client_mgmt = json_flag(item, "in_client_mgmt", true);
    return client;
}

void put_over(cJSON *target, const cJSON *changes) {
    const bool list = cJSON_IsArray(target) != 0;
    int index = 0;
    const cJSON *item;
    cJSON_ArrayForEach(item, changes) {
        cJSON *there = list ? cJSON_GetArrayItem(target, index++)
                            : cJSON_GetObjectItemCaseSensitive(target, item->string);
        const bool nodes = cJSON_IsArray(item) && cJSON_IsObject(item->child);
        if (there && (cJSON_IsObject(item) || nodes))
            put_over(there, item);
        else if (list)
            throw std::runtime_error("a change of an element that the scenario does not have");
        else if (there)
            cJSON_ReplaceItemInObjectCaseSensitive(target, item->string, cJSON_Duplicate(item, 1));
        else
            cJSON_AddItemToObject(target, item->string, cJSON_Duplicate(item, 1));
    }
}

std::string shipped_scenarios() {
    std::set<std::string> names;
    std::error_code error;
    for (const auto &entry :
         std::filesystem::directory_iterator(std::string(LAB_SOURCE_DIR) + "/scenarios", error)) {
        if (entry.path().extension() == ".json")
            names.insert(entry.path().stem());
    }
    std::string text;
    for (const std::string &name : names)
        text += (text.empty() ? " " : ", ") + name;
    return text;
}

} // namespace

const ScenarioNode *Scenario::node(const std::string &device_id) const {
    for (const ScenarioNode &candidate : nodes) {
        if (candidate.device_id == device_id)
            return &candidate;
    }
    return nullptr;
}

Scenario scenario_parse(const std::string &text, const std::string &what) {
    Scenario scenario;
    scenario.json = parse_json(text, what);
    scenario_check(scenario.json.get(), what);
    scenario.name = json_text(scenario.json.get(), "name", "unnamed");
    scenario.description = json_text(scenario.json.get(), "description");

    std::set<std::string> ids;
    const cJSON *item;
    cJSON_ArrayForEach(item, cJSON_GetObjectItemCaseSensitive(scenario.json.get(), "nodes")) {
        scenario.nodes.push_back(parse_node(item, scenario.nodes.empty(), what));
        if (!ids.insert(scenario.nodes.back().device_id).second)
            wrong(what, "two nodes with device_id " + scenario.nodes.back().device_id);
    }
    if (scenario.nodes.empty())
        wrong(what, "\"nodes\" must be a list with the main node first");
    for (const ScenarioNode &node : scenario.nodes) {
        if (!node.parent.empty() && !scenario.node(node.parent))
            wrong(what, "node " + node.device_id + " hangs from an unknown node " + node.parent);
    }

    cJSON_ArrayForEach(item, cJSON_GetObjectItemCaseSensitive(scenario.json.get(), "clients")) {
        scenario.clients.push_back(parse_client(item));
        if (!scenario.node(scenario.clients.back().node))
            wrong(what, "client " + scenario.clients.back().mac + " is attached to an unknown node");
    }
    return scenario;
}

std::string scenario_path(const std::string &name_or_file) {
    std::string named = std::string(LAB_SOURCE_DIR) + "/scenarios/" + name_or_file + ".json";
    if (name_or_file.find('/') == std::string::npos && !file_exists(name_or_file) && file_exists(named))
        return named;
    return name_or_file;
}

Scenario scenario_load(const std::string &name_or_file, const std::vector<std::string> &changes) {
    std::string path = scenario_path(name_or_file);
    if (!file_exists(path))
        wrong(path, "no such scenario; shipped are" + shipped_scenarios() + ", or give a file");
    if (changes.empty())
        return scenario_parse(read_file(path), path);
    JsonTree tree = parse_json(read_file(path), path);
    for (const std::string &change : changes)
        put_over(tree.get(), parse_json(change, "changes of " + path).get());
    return scenario_parse(print_json(tree.get()), path);
}

} // namespace lab
