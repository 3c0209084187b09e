#include "lab_root.h"
#include "lab_config.h"

#include <filesystem>
#include <map>
#include <sstream>

#include <unistd.h>

namespace lab {

namespace {

using Packages = std::map<std::string, ConfigPackage>;

// Links to this machine's own figures; `stand_in` is written where this machine has none.
struct SystemFile {
    const char *path;
    const char *stand_in; // null: the file is missing then, as on a board without it
};
constexpr SystemFile kSystemFiles[] = {
    {"/proc/stat", nullptr},
    {"/proc/meminfo", nullptr},
    {"/proc/uptime", nullptr},
    {"/proc/sys/net/netfilter/nf_conntrack_count", ""},
    {"/sys/class/thermal/thermal_zone0/temp", "47250\n"},
    {"/sys/devices/system/cpu/cpufreq/policy0/scaling_cur_freq", "1300000\n"},
};

const cJSON *member(const cJSON *object, const char *name) {
    return cJSON_GetObjectItemCaseSensitive(object, name);
}

// Sockets in use on this machine: what stands for the number of tracked connections where the kernel tracks
// none.
std::string count_sockets() {
    long count = 0;
    for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6", "/proc/net/udp", "/proc/net/udp6"}) {
        std::istringstream lines(read_file(table));
        std::string line;
        std::getline(lines, line); // heading
        while (std::getline(lines, line))
            count++;
    }
    return std::to_string(count) + "\n";
}

void build_system_files(const std::string &root) {
    for (const SystemFile &file : kSystemFiles) {
        std::string target = root + file.path;
        make_directories(std::filesystem::path(target).parent_path());
        if (access(file.path, R_OK) == 0)
            std::filesystem::create_symlink(file.path, target);
        else if (file.stand_in)
            write_file(target, *file.stand_in ? file.stand_in : count_sockets());
    }
    make_directories(root + "/sys/class/net");
    make_directories(root + "/sys/bus/usb/devices");
}

void merge_packages(Packages &packages, const cJSON *object) {
    const cJSON *item;
    cJSON_ArrayForEach(item, object) config_merge(packages[item->string], item);
}

void build_node_config(Packages &packages, const ScenarioNode &node, const std::string &cloud_url) {
    packages["telemetry"].set("basic", "enable", "1");
    packages["telemetry"].set("cloud", "cloud_url", cloud_url);
    packages["sysmode"].set("sysmode", "mode", node.sysmode);
}

// What the main node knows of the mesh.
void build_mesh_config(Packages &packages, const Scenario &scenario) {
    for (const char *package :
         {"bind_device_list", "device_prefer", "iot_kiro", "iot_zuna", "philips_hue", "matter"})
        packages[package];
    for (const ScenarioNode &node : scenario.nodes) {
        if (!node.nickname.empty())
            packages["bind_device_list"].set(node.device_id, "nickname", node.nickname);
        if (!node.prefer_connect_device.empty())
            packages["device_prefer"].set(node.device_id, "prefer_connect_device",
                                          node.prefer_connect_device);
        if (!node.fw_version.empty())
            packages["telemetry_info"].set(node.device_id, "fwver", node.fw_version);
    }
    int number = 0;
    for (const ScenarioClient &client : scenario.clients) {
        if (client.iot_module.empty())
            continue;
        std::string package =
            client.iot_module.find('_') == std::string::npos && client.iot_module != "matter"
                ? (client.iot_module == "hue" ? "philips_hue" : "iot_" + client.iot_module)
                : client.iot_module;
        std::string section = "device" + std::to_string(++number);
        packages[package].set(section, "mac", client.mac);
        if (!client.iot_category.empty())
            packages[package].set(section, "category", client.iot_category);
    }
}

void build_config(const std::string &root, const Scenario &scenario, size_t index, const cJSON *defaults,
                  const std::string &cloud_url) {
    const ScenarioNode &node = scenario.nodes[index];
    Packages packages;
    merge_packages(packages, member(defaults, "config"));
    build_node_config(packages, node, cloud_url);
    if (index == 0)
        build_mesh_config(packages, scenario);
    merge_packages(packages, member(scenario.json.get(), "config"));
    merge_packages(packages, member(node.json, "config"));
    for (const auto &[name, package] : packages)
        root_write(root, "/etc/config/" + name, config_print(package));

    Packages profile;
    merge_packages(profile, member(defaults, "profile"));
    ConfigPackage &interfaces = profile["interfaces"];
    for (const ScenarioPort &port : node.ports) {
        std::string section = "port" + std::to_string(port.port);
        interfaces.set(section, "type", port.type);
        interfaces.set(section, "port", std::to_string(port.port));
    }
    merge_packages(profile, member(scenario.json.get(), "profile"));
    merge_packages(profile, member(node.json, "profile"));
    for (const auto &[name, package] : profile)
        root_write(root, "/etc/profile.d/" + name, config_print(package));
}

void build_board(const std::string &root, const ScenarioNode &node) {
    std::map<std::string, std::string> identity = {
        {"DEV_ID", node.device_id},
        {"HW_ID", "HW" + node.device_id.substr(0, 30)},
        {"HARDVERSION", node.hw_version},
        {"OEM_ID", "OEM0000000000001"},
        {"SOFTVERSION", node.fw_version},
        {"MODEL", node.model},
        {"MAC", node.mac},
    };
    const cJSON *item;
    cJSON_ArrayForEach(item, member(node.json, "getfirm")) identity[item->string] =
        cJSON_GetStringValue(item);
    for (const auto &[name, value] : identity)
        root_write(root, "/lab/board/getfirm/" + name, value + "\n");

    root_write(root, "/lab/board/ports/wan_num", std::to_string(node.wan_port) + "\n");
    for (const ScenarioPort &port : node.ports) {
        std::string directory = "/lab/board/ports/" + std::to_string(port.port);
        root_write(root, directory + "/link", port.link ? "1\n" : "0\n");
        root_write(root, directory + "/speed", std::to_string(port.speed) + "\n");
    }
    make_directories(root + "/lab/board/ping");
    cJSON_ArrayForEach(item, member(node.json, "ping")) {
        root_write(root, std::string("/lab/board/ping/") + item->string, cJSON_GetStringValue(item));
    }
    make_directories(root + "/lib/telemetry");
    std::filesystem::create_symlink(std::string(LAB_SOURCE_DIR) + "/board/wire_port_info.sh",
                                    root + "/lib/telemetry/wire_port_info.sh");
}

// The file of the simulated driver: the node's "driver", and the scenario's wireless clients as stations of
// the AP interfaces that they are on.
std::string driver_file(const Scenario &scenario, const ScenarioNode &node) {
    JsonTree file(cJSON_Duplicate(member(node.json, "driver"), 1));
    if (!file)
        file.reset(cJSON_CreateObject());
    cJSON *interfaces = cJSON_GetObjectItemCaseSensitive(file.get(), "interfaces");
    if (!interfaces)
        interfaces = cJSON_AddObjectToObject(file.get(), "interfaces");
    auto stations_of = [&](const std::string &name) {
        cJSON *interface = cJSON_GetObjectItemCaseSensitive(interfaces, name.c_str());
        if (!interface)
            interface = cJSON_AddObjectToObject(interfaces, name.c_str());
        cJSON *stations = cJSON_GetObjectItemCaseSensitive(interface, "stations");
        return stations ? stations : cJSON_AddArrayToObject(interface, "stations");
    };
    for (const char *name : {"ra2", "ra4", "ra5", "rax2", "rax4", "rax5"})
        stations_of(name);
    for (const ScenarioClient &client : scenario.clients) {
        if (client.node != node.device_id || client.interface.empty())
            continue;
        cJSON *station = cJSON_CreateObject();
        cJSON_AddItemToArray(stations_of(client.interface), station);
        cJSON_AddStringToObject(station, "mac", client.mac.c_str());
        cJSON_AddNumberToObject(station, "tx", client.tx);
        cJSON_AddNumberToObject(station, "rx", client.rx);
        cJSON_AddNumberToObject(station, "phymode", client.phymode);
    }
    return print_json(file.get());
}

void build_state_files(const std::string &root, const Scenario &scenario, size_t index) {
    const ScenarioNode &node = scenario.nodes[index];
    JsonTree work_mode(cJSON_CreateObject());
    cJSON_AddStringToObject(work_mode.get(), "work_mode", node.work_mode.c_str());
    if (const ScenarioNode *parent = scenario.node(node.parent))
        cJSON_AddStringToObject(work_mode.get(), "parent_mac", parent->mac.c_str());
    root_write(root, "/tmp/work_mode", print_json(work_mode.get()) + "\n");
    root_write(root, "/tmp/run/ntpd.uptime", "1\n");
    root_write(root, "/tmp/fakewifi.json", driver_file(scenario, node));
    if (index == 0) {
        root_write(root, "/tmp/sync-server/mesh_dev_list", root_mesh_device_list(scenario) + "\n");
        root_write(root, "/tmp/client_mgmt/re_client_list", root_satellite_clients(scenario) + "\n");
    }
}

void build_extra_files(const std::string &root, const cJSON *files) {
    const cJSON *item;
    cJSON_ArrayForEach(item, files) {
        if (cJSON_IsNull(item))
            unlink((root + item->string).c_str());
        else
            root_write(root, item->string, cJSON_IsString(item) ? item->valuestring : print_json(item));
    }
}

void add_text(cJSON *object, const char *name, const std::string &value) {
    if (!value.empty())
        cJSON_AddStringToObject(object, name, value.c_str());
}

void add_number(cJSON *object, const char *name, int value) {
    if (value != 0)
        cJSON_AddNumberToObject(object, name, value);
}

} // namespace

std::string root_mesh_device_list(const Scenario &scenario) {
    JsonTree list(cJSON_CreateObject());
    for (const ScenarioNode &node : scenario.nodes) {
        cJSON *entry = cJSON_AddObjectToObject(list.get(), node.device_id.c_str());
        cJSON_AddStringToObject(entry, "ip", node.ip.c_str());
        cJSON_AddStringToObject(entry, "mac", node.mac.c_str());
        cJSON_AddStringToObject(entry, "device_model", node.model.c_str());
        cJSON_AddStringToObject(entry, "fw_version", node.fw_version.c_str());
        cJSON_AddStringToObject(entry, "role", node.role.c_str());
    }
    return print_json(list.get());
}

std::string root_satellite_clients(const Scenario &scenario) {
    JsonTree list(cJSON_CreateArray());
    for (const ScenarioClient &client : scenario.clients) {
        if (client.node == scenario.nodes[0].device_id || !client.in_client_mgmt)
            continue;
        cJSON *entry = cJSON_CreateObject();
        cJSON_AddItemToArray(list.get(), entry);
        // The file has 65,535 bytes for a whole mesh: short forms, and nothing that is empty or zero anyway.
        std::string mac = client.mac;
        std::erase(mac, ':');
        add_text(entry, "mac", mac);
        add_text(entry, "hostname", client.hostname);
        add_text(entry, "wire_type", client.wire_type);
        add_number(entry, "is_guest", client.is_guest);
        add_number(entry, "is_mlo", client.is_mlo);
        add_text(entry, "connection_type", client.connection_type);
        add_number(entry, "network_type", client.network_type);
        add_text(entry, "device_id", client.node);
        add_number(entry, "signal_level_2g", client.signal_level_2g);
        add_number(entry, "signal_level_5g", client.signal_level_5g);
        add_number(entry, "client_type", client.client_type);
    }
    return print_json(list.get());
}

void root_write(const std::string &root, const std::string &path, const std::string &text) {
    namespace fs = std::filesystem;
    fs::path at = root;
    fs::path relative = fs::path(path).relative_path();
    for (const fs::path &part : relative.parent_path()) {
        at /= part;
        if (fs::is_symlink(at))
            fs::remove(at);
        fs::create_directory(at);
    }
    write_file(root + "/" + relative.string(), text);
}

void root_build(const std::string &root, const Scenario &scenario, size_t index, const std::string &cloud_url,
                const std::string &ca_certificate) {
    const ScenarioNode &node = scenario.nodes[index];
    for (const char *directory : {"/dev", "/var/run", "/var/log", "/tmp/.uci", "/lab"})
        make_directories(root + directory);
    root_write(root, "/dev/console", "");
    root_write(root, "/etc/certificate/2048_newroot.cer", ca_certificate);
    build_system_files(root);
    JsonTree defaults =
        parse_json(read_file(std::string(LAB_SOURCE_DIR) + "/defaults.json"), "lab/defaults.json");
    build_config(root, scenario, index, defaults.get(), cloud_url);
    build_board(root, node);
    build_state_files(root, scenario, index);
    const cJSON *faults = member(node.json, "faults");
    root_write(root, "/lab/faults.json", faults ? print_json(faults) : "{}");
    build_extra_files(root, member(defaults.get(), "files"));
    build_extra_files(root, member(scenario.json.get(), "files"));
    build_extra_files(root, member(node.json, "files"));
}

} // namespace lab
