// The scenario: a whole mesh as one JSON file (its form is in docs/lab.md). Read by the runner, the simulated
// services and the tests; what a record does not hold is still to be had from its `json` member.
#pragma once

#include <string>
#include <vector>

#include "lab_files.h"

namespace lab {

struct ScenarioPort {
    int port = 0;
    std::string type; // "eth" for Ethernet
    bool link = false;
    int speed = 0;
};

struct ScenarioNode {
    std::string device_id, role, work_mode, mac, ip, model, fw_version, hw_version;
    std::string nickname, prefer_connect_device, sysmode;
    std::string parent; // device id of the node it hangs from, empty on the main node
    int wan_port = -1;
    std::vector<ScenarioPort> ports;
    const cJSON *json = nullptr; // "driver", "low_power", "getfirm", "config", "files", "faults", ...
};

struct ScenarioClient {
    std::string mac, ip, hostname;
    std::string node; // device id of the node it is attached to
    std::string wire_type, connection_type;
    std::string interface; // AP interface of a wireless client ("ra2", "rax2", ...), empty for a wired one
    std::string iot_module, iot_category;
    std::string mld_mac;
    int phymode = 0, tx = 0, rx = 0; // of the station, as the driver reports them
    int network_type = 0, client_type = 0;
    int signal_level_2g = 0, signal_level_5g = 0, signal_level_6g = 0;
    double retx_byte = 0, rerx_byte = 0;
    bool is_guest = false, is_mlo = false;
    bool in_tfstats = true, in_client_mgmt = true;
    const cJSON *json = nullptr;
};

struct Scenario {
    std::string name, description;
    std::vector<ScenarioNode> nodes; // nodes[0] is the main node
    std::vector<ScenarioClient> clients;
    JsonTree json;

    const ScenarioNode *node(const std::string &device_id) const;
};

// Throws std::runtime_error that names a member that no scenario has, a MAC or a strategy that is none.
void scenario_check(const cJSON *scenario, const std::string &what);
// Parses a scenario; throws std::runtime_error that names what is wrong (no node, a duplicate id, an unknown
// node, ...).
Scenario scenario_parse(const std::string &text, const std::string &what = "scenario");
// `name_or_file`: a path, or the name of a file in lab/scenarios ("one", "home", "large"). `changes` are put
// over it in that order, each a JSON object: objects member by member, lists of nodes element by element.
Scenario scenario_load(const std::string &name_or_file, const std::vector<std::string> &changes = {});
// The path that scenario_load() reads.
std::string scenario_path(const std::string &name_or_file);

} // namespace lab
