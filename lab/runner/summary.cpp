#include "summary.h"
#include "text_table.h"

#include <cstdio>
#include <map>

#include "lab_files.h"

namespace {

constexpr size_t kDigestShown = 8;
constexpr size_t kMaxClients = 40; // of one node; the rest is counted

using Rows = std::vector<std::vector<std::string>>;
using Records = std::map<std::string, lab::JsonTree>; // payload by name of the record

const cJSON *member(const cJSON *object, const char *key) {
    return cJSON_GetObjectItemCaseSensitive(object, key);
}

// "54", "1.5"; "-" without a number, or with -1, which stands for unknown.
std::string number_text(const cJSON *object, const char *key, const char *unit = "") {
    const cJSON *item = member(object, key);
    if (!cJSON_IsNumber(item) || item->valuedouble == -1)
        return "-";
    char text[64];
    snprintf(text, sizeof(text), "%.10g%s", item->valuedouble, unit);
    return text;
}

std::string short_digest(const cJSON *object, const char *key) {
    return lab::json_text(object, key, "unknown").substr(0, kDigestShown);
}

const cJSON *list_of(const Records &records, const char *eid, const char *list) {
    const auto found = records.find(eid);
    return found == records.end() ? nullptr : member(found->second.get(), list);
}

// Names of the nodes by digest; a node of which no record tells a name has the beginning of its digest.
class NodeNames {
  public:
    explicit NodeNames(const Records &records) {
        const cJSON *node;
        cJSON_ArrayForEach(node, list_of(records, "device_info", "dl")) {
            if (const std::string name = lab::json_text(node, "dnk"); !name.empty())
                names_[lab::json_text(node, "dm")] = name;
        }
    }
    std::string of(const cJSON *object, const char *key) const {
        const auto found = names_.find(lab::json_text(object, key));
        return found != names_.end() ? found->second : short_digest(object, key);
    }

  private:
    std::map<std::string, std::string> names_;
};

const cJSON *node_entry(const cJSON *list, const std::string &digest) {
    const cJSON *node;
    cJSON_ArrayForEach(node, list) {
        if (lab::json_text(node, "dm") == digest)
            return node;
    }
    return nullptr;
}

std::string memory_text(const cJSON *node) {
    return number_text(node, "mu", " %") + " of " +
           std::to_string(static_cast<long>(lab::json_number(node, "mt") / 1024)) + " MiB";
}

std::string backhaul_text(const cJSON *device) {
    std::string text;
    const cJSON *link;
    cJSON_ArrayForEach(link, member(device, "bh")) {
        text += (text.empty() ? "" : ", ") + lab::json_text(link, "bt", "?") + " " +
                number_text(link, "btx") + "/" + number_text(link, "brx");
    }
    return text.empty() ? "-" : text;
}

std::string nodes_text(const Records &records, const NodeNames &names) {
    const cJSON *loads = list_of(records, "system_info", "sl");
    const cJSON *devices = list_of(records, "device_info", "dl");
    const cJSON *known = loads != nullptr ? loads : devices;
    Rows rows = {
        {"node", "load", "memory used", "Wi-Fi", "CPU", "connections", "parent", "delay", "backhaul tx/rx"}};
    const cJSON *node;
    cJSON_ArrayForEach(node, known) {
        const std::string digest = lab::json_text(node, "dm");
        const cJSON *load = node_entry(loads, digest), *device = node_entry(devices, digest);
        const cJSON *temperatures = member(load, "tem");
        rows.push_back({names.of(node, "dm"), number_text(load, "cu", " %"), load ? memory_text(load) : "-",
                        number_text(temperatures, "w0", " C"), number_text(temperatures, "cpu", " C"),
                        number_text(load, "natn"), member(device, "pm") ? names.of(device, "pm") : "-",
                        number_text(device, "ddl", " ms"), backhaul_text(device)});
    }
    return rows.size() > 1 ? "Nodes\n" + text_table(rows) : "";
}

std::string clients_text(const Records &records, const NodeNames &names) {
    std::map<std::string, Rows> by_node;
    std::map<std::string, size_t> counts;
    const cJSON *client;
    cJSON_ArrayForEach(client, list_of(records, "client_info", "cl")) {
        const std::string node = names.of(client, "am");
        if (counts[node]++ >= kMaxClients)
            continue;
        Rows &rows = by_node[node];
        if (rows.empty())
            rows.push_back({"client", "", "band", "tx", "rx", "signal", "known as"});
        const bool wired = lab::json_text(client, "ctype") == "wired";
        rows.push_back({lab::json_text(client, "type"), short_digest(client, "mk"),
                        lab::json_text(client, "ctype", "-"), number_text(client, "ngtx", " Mbit/s"),
                        number_text(client, "ngrx", " Mbit/s"), wired ? "-" : number_text(client, "sl"),
                        lab::json_text(client, "itype", "-")});
    }
    std::string text;
    for (const auto &[node, rows] : by_node) {
        text += "Clients of " + node + ": " + std::to_string(counts[node]) + "\n" + text_table(rows);
        if (counts[node] > kMaxClients)
            text += "    ... and " + std::to_string(counts[node] - kMaxClients) + " more\n";
    }
    return text;
}

std::string encryption_text(const cJSON *band) {
    static constexpr const char *kNames[] = {"none", "WPA2", "WPA2 and WPA", "WPA3", "WPA3 and WPA2"};
    const double code = lab::json_number(band, "em", -1);
    return code >= 0 && code < 5 ? kNames[static_cast<int>(code)] : "other";
}

std::string wireless_text(const Records &records) {
    static constexpr std::pair<const char *, const char *> kNetworks[] = {
        {"home", "wireless_host_info"}, {"guest", "wireless_guest_info"}, {"IoT", "wireless_iot_info"}};
    Rows rows = {{"network", "band", "on", "channel", "width", "encryption", "name"}};
    for (const auto &[network, eid] : kNetworks) {
        const cJSON *band;
        cJSON_ArrayForEach(band, list_of(records, eid, "detail")) {
            if (lab::json_number(band, "en") != 1) {
                rows.push_back({network, lab::json_text(band, "ctype"), "no"});
                continue;
            }
            std::string name = "-";
            if (member(band, "sl") != nullptr)
                name =
                    number_text(band, "sl", " bytes") + (lab::json_number(band, "he") == 1 ? ", hidden" : "");
            const std::string channel = number_text(band, "acn");
            rows.push_back({network, lab::json_text(band, "ctype"), "yes",
                            channel + (lab::json_number(band, "cn", -1) == 0 ? " (automatic)" : ""),
                            number_text(band, "bw", " MHz"), encryption_text(band), name});
        }
    }
    return rows.size() > 1 ? "Wireless networks\n" + text_table(rows) : "";
}

} // namespace

std::string summary_text(const std::vector<lab::CloudRecord> &records) {
    Records latest;
    for (const lab::CloudRecord &record : records)
        latest[record.eid] = lab::JsonTree(cJSON_Parse(record.payload.c_str()));
    const NodeNames names(latest);
    return nodes_text(latest, names) + clients_text(latest, names) + wireless_text(latest);
}
