// Client records from the services of this node: traffic statistics, client management, the satellites'
// client file, the synchronisation service.
#include "telemetry_pre_client.h"

#include <cstring>
#include <iterator>

#include "telemetry_blob.h"
#include "telemetry_bus_call.h"
#include "telemetry_handles.h"
#include "telemetry_json_message.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_paths.h"
#include "telemetry_utils.h"

static constexpr int kServiceTimeoutMs = 5000;
// More clients than any mesh serves: a statistics service that announces more is wrong, and costs no memory.
static constexpr int32_t kMaxClients = 4096;

// One call of a service of this node; every failure has the same words but for the look-up's.
static int call_service(const char *object, const char *method, blob_attr *arguments, TelemetryBusReply reply,
                        void *user) {
    switch (telemetry_bus_call(telemetry_bus_default_socket(), object, method, arguments, kServiceTimeoutMs,
                               reply, user)) {
    case TELEMETRY_BUS_OK:
        return 0;
    case TELEMETRY_BUS_NO_CONNECTION:
        LOG_ERROR("ubus connect failed");
        return -1;
    case TELEMETRY_BUS_NO_OBJECT:
        LOG_ERROR("lookup %s project failed", strcmp(object, "tfstats") == 0 ? "tfstats" : "client_mgmt");
        return -1;
    case TELEMETRY_BUS_CALL_FAILED:
        break;
    }
    LOG_ERROR("ubus_invoke failed");
    return -1;
}

// Parses the members of a table or message.
template <int N> static int parse_table(const blobmsg_policy *policy, blob_attr *(&tb)[N], blob_attr *table) {
    return blobmsg_parse(policy, N, tb, blobmsg_data(table), static_cast<unsigned>(blobmsg_data_len(table)));
}

// Whether an element of a reply is a sound table: what stands in lists is not checked by whoever parsed the
// list.
static bool is_table(blob_attr *entry) {
    return blobmsg_check_attr(entry, false) && blobmsg_type(entry) == BLOBMSG_TYPE_TABLE;
}

namespace {
// Copies texts of one reply into their fields. What does not fit is cut, and said once for the whole reply.
class CutTexts {
  public:
    explicit CutTexts(const char *source) : source_(source) {}
    ~CutTexts() {
        if (count_ > 0)
            LOG_ERROR("%s: %d texts are too long and were cut, the first is a %s", source_, count_,
                      first_key_);
    }
    CutTexts(const CutTexts &) = delete;
    CutTexts &operator=(const CutTexts &) = delete;
    void copy(char *field, size_t size, const char *text, const char *key) {
        if (strlen(text) >= size && count_++ == 0)
            first_key_ = key;
        copy_text(field, size, text);
    }

  private:
    const char *source_;
    const char *first_key_ = "";
    int count_ = 0;
};
} // namespace

// --- Traffic statistics: the clients ---

enum { TFSTATS_TOTAL, TFSTATS_LIST, TFSTATS_COUNT };
static const blobmsg_policy kTfstatsPolicy[TFSTATS_COUNT] = {
    {"total", BLOBMSG_TYPE_INT32},
    {"tfslist", BLOBMSG_TYPE_ARRAY},
};

enum { TFS_ENTRY_IP, TFS_ENTRY_MAC, TFS_ENTRY_RETX, TFS_ENTRY_RERX, TFS_ENTRY_COUNT };
static const blobmsg_policy kTfsEntryPolicy[TFS_ENTRY_COUNT] = {
    {"ip", BLOBMSG_TYPE_STRING},
    {"mac", BLOBMSG_TYPE_STRING},
    {"retx_byte", BLOBMSG_TYPE_INT64},
    {"rerx_byte", BLOBMSG_TYPE_INT64},
};

// False when the entry has no ip or mac and so takes no record.
static bool fill_tfstats_client(PreClientInfo *client, blob_attr *entry, CutTexts *cuts) {
    blob_attr *tb[TFS_ENTRY_COUNT] = {};
    if (!is_table(entry))
        return false;
    parse_table(kTfsEntryPolicy, tb, entry);
    char mac[kMacTextSize] = {};
    if (tb[TFS_ENTRY_IP] == nullptr || tb[TFS_ENTRY_MAC] == nullptr ||
        mac_to_upper_short_line(mac, blobmsg_get_string(tb[TFS_ENTRY_MAC])) != 0)
        return false;
    cuts->copy(client->ipaddr, sizeof(client->ipaddr), blobmsg_get_string(tb[TFS_ENTRY_IP]), "ip");
    copy_text(client->mac, mac);
    client->phymode = client->txrate = client->rxrate = UINT32_MAX;
    if (tb[TFS_ENTRY_RETX] != nullptr)
        client->retx_byte = static_cast<int64_t>(blobmsg_get_u64(tb[TFS_ENTRY_RETX]));
    if (tb[TFS_ENTRY_RERX] != nullptr)
        client->rerx_byte = static_cast<int64_t>(blobmsg_get_u64(tb[TFS_ENTRY_RERX]));
    return true;
}

static void fill_tfstats_clients(blob_attr *list, int32_t total) {
    PreCollectInfo *info = &telemetry_pre_collect;
    CutTexts cuts("tfstats");
    int32_t filled = 0;
    blob_attr *entry = nullptr;
    size_t rest = 0;
    blobmsg_for_each_attr(entry, list, rest) {
        if (filled >= total) {
            LOG_ERROR("tfslist has more than %d entries, cut", total);
            break;
        }
        if (fill_tfstats_client(&info->clients[filled], entry, &cuts))
            ++filled;
    }
    info->client_num = filled;
}

// *user receives -1 when memory ran out.
static void handle_tfstats_reply(blob_attr *message, void *user) {
    blob_attr *tb[TFSTATS_COUNT] = {};
    if (message != nullptr)
        parse_table(kTfstatsPolicy, tb, message);
    if (tb[TFSTATS_TOTAL] == nullptr || tb[TFSTATS_LIST] == nullptr) {
        LOG_ERROR("blobmsg prase tfstats array failed");
        return;
    }
    auto total = static_cast<int32_t>(blobmsg_get_u32(tb[TFSTATS_TOTAL]));
    if (total < 0 || total > kMaxClients) {
        LOG_ERROR("tfstats announces %d clients, using %d", total, total < 0 ? 0 : kMaxClients);
        total = total < 0 ? 0 : kMaxClients;
    }
    telemetry_free_client_info_list();
    if (total == 0)
        return;
    PreCollectInfo *info = &telemetry_pre_collect;
    info->clients = telemetry_zeroed<PreClientInfo>(static_cast<size_t>(total));
    if (info->clients == nullptr) {
        LOG_ERROR("malloc failed!");
        *static_cast<int *>(user) = -1;
        return;
    }
    fill_tfstats_clients(tb[TFSTATS_LIST], total);
}

int telemetry_get_client_list_from_tfstats() {
    int result = 0;
    if (call_service("tfstats", "get", nullptr, handle_tfstats_reply, &result) != 0)
        return -1;
    return result;
}

// --- Client management: what a client is ---

enum ClientFieldKind { CLIENT_FIELD_TEXT, CLIENT_FIELD_FLAG, CLIENT_FIELD_U32 };

// A member of a client entry and where it goes. The first rows are those of both sources.
struct ClientField {
    const char *key;
    ClientFieldKind kind;
    size_t offset;
    size_t size;
};

#define CLIENT_FIELD(kind, member) \
    { #member, kind, offsetof(PreClientInfo, member), sizeof(PreClientInfo::member) }
static constexpr ClientField kClientFields[] = {
    CLIENT_FIELD(CLIENT_FIELD_TEXT, hostname),       CLIENT_FIELD(CLIENT_FIELD_TEXT, wire_type),
    CLIENT_FIELD(CLIENT_FIELD_FLAG, is_guest),       CLIENT_FIELD(CLIENT_FIELD_TEXT, connection_type),
    CLIENT_FIELD(CLIENT_FIELD_TEXT, device_id),      CLIENT_FIELD(CLIENT_FIELD_U32, network_type),
    CLIENT_FIELD(CLIENT_FIELD_U32, signal_level_2g), CLIENT_FIELD(CLIENT_FIELD_U32, signal_level_5g),
    CLIENT_FIELD(CLIENT_FIELD_U32, client_type),
};
// Only the satellites' file tells this of a client.
static constexpr ClientField kSatelliteClientFields[] = {CLIENT_FIELD(CLIENT_FIELD_FLAG, is_mlo)};
#undef CLIENT_FIELD

static void set_text_field(PreClientInfo *client, const ClientField &field, const char *text,
                           CutTexts *cuts) {
    cuts->copy(reinterpret_cast<char *>(client) + field.offset, field.size, text, field.key);
}

static void set_number_field(PreClientInfo *client, const ClientField &field, int64_t number) {
    char *place = reinterpret_cast<char *>(client) + field.offset;
    const auto value = static_cast<uint32_t>(number);
    if (field.kind == CLIENT_FIELD_FLAG)
        *place = number != 0 ? 1 : 0;
    else
        memcpy(place, &value, sizeof(value));
}

enum { ENTRY_MAC, ENTRY_FIRST_FIELD };
static constexpr int kEntryMembers = ENTRY_FIRST_FIELD + static_cast<int>(std::size(kClientFields));

// "mac" and the fields above, as the service types them.
static const blobmsg_policy *client_entry_policy() {
    static blobmsg_policy policy[kEntryMembers];
    if (policy[ENTRY_MAC].name == nullptr) {
        policy[ENTRY_MAC] = {"mac", BLOBMSG_TYPE_STRING};
        for (int i = 0; i < static_cast<int>(std::size(kClientFields)); ++i)
            policy[ENTRY_FIRST_FIELD + i] = {kClientFields[i].key, kClientFields[i].kind == CLIENT_FIELD_TEXT
                                                                       ? BLOBMSG_TYPE_STRING
                                                                       : BLOBMSG_TYPE_INT32};
    }
    return policy;
}

// Parses one top-level entry; false when it is no table.
static bool parse_client_entry(blob_attr *entry, blob_attr *(&tb)[kEntryMembers]) {
    return is_table(entry) && parse_table(client_entry_policy(), tb, entry) == 0;
}

// The record of an entry's address, or null.
static PreClientInfo *client_of_address(const char *address) {
    char mac[kMacTextSize] = {};
    if (address == nullptr || mac_to_upper_short_line(mac, address) != 0)
        return nullptr;
    return telemetry_find_client_by_mac(mac);
}

static PreClientInfo *client_of_entry(blob_attr **tb) {
    return tb[ENTRY_MAC] != nullptr ? client_of_address(blobmsg_get_string(tb[ENTRY_MAC])) : nullptr;
}

static void complete_client_from_entry(PreClientInfo *client, blob_attr **tb, CutTexts *cuts) {
    client->is_exist = 1;
    for (int i = 0; i < static_cast<int>(std::size(kClientFields)); ++i) {
        blob_attr *member = tb[ENTRY_FIRST_FIELD + i];
        if (member == nullptr)
            continue;
        if (kClientFields[i].kind == CLIENT_FIELD_TEXT)
            set_text_field(client, kClientFields[i], blobmsg_get_string(member), cuts);
        else
            set_number_field(client, kClientFields[i], blobmsg_get_u32(member));
    }
}

// Calls `visit` for every entry of a reply that parses.
static void for_each_client_entry(blob_attr *message, void (*visit)(blob_attr **tb, void *user), void *user) {
    blob_attr *entry = nullptr;
    size_t rest = 0;
    if (message == nullptr)
        return;
    blobmsg_for_each_attr(entry, message, rest) {
        blob_attr *tb[kEntryMembers] = {};
        if (parse_client_entry(entry, tb))
            visit(tb, user);
    }
}

static void complete_own_client(blob_attr **tb, void *user) {
    PreClientInfo *client = client_of_entry(tb);
    if (client != nullptr)
        complete_client_from_entry(client, tb, static_cast<CutTexts *>(user));
}

static void handle_myself_reply(blob_attr *message, void *) {
    CutTexts cuts("client_mgmt");
    for_each_client_entry(message, complete_own_client, &cuts);
}

int telemetry_complete_ap_client_list_info() {
    return call_service("client_mgmt", "get_myself", nullptr, handle_myself_reply, nullptr);
}

static void count_own_client(blob_attr **, void *user) {
    ++*static_cast<int32_t *>(user);
}

static void handle_myself_count_reply(blob_attr *message, void *user) {
    for_each_client_entry(message, count_own_client, user);
}

int telemetry_get_myself_client_num(int32_t *count) {
    if (count == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    *count = 0;
    return call_service("client_mgmt", "get_myself", nullptr, handle_myself_count_reply, count);
}

static void set_client_type(blob_attr **tb, void *) {
    constexpr size_t kTypeField = std::size(kClientFields) - 1;
    static_assert(kClientFields[kTypeField].offset == offsetof(PreClientInfo, client_type));
    PreClientInfo *client = client_of_entry(tb);
    blob_attr *type = tb[ENTRY_FIRST_FIELD + kTypeField];
    if (client != nullptr && type != nullptr)
        client->client_type = blobmsg_get_u32(type);
}

static void handle_type_reply(blob_attr *message, void *) {
    for_each_client_entry(message, set_client_type, nullptr);
}

int telemetry_complete_device_type_info() {
    BlobBuffer arguments;
    blobmsg_add_u32(arguments.get(), "request_type", 0);
    return call_service("client_mgmt", "get", arguments.head(), handle_type_reply, nullptr);
}

// --- The satellites' clients ---

static void complete_client_field(PreClientInfo *client, const ClientField &field, const cJSON *entry,
                                  CutTexts *cuts) {
    int64_t number = 0;
    if (field.kind == CLIENT_FIELD_TEXT) {
        const char *text = json_text(entry, field.key);
        if (text != nullptr)
            set_text_field(client, field, text, cuts);
    } else if (json_int64(entry, field.key, &number)) {
        set_number_field(client, field, number);
    }
}

static void complete_satellite_client(const cJSON *entry, CutTexts *cuts) {
    PreClientInfo *client = client_of_address(json_text(entry, "mac"));
    if (client == nullptr)
        return;
    client->is_exist = 1;
    for (const ClientField &field : kSatelliteClientFields)
        complete_client_field(client, field, entry, cuts);
    for (const ClientField &field : kClientFields)
        complete_client_field(client, field, entry, cuts);
}

int telemetry_complete_re_client_list_info() {
    if (telemetry_pre_collect.clients == nullptr) {
        LOG_ERROR("clients info list is NULL");
        return -1;
    }
    if (telemetry_pre_collect.client_num == 0) {
        LOG_ERROR("clients number is 0");
        return -1;
    }
    const TextPtr text = telemetry_read_text(kReClientListPath, kListFileSize);
    if (text == nullptr) {
        LOG_ERROR("open file %s fialed", kReClientListPath);
        return -1;
    }
    CutTexts cuts(kReClientListPath);
    if (!json_each_element(text.get(),
                           [&](const cJSON *entry) { complete_satellite_client(entry, &cuts); })) {
        LOG_ERROR("cJSON parse failed");
        return -1;
    }
    return 0;
}

// --- The node that hosts a client ---

// *user becomes 0 when the reply has been used, -1 when it cannot be.
static void handle_sync_list_reply(blob_attr *message, void *user) {
    if (message == nullptr)
        return;
    const JsonPtr nodes = telemetry_json_of_message(message);
    if (!nodes) {
        LOG_ERROR("cJSON_Parse failed");
        *static_cast<int *>(user) = -1;
        return;
    }
    *static_cast<int *>(user) = 0;
    for (int i = 0; i < telemetry_pre_collect.client_num; ++i) {
        PreClientInfo *client = &telemetry_pre_collect.clients[i];
        if (client->is_exist == 0)
            continue;
        const cJSON *node = cJSON_GetObjectItemCaseSensitive(nodes.get(), client->device_id);
        const char *address = json_text(node, "mac");
        char mac[kMacTextSize] = {};
        if (address != nullptr && mac_to_upper_short_line(mac, address) == 0)
            copy_text(client->ap_mac, mac);
    }
}

int telemetry_get_client_host_ap_mac_from_sync_server() {
    // 1: nothing came at all.
    int result = 1;
    if (call_service("sync", "list", nullptr, handle_sync_list_reply, &result) != 0)
        return -1;
    if (result == 1)
        LOG_ERROR("sync list get NULL");
    return result == 0 ? 0 : -1;
}
