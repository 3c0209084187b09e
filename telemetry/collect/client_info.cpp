// "client_info": counters over all confirmed clients of the mesh, and one entry a client.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>
#include <string_view>
#include <utility>

#include "collector_patterns.h"
#include "collectors.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_snapshot.h"
#include "telemetry_utils.h"

// By client_type. Code 0 is "unknown" in the table and goes out as "other", like codes beyond it.
static constexpr const char *kDeviceTypes[] = {"unknown",       "pc",      "phone",     "laptop", "tablet",
                                               "entertainment", "printer", "iot_device"};

static const char *device_type_name(uint32_t client_type) {
    return client_type == 0 || client_type >= std::size(kDeviceTypes) ? "other" : kDeviceTypes[client_type];
}

static constexpr uint32_t kIotNetwork = 2;

struct ClientCounters {
    int wired;
    int wireless;
    int iot_network;
    int guest;
    int mlo;
};

static void count_client(const PreClientInfo *client, ClientCounters *counters) {
    if (strncmp(client->wire_type, "wired", 5) == 0)
        ++counters->wired;
    else if (strncmp(client->wire_type, "wireless", 8) == 0)
        ++counters->wireless;
    if (client->network_type == kIotNetwork)
        ++counters->iot_network;
    if (client->is_guest != 0)
        ++counters->guest;
    if (client->is_mlo != 0)
        ++counters->mlo;
}

// One entry, printed from nodes that stand in it: what is allocated, and kept until the upload, is its text.
// A tree of thirteen nodes would be three times as much. Texts outlive the entry.
class ClientEntry {
  public:
    // Null stands for a missing text.
    void add_text(const char *key, const char *text) {
        add(key, text != nullptr ? cJSON_String : cJSON_NULL)->valuestring = const_cast<char *>(text);
    }
    void add_number(const char *key, double number) {
        add(key, cJSON_Number)->valuedouble = number;
    }
    // Without the key when there is no digest.
    void add_digest(const char *key, const char *digest) {
        if (*digest != '\0')
            add_text(key, digest);
    }
    JsonPtr as_text() {
        object_.type = cJSON_Object;
        object_.child = count_ > 0 ? members_ : nullptr;
        char text[kTextSize];
        return JsonPtr(telemetry_json_print_to(&object_, text, sizeof(text)) > 0 ? cJSON_CreateRaw(text)
                                                                                 : nullptr);
    }

  private:
    static constexpr int kMembers = 12;
    // Keys, two digests, six numbers of at most 23 characters, and texts of which the longest is what a
    // service says in at most 15 bytes, each of which may become six.
    static constexpr size_t kTextSize = 768;

    cJSON *add(const char *key, int type) {
        cJSON *member = &members_[count_];
        if (count_ > 0)
            members_[count_ - 1].next = member;
        ++count_;
        member->type = type;
        member->string = const_cast<char *>(key);
        return member;
    }

    cJSON object_ = {};
    cJSON members_[kMembers] = {};
    int count_ = 0;
};

// Empty when there is no MAC.
struct MacDigest {
    char text[33];

    explicit MacDigest(const char *mac) {
        if (md5_encode_str(reinterpret_cast<const uint8_t *>(mac), static_cast<int32_t>(strlen(mac)), text) !=
            0)
            text[0] = '\0';
    }
};

// Of the nodes that clients hang from, by the MAC in the snapshot.
using NodeDigests = std::map<std::string_view, MacDigest>;

static JsonPtr build_client_entry(const PreClientInfo *client, NodeDigests *nodes) {
    const MacDigest digest(client->mac);
    ClientEntry entry;
    entry.add_digest("mk", digest.text);
    entry.add_digest("am", nodes->try_emplace(client->ap_mac, client->ap_mac).first->second.text);
    entry.add_text("type", device_type_name(client->client_type));
    entry.add_text("iname", client->iot_module);
    entry.add_text("itype", client->iot_category);
    entry.add_text("ctype", client->connection_type);
    entry.add_number("ngtx", static_cast<int32_t>(client->txrate));
    entry.add_number("ngrx", static_cast<int32_t>(client->rxrate));
    entry.add_number("retx", static_cast<double>(client->retx_byte));
    entry.add_number("rerx", static_cast<double>(client->rerx_byte));
    entry.add_number("sl", std::max(client->signal_level_5g, client->signal_level_2g));
    entry.add_number("sm", static_cast<int32_t>(client->phymode));
    return entry.as_text();
}

int collect_client_list(TelemetryCtx *ctx, cJSON *payload, uint32_t *count) {
    if (ctx == nullptr || payload == nullptr || count == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    if (ctx->collect_periodic_now == 0) {
        LOG_DEBUG("dont need to collect client info!");
        return 0;
    }
    const PreClientInfo *clients = telemetry_get_client_info_list();
    const int client_num = telemetry_get_client_num();
    if (clients == nullptr || client_num < 1) {
        LOG_ERROR("no clients info!");
        return -1;
    }
    JsonPtr list(cJSON_CreateArray());
    if (!list) {
        LOG_ERROR("cJSON_CreateArray failed");
        return -1;
    }
    ClientCounters counters = {};
    NodeDigests nodes;
    uint32_t listed = 0;
    for (const PreClientInfo *client = clients; client < clients + client_num; ++client) {
        if (client->is_exist == 0)
            continue;
        count_client(client, &counters);
        JsonPtr entry = build_client_entry(client, &nodes);
        if (!entry) {
            LOG_ERROR("cJSON_CreateObject failed");
            return -1;
        }
        cJSON_AddItemToArray(list.get(), entry.release());
        ++listed;
    }
    cJSON_AddNumberToObject(payload, "wn", counters.wired);
    cJSON_AddNumberToObject(payload, "wln", counters.wireless);
    cJSON_AddNumberToObject(payload, "in", counters.iot_network);
    cJSON_AddNumberToObject(payload, "gn", counters.guest);
    cJSON_AddNumberToObject(payload, "mn", counters.mlo);
    if (!telemetry_attach_member(payload, "cl", std::move(list)))
        return -1;
    *count += listed;
    return 0;
}
