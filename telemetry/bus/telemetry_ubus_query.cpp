// The bus methods that answer the main node's queries: each measures this node and replies with what it
// found, then "err_code", -1 when a part of it could not be had.
#include "telemetry_ubus_query.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "afc_info.h"
#include "system_info.h"
#include "usb_info.h"
#include "telemetry_blob.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_links.h"
#include "telemetry_pre_client.h"
#include "telemetry_pre_device.h"
#include "telemetry_snapshot.h"
#include "telemetry_utils.h"

TelemetryCtx *telemetry_ubus_ctx;

int telemetry_ubus_reply(ubus_context *bus, ubus_request_data *request, BlobBuffer &reply, int err_code) {
    blobmsg_add_u32(reply.get(), "err_code", static_cast<uint32_t>(err_code));
    return ubus_send_reply(bus, request, reply.head());
}

static int reply_failure(ubus_context *bus, ubus_request_data *request) {
    BlobBuffer reply;
    return telemetry_ubus_reply(bus, request, reply, -1);
}

// The asking node finds the record of the answer by this.
static void add_own_mac(blob_buf *reply) {
    char mac[kMacTextSize] = "";
    if (telemetry_ubus_ctx != nullptr)
        mac_to_upper_short_line(mac, telemetry_ubus_ctx->dev_mac);
    blobmsg_add_string(reply, "mac", mac);
}

static uint32_t to_int32(double number) {
    const int64_t whole = json_whole(number);
    return static_cast<uint32_t>(std::clamp<int64_t>(whole, INT32_MIN, INT32_MAX));
}

// --- Clients ---

// Devices with several links are known by their multi-link address.
static void add_station(blob_buf *reply, const ClientStaInfo &station) {
    char digits[13] = "";
    char mac[kMacTextSize] = "";
    const uint8_t *address = station.is_mlo == 1 ? station.mld_mac : station.mac;
    if (mac_uint8_to_char(digits, sizeof(digits), address, 6) != 0 ||
        mac_to_upper_short_line(mac, digits) != 0)
        return;
    const BlobTable table(reply);
    blobmsg_add_string(reply, "mac_addr", mac);
    blobmsg_add_u16(reply, "pymode", static_cast<uint16_t>(station.phymode));
    blobmsg_add_u64(reply, "ng_rxrate", station.rxrate);
    blobmsg_add_u64(reply, "ng_txrate", station.txrate);
}

static void add_stations(blob_buf *reply, const ClientStaInfo *stations, uint32_t count) {
    const BlobArray array(reply, "client_sta_list");
    for (uint32_t i = 0; i < count; ++i)
        add_station(reply, stations[i]);
}

int ubus_collect_client_info(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
                             blob_attr *) {
    int32_t client_num = 0;
    if (telemetry_get_myself_client_num(&client_num) != 0) {
        LOG_ERROR("get cur device client num falied");
        return reply_failure(bus, request);
    }
    std::unique_ptr<ClientStaInfo[]> stations;
    uint32_t found = 0;
    if (client_num > 0) {
        stations.reset(new (std::nothrow) ClientStaInfo[kStationCapacity]());
        if (!stations) {
            LOG_ERROR("malloc failed");
            return reply_failure(bus, request);
        }
        ClientStaList list = {static_cast<uint8_t>(client_num), kStationCapacity, stations.get()};
        // What could be gathered counts, also when one of the interfaces does not answer.
        telemetry_get_client_sta_info(&list, &found);
    } else {
        LOG_INFO("client num is 0");
    }
    BlobBuffer reply;
    add_stations(reply.get(), stations.get(), std::min(found, kStationCapacity));
    return telemetry_ubus_reply(bus, request, reply, 0);
}

// --- System ---

namespace {
struct SystemMember {
    const char *key;
    double SystemInfoRecord::*figure;
};
} // namespace

static constexpr SystemMember kLoadMembers[] = {
    {"cpu_usage", &SystemInfoRecord::cpu_usage},
    {"cpu_freq", &SystemInfoRecord::cpu_freq},
    {"mem_total", &SystemInfoRecord::mem_total},
    {"mem_usage", &SystemInfoRecord::mem_usage},
};
static constexpr SystemMember kTemperatureMembers[] = {
    {"wifi0_temp", &SystemInfoRecord::wifi0_temp},
    {"wifi1_temp", &SystemInfoRecord::wifi1_temp},
    {"wifi2_temp", &SystemInfoRecord::wifi2_temp},
};

static void add_lowpower(blob_buf *reply, const SystemInfoRecord &record, bool success) {
    const BlobTable table(reply, "lowpower");
    blobmsg_add_string(reply, "res", success ? "success" : "fail");
    blobmsg_add_u32(reply, "associate_time", static_cast<uint32_t>(record.lowpower_associate_time));
    blobmsg_add_u32(reply, "associate_duration", static_cast<uint32_t>(record.lowpower_associate_duration));
}

int ubus_collect_system_info(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
                             blob_attr *) {
    const std::unique_ptr<SystemInfoRecord> record(new (std::nothrow) SystemInfoRecord());
    if (!record) {
        LOG_ERROR("malloc system info failed");
        return reply_failure(bus, request);
    }
    collect_data_for_system_info(record.get());
    const bool lowpower = collect_data_for_lowpower_info(record.get()) == 1;

    BlobBuffer reply;
    blobmsg_add_string(reply.get(), "sys_mode", record->work_mode);
    for (const SystemMember &member : kLoadMembers)
        blobmsg_add_u32(reply.get(), member.key, to_int32((*record).*member.figure));
    blobmsg_add_u64(reply.get(), "mem_free", static_cast<uint64_t>(json_whole(record->mem_free)));
    for (const SystemMember &member : kTemperatureMembers)
        blobmsg_add_u32(reply.get(), member.key, to_int32((*record).*member.figure));
    blobmsg_add_u32(reply.get(), "cpu_temp", static_cast<uint32_t>(record->cpu_temp));
    blobmsg_add_u32(reply.get(), "nat_num", static_cast<uint32_t>(record->nat_num));
    add_own_mac(reply.get());
    add_lowpower(reply.get(), *record, lowpower);
    return telemetry_ubus_reply(bus, request, reply, 0);
}

// --- USB and AFC ---

int ubus_collect_usb_info(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
                          blob_attr *) {
    const std::unique_ptr<UsbInfoRecord> record(new (std::nothrow) UsbInfoRecord());
    if (!record) {
        LOG_ERROR("malloc system info failed");
        return reply_failure(bus, request);
    }
    if (collect_myself_usb_info(record.get()) != 0)
        return reply_failure(bus, request);

    BlobBuffer reply;
    blobmsg_add_u32(reply.get(), "usb_enable", static_cast<uint32_t>(record->usb_enable));
    blobmsg_add_u32(reply.get(), "config_is_change", static_cast<uint32_t>(record->config_is_change));
    blobmsg_add_u32(reply.get(), "usb_type", static_cast<uint32_t>(record->usb_type));
    blobmsg_add_string(reply.get(), "vendor_id", record->vendor_id);
    blobmsg_add_string(reply.get(), "product_id", record->product_id);
    add_own_mac(reply.get());
    return telemetry_ubus_reply(bus, request, reply, 0);
}

int ubus_collect_afc_info(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
                          blob_attr *) {
    const JsonPtr object(cJSON_CreateObject());
    if (!object) {
        LOG_ERROR("Failed to create JSON object");
        return reply_failure(bus, request);
    }
    if (collect_myself_afc_info(object.get()) != 0) {
        LOG_ERROR("collect_myself_afc_info failed");
        return reply_failure(bus, request);
    }
    BlobBuffer reply;
    const TextPtr text = telemetry_json_print(object.get());
    if (!text || !blobmsg_add_json_from_string(reply.get(), text.get())) {
        LOG_ERROR("Failed to convert JSON to blob_buf");
        return reply_failure(bus, request);
    }
    add_own_mac(reply.get());
    return telemetry_ubus_reply(bus, request, reply, 0);
}

// --- Device ---

enum { ADDRESS_ARGUMENT, ADDRESS_ARGUMENT_COUNT };
static constexpr blobmsg_policy kAddressArguments[ADDRESS_ARGUMENT_COUNT] = {
    {"ip_ap_addr", BLOBMSG_TYPE_STRING},
};

// The asking node's address, or null after logging why. It becomes part of a command, so it has to be an
// address.
static const char *parse_asking_address(blob_attr *message) {
    blob_attr *arguments[ADDRESS_ARGUMENT_COUNT] = {};
    if (message == nullptr ||
        blobmsg_parse(kAddressArguments, ADDRESS_ARGUMENT_COUNT, arguments, blob_data(message),
                      static_cast<unsigned>(blob_len(message))) != 0) {
        LOG_ERROR("parse blobmsg failed");
        return nullptr;
    }
    const char *address = blobmsg_get_string(arguments[ADDRESS_ARGUMENT]);
    if (address == nullptr) {
        LOG_ERROR("ip_ap_addr is NULL!");
        return nullptr;
    }
    if (telemetry_is_ip_address(address) != 1) {
        LOG_ERROR("telemetry ip_ap_addr is invalid.");
        return nullptr;
    }
    return address;
}

// Ports are counted up to the last that the board profile names.
static bool add_wired_ports(blob_buf *reply) {
    int32_t used = -1;
    WiredPortInfo ports[kWiredPortCount] = {};
    // Only the main node has a port that is always in use: its WAN port.
    const bool found =
        telemetry_collect_wired_port_num(&used, ports, kWiredPortCount, check_if_device_is_FAP()) == 0;
    if (!found)
        LOG_ERROR("get wired port num  failed");
    int count = kWiredPortCount;
    while (count > 0 && ports[count - 1].port == 0 && ports[count - 1].speed == 0)
        --count;
    blobmsg_add_u32(reply, "wired_port_used_num", static_cast<uint32_t>(used));
    const BlobArray array(reply, "port_info");
    for (int i = 0; i < count; ++i) {
        const BlobTable table(reply);
        blobmsg_add_u64(reply, "port_num", static_cast<uint64_t>(static_cast<int64_t>(ports[i].port)));
        blobmsg_add_u64(reply, "port_speed", static_cast<uint64_t>(static_cast<int64_t>(ports[i].speed)));
    }
    return found;
}

static bool add_link_texts(blob_buf *reply, const char *asking_address) {
    bool complete = true;
    char parent_mac[18] = "";
    if (telemetry_collect_device_parent_mac(parent_mac) != 0) {
        LOG_ERROR("get parent mac failed");
        complete = false;
    }
    char ping_delay[128] = "";
    const auto ping =
        strchr(asking_address, ':') != nullptr ? telemetry_ping_delay_v6 : telemetry_ping_delay_v4;
    if (ping(ping_delay, asking_address) != 0) {
        LOG_ERROR("get ping delay info failed");
        complete = false;
    }
    char hw_version[65] = "";
    if (telemetry_get_hwversion_info_from_getfirm(hw_version) != 0) {
        LOG_ERROR("get hw version failed");
        complete = false;
    }
    blobmsg_add_string(reply, "parent_mac", parent_mac);
    blobmsg_add_string(reply, "ping_delay", ping_delay);
    blobmsg_add_string(reply, "hw_version", hw_version);
    return complete;
}

// A link that could be measured in part only is sent with that part.
static bool add_backhaul(blob_buf *reply) {
    BackhaulStats stats[kBackhaulSlots] = {};
    BackhaulInfo slots[kBackhaulSlots] = {};
    for (int i = 0; i < kBackhaulSlots; ++i)
        slots[i].stats = &stats[i];
    const bool found = telemetry_collect_backhaul_info(slots) == 0;
    if (!found)
        LOG_ERROR("get bakchaul info failed");
    const BlobArray array(reply, "backhaul_info");
    for (int i = 0; i < kBackhaulBands; ++i) {
        const BlobTable table(reply);
        blobmsg_add_string(reply, "backhaul_type", slots[i].backhaul_type);
        blobmsg_add_u16(reply, "backhaul_rssi", slots[i].rssi);
        blobmsg_add_u16(reply, "backhaul_txrate", stats[i].tx);
        blobmsg_add_u16(reply, "backhaul_rxrate", stats[i].rx);
        blobmsg_add_u32(reply, "backhaul_channel", static_cast<uint32_t>(slots[i].channel));
        blobmsg_add_u16(reply, "backhaul_channle_util", slots[i].chan_util);
    }
    return found;
}

int ubus_collect_device_info(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
                             blob_attr *message) {
    const char *address = parse_asking_address(message);
    if (address == nullptr) {
        reply_failure(bus, request);
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    BlobBuffer reply;
    bool complete = add_wired_ports(reply.get());
    complete = add_link_texts(reply.get(), address) && complete;
    complete = add_backhaul(reply.get()) && complete;
    add_own_mac(reply.get());
    return telemetry_ubus_reply(bus, request, reply, complete ? 0 : -1);
}
