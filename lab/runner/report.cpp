#include "report.h"
#include "text_table.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>

#include <openssl/evp.h>

namespace {

constexpr size_t kLineWidth = 110;
constexpr size_t kMaxRows = 12; // of one list; the rest is counted

using NamesByDigest = std::map<std::string, std::string>;

std::string digest(const std::string &text) {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(text.data(), text.size(), bytes, &length, EVP_md5(), nullptr);
    std::string out;
    for (unsigned i = 0; i < length; i++) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", bytes[i]);
        out += digits;
    }
    return out;
}

// "02:00:00:01:00:0a" as the records digest it: "02-00-00-01-00-0A".
std::string digested_form(std::string mac) {
    for (char &c : mac)
        c = c == ':' ? '-' : static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return mac;
}

NamesByDigest names_of(const lab::Scenario &scenario) {
    NamesByDigest names;
    for (const lab::ScenarioNode &node : scenario.nodes)
        names[digest(digested_form(node.mac))] = node.nickname.empty() ? node.mac : node.nickname;
    for (const lab::ScenarioClient &client : scenario.clients)
        names[digest(digested_form(client.mac))] = client.hostname.empty() ? client.mac : client.hostname;
    return names;
}

std::string name_of(const NamesByDigest &names, const cJSON *object, const char *key) {
    std::string text = lab::json_text(object, key);
    auto found = names.find(text);
    return found != names.end() ? found->second : text.empty() ? "-" : text.substr(0, 8);
}

std::string value_text(const cJSON *item) {
    if (!item || cJSON_IsNull(item))
        return "-";
    return cJSON_IsString(item) ? item->valuestring : lab::print_json(item);
}

std::string value_of(const cJSON *object, const char *key) {
    return value_text(cJSON_GetObjectItemCaseSensitive(object, key));
}

struct Column {
    const char *heading;
    const char *key;  // "tem.cpu": member of a member; '#' in front: a digest, shown by name
    const char *unit; // behind the value
};

std::string cell(const cJSON *entry, const Column &column, const NamesByDigest &names) {
    std::string key = column.key;
    if (key[0] == '#')
        return name_of(names, entry, column.key + 1);
    size_t dot = key.find('.');
    std::string value;
    if (dot == key.npos)
        value = value_of(entry, column.key);
    else
        value = value_of(cJSON_GetObjectItemCaseSensitive(entry, key.substr(0, dot).c_str()),
                         column.key + dot + 1);
    return value == "-" ? value : value + column.unit;
}

// A list of the payload, an entry a row.
std::string list_table(const cJSON *list, const std::vector<Column> &columns, const NamesByDigest &names) {
    std::vector<std::vector<std::string>> rows = {{}};
    for (const Column &column : columns)
        rows[0].push_back(column.heading);
    const cJSON *entry;
    size_t more = 0;
    cJSON_ArrayForEach(entry, list) {
        if (rows.size() > kMaxRows) {
            more++;
            continue;
        }
        rows.emplace_back();
        for (const Column &column : columns)
            rows.back().push_back(cell(entry, column, names));
    }
    std::string text = text_table(rows);
    return more ? text + "    ... and " + std::to_string(more) + " more\n" : text;
}

// Members that are no lists, as key=value, broken at the line's width.
std::string plain_members(const cJSON *payload) {
    std::string text, line = "   ";
    const cJSON *item;
    cJSON_ArrayForEach(item, payload) {
        std::string member = std::string(" ") + item->string + "=" + value_text(item);
        if (line.size() + member.size() > kLineWidth && line.size() > 3) {
            text += line + "\n";
            line = "   ";
        }
        line += member;
    }
    return text + line + "\n";
}

struct ListLayout {
    const char *eid, *list;
    std::vector<Column> columns;
};

const std::vector<ListLayout> &layouts() {
    static const std::vector<ListLayout> all = {
        {"system_info",
         "sl",
         {{"node", "#dm", ""},
          {"mode", "wm", ""},
          {"cpu", "cu", " %"},
          {"freq", "cfq", " kHz"},
          {"memory", "mt", " kB"},
          {"used", "mu", " %"},
          {"free", "mf", " kB"},
          {"wifi temp", "tem.w0", " C"},
          {"cpu temp", "tem.cpu", " C"},
          {"connections", "natn", ""},
          {"low power", "lad", " s"}}},
        {"device_info",
         "dl",
         {{"node", "#dm", ""},
          {"model", "dmodel", ""},
          {"firmware", "fw", ""},
          {"hw", "hv", ""},
          {"parent", "#pm", ""},
          {"delay", "ddl", " ms"},
          {"ports", "wpn", ""},
          {"lan", "lpn", ""},
          {"backhaul", "bh", ""}}},
        {"client_info",
         "cl",
         {{"client", "#mk", ""},
          {"node", "#am", ""},
          {"type", "type", ""},
          {"link", "ctype", ""},
          {"tx", "ngtx", ""},
          {"rx", "ngrx", ""},
          {"signal", "sl", ""},
          {"mode", "sm", ""},
          {"IoT", "iname", ""},
          {"category", "itype", ""}}},
    };
    return all;
}

// Backhaul links in one cell: "2.4G ch 6 287/258 -> rssi".
std::string backhaul_text(const cJSON *links) {
    std::string text;
    const cJSON *link;
    cJSON_ArrayForEach(link, links) {
        text += (text.empty() ? "" : ", ") + value_of(link, "bt") + " ch " + value_of(link, "bc") + " " +
                value_of(link, "btx") + "/" + value_of(link, "brx") + " util " + value_of(link, "cu") + "%";
    }
    return text;
}

bool is_list_of_objects(const cJSON *item) {
    return cJSON_IsArray(item) && cJSON_IsObject(item->child);
}

// Any list of objects: a column a key, in the order in which the keys first appear.
std::string any_list_table(const cJSON *list, const NamesByDigest &names) {
    std::vector<Column> columns;
    const cJSON *entry, *item;
    cJSON_ArrayForEach(entry, list) {
        cJSON_ArrayForEach(item, entry) {
            const char *key = item->string;
            if (std::none_of(columns.begin(), columns.end(),
                             [&](const Column &c) { return !strcmp(c.heading, key); }))
                columns.push_back({key, strcmp(key, "dm") == 0 ? "#dm" : key, ""});
        }
    }
    return "    " + std::string(list->string) + "\n" + list_table(list, columns, names);
}

std::string payload_text(const std::string &eid, cJSON *payload, const NamesByDigest &names) {
    for (const ListLayout &layout : layouts()) {
        cJSON *list = cJSON_GetObjectItemCaseSensitive(payload, layout.list);
        if (eid != layout.eid || !cJSON_IsArray(list))
            continue;
        cJSON *entry;
        cJSON_ArrayForEach(entry, list) {
            cJSON *links = cJSON_GetObjectItemCaseSensitive(entry, "bh");
            if (links)
                cJSON_ReplaceItemInObjectCaseSensitive(entry, "bh",
                                                       cJSON_CreateString(backhaul_text(links).c_str()));
        }
        std::string text = list_table(list, layout.columns, names);
        cJSON_DeleteItemFromObjectCaseSensitive(payload, layout.list);
        return payload->child ? plain_members(payload) + text : text;
    }
    std::string lists;
    for (cJSON *item = payload->child, *next; item; item = next) {
        next = item->next;
        if (!is_list_of_objects(item))
            continue;
        lists += any_list_table(item, names);
        cJSON_DeleteItemFromObjectCaseSensitive(payload, item->string);
    }
    return (payload->child ? plain_members(payload) : "") + lists;
}

} // namespace

std::string report_records(const std::vector<lab::CloudRecord> &records, const lab::Scenario &scenario) {
    NamesByDigest names = names_of(scenario);
    std::string text;
    size_t number = 0;
    for (const lab::CloudRecord &record : records) {
        text += "record " + std::to_string(++number) + "  " + record.eid + "  (post " +
                std::to_string(record.post) + ", collected at " + record.ct + ", " +
                std::to_string(record.payload.size()) + " bytes)\n";
        lab::JsonTree payload(cJSON_Parse(record.payload.c_str()));
        text += payload ? payload_text(record.eid, payload.get(), names) : "    not JSON\n";
    }
    return text;
}

std::string left_behind_text(const cJSON *status, const std::vector<lab::CloudRecord> &records) {
    const auto member = [](const cJSON *object, const char *name) {
        return cJSON_GetObjectItemCaseSensitive(object, name);
    };
    const cJSON *counters = member(status, "counters");
    const double collected = lab::json_number(counters, "records", -1);
    const auto uploaded = static_cast<double>(records.size());
    if (collected < 0)
        return "how many records were collected is not known: the daemon does not tell its status\n";
    if (collected <= uploaded)
        return "";
    std::string names;
    const cJSON *module;
    cJSON_ArrayForEach(module, member(member(status, "last_collection"), "modules")) {
        const auto arrived = [&](const lab::CloudRecord &record) { return record.eid == module->string; };
        if (lab::json_number(module, "items") > 0 && std::none_of(records.begin(), records.end(), arrived))
            names += (names.empty() ? "" : ", ") + std::string(module->string);
    }
    // The daemon's counters of what it drops, in its order.
    static constexpr std::pair<const char *, const char *> kReasons[] = {
        {"items_shrunk", "the list was longer than 65536 bytes"},
        {"items_cleared", "dropped by \"clear\""},
        {"items_in_flight", "collected while an upload was on its way"},
    };
    std::string reasons;
    for (const auto &[counter, reason] : kReasons) {
        const double items = lab::json_number(counters, counter);
        if (items > 0)
            reasons += "; " + std::to_string(static_cast<long>(items)) + " items: " + reason;
    }
    const double waiting = lab::json_number(member(status, "list"), "records");
    if (waiting > 0)
        reasons += "; " + std::to_string(static_cast<long>(waiting)) + " records wait for the next upload";
    return "collected but not uploaded: " + std::to_string(static_cast<long>(collected - uploaded)) + " of " +
           std::to_string(static_cast<long>(collected)) + " records" +
           (names.empty() ? "" : " (" + names + ")") + reasons + "\n";
}
