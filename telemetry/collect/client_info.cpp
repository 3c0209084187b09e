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
#include "telemetry_json_read.h"
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

// Keys are constant texts, which the tree only refers to: with hundreds of clients copies would be a quarter
// of it.
static void add_member(cJSON *object, const char *key, cJSON *item) {
    if (!cJSON_AddItemToObjectCS(object, key, item))
        cJSON_Delete(item);
}

static void add_number(cJSON *object, const char *key, double number) {
    add_member(object, key, cJSON_CreateNumber(number));
}

// Null stands for a missing constant text.
static void add_constant(cJSON *object, const char *key, const char *text) {
    add_member(object, key, text != nullptr ? cJSON_CreateStringReference(text) : cJSON_CreateNull());
}

static void add_text(cJSON *object, const char *key, const char *text) {
    add_member(object, key, cJSON_CreateString(text));
}

static void add_digest(cJSON *object, const char *key, const char *mac) {
    telemetry_add_mac_md5_to_cJSON_object(object, key, mac);
}

// By what the snapshot says: the text that the first entry with it holds, and the later ones refer to. All go
// together, with the list.
using SharedTexts = std::map<std::string_view, const char *>;

static void add_shared(cJSON *object, const char *key, const char *source,
                       void (*add)(cJSON *, const char *, const char *), SharedTexts *texts) {
    const char *&text = (*texts)[source];
    if (text != nullptr) {
        add_constant(object, key, text);
        return;
    }
    add(object, key, source);
    text = json_text(object, key);
}

struct ClientTexts {
    SharedTexts nodes;
    SharedTexts connections;
};

static JsonPtr build_client_entry(const PreClientInfo *client, ClientTexts *texts) {
    JsonPtr entry(cJSON_CreateObject());
    if (!entry)
        return nullptr;
    cJSON *object = entry.get();
    add_digest(object, "mk", client->mac);
    add_shared(object, "am", client->ap_mac, add_digest, &texts->nodes);
    add_constant(object, "type", device_type_name(client->client_type));
    add_constant(object, "iname", client->iot_module);
    add_constant(object, "itype", client->iot_category);
    add_shared(object, "ctype", client->connection_type, add_text, &texts->connections);
    add_number(object, "ngtx", static_cast<int32_t>(client->txrate));
    add_number(object, "ngrx", static_cast<int32_t>(client->rxrate));
    add_number(object, "retx", static_cast<double>(client->retx_byte));
    add_number(object, "rerx", static_cast<double>(client->rerx_byte));
    add_number(object, "sl", std::max(client->signal_level_5g, client->signal_level_2g));
    add_number(object, "sm", static_cast<int32_t>(client->phymode));
    return entry;
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
    ClientTexts texts;
    uint32_t listed = 0;
    for (const PreClientInfo *client = clients; client < clients + client_num; ++client) {
        if (client->is_exist == 0)
            continue;
        count_client(client, &counters);
        JsonPtr entry = build_client_entry(client, &texts);
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
