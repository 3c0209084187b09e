// The asking side of the queries between mesh nodes: one request to the synchronisation service, which
// forwards it to the satellites and joins their answers.
#include "telemetry_pre_collect.h"

#include <cstring>

#include "telemetry_bus_call.h"
#include "telemetry_handles.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_utils.h"

static constexpr int kTransferTimeoutMs = 50000;
// More nodes than any mesh has: every answer that is none costs a line of the log.
static constexpr int kMaxAnswers = 256;

int ubus_client_call(const char *object, const char *method, blob_attr *arguments,
                     void (*reply)(blob_attr *message, void *user), void *user) {
    const TelemetryBusError error = telemetry_bus_call(telemetry_bus_named_socket(), object, method,
                                                       arguments, kTransferTimeoutMs, reply, user);
    if (error == TELEMETRY_BUS_OK)
        return 0;
    if (error == TELEMETRY_BUS_NO_CONNECTION)
        LOG_ERROR("ubus connect failed");
    else
        LOG_ERROR("ubus invoke failed.");
    return -1;
}

const cJSON *getTransferMsgReply(const cJSON *answer) {
    const cJSON *result = cJSON_GetObjectItemCaseSensitive(answer, "result");
    if (result == nullptr)
        LOG_ERROR("cJSON_GetObject filed");
    return result;
}

static void apply_answer(const cJSON *answer, TelemetryTransferApply apply, void *user) {
    const cJSON *result = getTransferMsgReply(answer);
    if (result != nullptr)
        apply(result, user);
}

void telemetry_transfer_handle_reply(blob_attr *message, TelemetryTransferApply apply, void *user) {
    if (message == nullptr) {
        LOG_ERROR("error callback");
        return;
    }
    const TextPtr text(blobmsg_format_json(message, true));
    const JsonPtr root(text ? cJSON_Parse(text.get()) : nullptr);
    if (!root) {
        LOG_ERROR("cJSON Parse failed");
        return;
    }
    int64_t success = 0;
    const cJSON *data = cJSON_GetObjectItemCaseSensitive(root.get(), "data");
    if (!json_int64(root.get(), "success", &success) || success <= 0 || data == nullptr) {
        LOG_ERROR("cJSON_get_object success failed");
        return;
    }
    if (success == 1) {
        apply_answer(data, apply, user);
        return;
    }
    int64_t seen = 0;
    for (const cJSON *answer = data->child; answer != nullptr && seen < success;
         answer = answer->next, ++seen) {
        if (seen == kMaxAnswers) {
            LOG_ERROR("more than %d nodes answered, the rest is left out", kMaxAnswers);
            return;
        }
        apply_answer(answer, apply, user);
    }
    if (seen < success)
        LOG_ERROR("%lld answers announced, %lld there", static_cast<long long>(success),
                  static_cast<long long>(seen));
}

namespace {
struct TransferReply {
    TelemetryTransferApply apply;
    void *user;
};
} // namespace

static void handle_transfer_reply(blob_attr *message, void *user) {
    const auto *reply = static_cast<const TransferReply *>(user);
    telemetry_transfer_handle_reply(message, reply->apply, reply->user);
}

// Fills the request table.
static void build_transfer_request(blob_buf *request, int32_t opcode, bool include_myself,
                                   const char *ip_ap_addr) {
    blobmsg_add_u32(request, "opcode", static_cast<uint32_t>(opcode));
    blobmsg_add_string(request, "target_type", "RE");
    if (include_myself)
        blobmsg_add_u8(request, "include_myself", 1);
    void *data = blobmsg_open_table(request, "data");
    if (ip_ap_addr != nullptr) {
        void *params = blobmsg_open_table(request, "params");
        blobmsg_add_string(request, "ip_ap_addr", ip_ap_addr);
        blobmsg_close_table(request, params);
    }
    blobmsg_close_table(request, data);
}

int telemetry_transfer_request(int32_t opcode, bool include_myself, const char *ip_ap_addr,
                               TelemetryTransferApply apply, void *user) {
    BlobBuffer request;
    build_transfer_request(request.get(), opcode, include_myself, ip_ap_addr);
    TransferReply reply = {apply, user};
    return ubus_client_call("sync", "request", request.head(), handle_transfer_reply, &reply);
}

// --- Backhaul and device details ---

// Copies a member's text into its field; what does not fit is cut and said.
template <size_t N> static void copy_member(char (&field)[N], const cJSON *object, const char *key) {
    const char *text = json_text(object, key);
    if (text == nullptr)
        return;
    if (strlen(text) >= N)
        LOG_ERROR("%s is longer than %zu characters, cut", key, N - 1);
    copy_text(field, text);
}

static void apply_ports(MeshDeviceInfo *device, const cJSON *ports) {
    int index = 0;
    for (const cJSON *entry = ports->child; entry != nullptr; entry = entry->next, ++index) {
        if (index >= kWiredPortCount) {
            LOG_ERROR("port_info has more than %d ports, cut", kWiredPortCount);
            return;
        }
        json_number(entry, "port_num", &device->wired_ports[index].port);
        json_number(entry, "port_speed", &device->wired_ports[index].speed);
    }
}

static void apply_backhaul(MeshDeviceInfo *device, const cJSON *links) {
    int index = 0;
    for (const cJSON *entry = links->child; entry != nullptr; entry = entry->next, ++index) {
        if (index >= kBackhaulSlots) {
            LOG_ERROR("backhaul_info has more than %d links, cut", kBackhaulSlots);
            break;
        }
        BackhaulInfo *slot = &device->backhaul[index];
        copy_member(slot->backhaul_type, entry, "backhaul_type");
        json_number(entry, "backhaul_rssi", &slot->rssi);
        json_number(entry, "backhaul_txrate", &slot->stats->tx);
        json_number(entry, "backhaul_rxrate", &slot->stats->rx);
        json_number(entry, "backhaul_channel", &slot->channel);
        json_number(entry, "backhaul_channle_util", &slot->chan_util);
    }
    device->band_num = index;
}

void telemetry_apply_re_backhaul_result(const cJSON *result) {
    const char *sender = json_text(result, "mac");
    char mac[18] = {};
    if (sender == nullptr || mac_to_upper_short_line(mac, sender) != 0)
        return;
    MeshDeviceInfo *device = telemetry_find_device_by_mac(mac);
    if (device == nullptr)
        return;
    json_number(result, "wired_port_used_num", &device->wire_port_num);
    const char *parent = json_text(result, "parent_mac");
    if (parent != nullptr && mac_to_upper_short_line(mac, parent) == 0)
        copy_text(device->parent_mac, mac);
    copy_member(device->ping_delay, result, "ping_delay");
    copy_member(device->hw_version, result, "hw_version");
    const cJSON *ports = cJSON_GetObjectItemCaseSensitive(result, "port_info");
    if (cJSON_IsArray(ports))
        apply_ports(device, ports);
    const cJSON *links = cJSON_GetObjectItemCaseSensitive(result, "backhaul_info");
    if (cJSON_IsArray(links))
        apply_backhaul(device, links);
}

static void apply_device_result(const cJSON *result, void *) {
    telemetry_apply_re_backhaul_result(result);
}

void handle_ubus_call_from_re_backhaul_info(blob_attr *message, void *user) {
    telemetry_transfer_handle_reply(message, apply_device_result, user);
}

int telemetry_collect_re_backhaul_info(const char *fap_ipaddr) {
    if (fap_ipaddr == nullptr) {
        LOG_ERROR("invalid input");
        return -1;
    }
    BlobBuffer request;
    build_transfer_request(request.get(), TELEMETRY_TRANSFER_DEVICE, true, fap_ipaddr);
    return ubus_client_call("sync", "request", request.head(), handle_ubus_call_from_re_backhaul_info,
                            nullptr);
}

// --- Station details of the satellites' clients ---

void parseClientStaInfoMsg(const cJSON *result) {
    if (telemetry_get_client_info_list() == nullptr) {
        LOG_ERROR("client info is NULL");
        return;
    }
    const cJSON *list = cJSON_GetObjectItemCaseSensitive(result, "client_sta_list");
    bool empty_said = false; // once a list: it may have a hundred thousand of them
    for (const cJSON *entry = cJSON_IsArray(list) ? list->child : nullptr; entry != nullptr;
         entry = entry->next) {
        if (entry->child == nullptr) {
            if (!empty_said)
                LOG_ERROR("pItem is NULL");
            empty_said = true;
            continue;
        }
        const char *address = json_text(entry, "mac_addr");
        char mac[18] = {};
        if (address == nullptr || mac_to_upper_short_line(mac, address) != 0)
            continue;
        PreClientInfo *client = telemetry_find_client_by_mac(mac);
        if (client == nullptr)
            continue;
        json_number(entry, "pymode", &client->phymode);
        json_number(entry, "ng_rxrate", &client->rxrate);
        json_number(entry, "ng_txrate", &client->txrate);
    }
}

static void apply_client_result(const cJSON *result, void *) {
    parseClientStaInfoMsg(result);
}

void handle_ubus_call_from_re_client_sta_list(blob_attr *message, void *user) {
    telemetry_transfer_handle_reply(message, apply_client_result, user);
}

int telemetry_get_re_client_sta_list() {
    BlobBuffer request;
    build_transfer_request(request.get(), TELEMETRY_TRANSFER_CLIENT, false, nullptr);
    return ubus_client_call("sync", "request", request.head(), handle_ubus_call_from_re_client_sta_list,
                            nullptr);
}
