// What a scenario may hold: a member that is misspelt, an address or a strategy that is none would otherwise
// only be missed in the records.
#include "lab_scenario.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <stdexcept>
#include <string_view>

namespace lab {

namespace {

struct ObjectForm {
    std::string_view name;
    std::string_view members; // their names, each between two blanks
};

constexpr ObjectForm kScenario = {"the scenario",
                                  " name description nodes clients config profile files cloud sync "};
constexpr ObjectForm kNode = {"a node",
                              " device_id mac ip model fw_version hw_version role work_mode nickname "
                              "prefer_connect_device sysmode parent ports driver getfirm ping "
                              "low_power iwinfo network faults config profile files "};
constexpr ObjectForm kClient = {"a client",
                                " mac ip hostname node wire_type connection_type network_type "
                                "client_type is_guest is_mlo signal_level_2g signal_level_5g "
                                "signal_level_6g retx_byte rerx_byte interface phymode tx rx mld_mac "
                                "iot_module iot_category in_tfstats in_client_mgmt "};
constexpr ObjectForm kPorts = {"\"ports\"", " wan list "};
constexpr ObjectForm kPort = {"a port", " port link speed type "};
constexpr ObjectForm kCloud = {"\"cloud\"", " strategy steps "};
constexpr ObjectForm kStrategy = {"\"strategy\"", " id content "};
constexpr ObjectForm kSteps = {"\"steps\"", " key strategy upload connect "};
constexpr ObjectForm kSync = {"\"sync\"", " own_limit_ms other_limit_ms "};

constexpr long long kLongestMinutes = 35791; // as milliseconds in 31 bits

class Checker {
  public:
    explicit Checker(const std::string &what) : what_(what) {}

    // Null passes: everything may be missing.
    const cJSON *object(const cJSON *object, const ObjectForm &form) const {
        if (object != nullptr && !cJSON_IsObject(object))
            wrong(std::string(form.name) + " is no object");
        const cJSON *item;
        cJSON_ArrayForEach(item, object) {
            if (form.members.find(" " + std::string(item->string) + " ") == form.members.npos)
                wrong(std::string(form.name) + " has no member \"" + item->string + "\"");
        }
        return object;
    }
    const cJSON *list(const cJSON *object, const char *name) const {
        const cJSON *list = cJSON_GetObjectItemCaseSensitive(object, name);
        if (list != nullptr && !cJSON_IsArray(list))
            wrong("\"" + std::string(name) + "\" is no list");
        return list;
    }
    void address(const cJSON *object, const char *name) const {
        const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, name);
        if (item == nullptr)
            return;
        const std::string text = cJSON_IsString(item) ? item->valuestring : print_json(item);
        bool good = text.size() == 17;
        for (size_t at = 0; good && at < text.size(); at++)
            good = at % 3 == 2 ? text[at] == ':'
                               : std::string_view("0123456789abcdefABCDEF").find(text[at]) != text.npos;
        if (!good)
            wrong("\"" + std::string(name) + "\" is no MAC address (02:00:00:01:00:01): " + text);
    }
    // Without an id nobody is handed out any.
    void strategy(const cJSON *strategy) const {
        long long minutes[3] = {};
        const std::string content = json_text(strategy, "content");
        if (json_text(strategy, "id").empty())
            return;
        const int read = sscanf(content.c_str(),
                                "collect_interval_strategy1=%lld,collect_interval_strategy2=%lld,"
                                "post_interval=%lld",
                                &minutes[0], &minutes[1], &minutes[2]);
        const auto [least, most] = std::minmax_element(std::begin(minutes), std::end(minutes));
        if (read != 3 || *least < 1 || *most > kLongestMinutes)
            wrong("the strategy's \"content\" is not \"collect_interval_strategy1=N,"
                  "collect_interval_strategy2=N,post_interval=N\" in minutes: " +
                  content);
    }

  private:
    [[noreturn]] void wrong(const std::string &why) const {
        throw std::runtime_error(what_ + ": " + why);
    }
    const std::string &what_;
};

} // namespace

void scenario_check(const cJSON *scenario, const std::string &what) {
    const Checker check(what);
    const auto member = [](const cJSON *object, const char *name) {
        return cJSON_GetObjectItemCaseSensitive(object, name);
    };
    check.object(scenario, kScenario);
    const cJSON *item, *port;
    cJSON_ArrayForEach(item, check.list(scenario, "nodes")) {
        check.address(check.object(item, kNode), "mac");
        const cJSON *ports = check.object(member(item, "ports"), kPorts);
        cJSON_ArrayForEach(port, check.list(ports, "list")) check.object(port, kPort);
    }
    cJSON_ArrayForEach(item, check.list(scenario, "clients")) {
        check.address(check.object(item, kClient), "mac");
        check.address(item, "mld_mac");
    }
    const cJSON *cloud = check.object(member(scenario, "cloud"), kCloud);
    check.object(member(cloud, "steps"), kSteps);
    check.strategy(check.object(member(cloud, "strategy"), kStrategy));
    check.object(member(scenario, "sync"), kSync);
}

} // namespace lab
