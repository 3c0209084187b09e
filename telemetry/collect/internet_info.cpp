// "internet_info": WAN settings when they changed, state and counters of the WAN device, delays on strategy-2
// cycles.
#include <cstdlib>
#include <cstring>
#include <string>

#include "collector_patterns.h"
#include "collectors.h"
#include "telemetry_bus_call.h"
#include "telemetry_json_message.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_repeat.h"
#include "telemetry_uci.h"
#include "telemetry_uci_backup.h"
#include "telemetry_utils.h"

static constexpr int kStatusTimeoutMs = 1000;
static constexpr int kIfNameSize = 16;
// Longer than any host name, so that a cut one is still none.
static constexpr int kHostSize = 512;

static constexpr TelemetryIndexEntry kInternetTable[] = {
    {0, "np", 3, TELEMETRY_UCI_SYSTEM, 0, "network", "wan", "wan_type", TELEMETRY_VALUE_STRING},
    {1, "pr", 3, TELEMETRY_UCI_SYSTEM, 0, "network", "wan", "proto", TELEMETRY_VALUE_STRING},
    {2, "mtu", 3, TELEMETRY_UCI_SYSTEM, 0, "network", "wan", "mtu", TELEMETRY_VALUE_INT},
    {3, "pd", 3, TELEMETRY_UCI_SYSTEM, 0, "network", "wan", "peerdns", TELEMETRY_VALUE_FLAG},
    {4, "p6", 3, TELEMETRY_UCI_SYSTEM, 0, "network", "wan6", "proto", TELEMETRY_VALUE_STRING},
};

struct DeviceCounter {
    const char *key;
    const char *file; // below /sys/class/net/<device>/statistics/
};

static constexpr DeviceCounter kDeviceCounters[] = {
    {"rb", "rx_bytes"},  {"tb", "tx_bytes"},  {"rp", "rx_packets"}, {"tp", "tx_packets"},
    {"re", "rx_errors"}, {"te", "tx_errors"}, {"rd", "rx_dropped"}, {"td", "tx_dropped"},
};

// What the network daemon tells of one interface.
struct InterfaceStatus {
    const char *object;         // bus object
    const char *default_target; // target of the default route
    bool replied;               // with anything
    bool answered;
    bool up;
    int64_t uptime;           // seconds, -1 when unknown
    char device[kIfNameSize]; // empty when unknown or no device name
    char gateway[kHostSize];  // empty when there is none
};

// A name that can stand in a path: nothing that would lead elsewhere.
static bool is_device_name(const char *name) {
    static constexpr char kAllowed[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-@:";
    return name[0] != '\0' && strlen(name) < kIfNameSize && name[strspn(name, kAllowed)] == '\0' &&
           strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

static void read_gateway(const cJSON *routes, InterfaceStatus *status) {
    for (const cJSON *route = cJSON_IsArray(routes) ? routes->child : nullptr; route != nullptr;
         route = route->next) {
        const char *target = json_text(route, "target");
        const char *nexthop = json_text(route, "nexthop");
        int64_t mask = 0;
        if (target == nullptr || nexthop == nullptr || strcmp(target, status->default_target) != 0 ||
            !json_int64(route, "mask", &mask) || mask != 0)
            continue;
        copy_text(status->gateway, nexthop);
        return;
    }
}

static void handle_status_reply(blob_attr *message, void *user) {
    auto *status = static_cast<InterfaceStatus *>(user);
    status->replied = true;
    const JsonPtr reply = telemetry_json_of_message(message);
    int64_t up = 0;
    if (!json_int64(reply.get(), "up", &up)) {
        LOG_ERROR("%s: status has no \"up\"", status->object);
        return;
    }
    status->answered = true;
    status->up = up != 0;
    if (!json_int64(reply.get(), "uptime", &status->uptime) || status->uptime < 0 ||
        status->uptime > INT32_MAX) {
        status->uptime = -1;
        if (status->up)
            LOG_ERROR("%s: status has no \"uptime\"", status->object);
    }
    const char *device = json_text(reply.get(), "l3_device");
    if (device != nullptr && is_device_name(device))
        copy_text(status->device, device);
    else if (device != nullptr)
        LOG_ERROR("%s: l3_device is no device name", status->object);
    read_gateway(cJSON_GetObjectItemCaseSensitive(reply.get(), "route"), status);
}

static void query_status(InterfaceStatus *status) {
    const TelemetryBusError error =
        telemetry_bus_call(telemetry_bus_default_socket(), status->object, "status", nullptr,
                           kStatusTimeoutMs, handle_status_reply, status);
    // An object that is absent stays absent: many routers have no IPv6 connection.
    if (error == TELEMETRY_BUS_NO_OBJECT)
        LOG_MISSING("%s is not on the bus", status->object);
    else if (error != TELEMETRY_BUS_OK || !status->replied)
        LOG_ERROR("%s status failed", status->object);
}

static void add_device_counters(const char *device, cJSON *payload, uint32_t *count) {
    const std::string directory = std::string(kNetDeviceDir) + "/" + device + "/statistics/";
    if (telemetry_file_exists(directory.c_str()) == 0) {
        LOG_MISSING("%s has no counters", device);
        return;
    }
    for (const DeviceCounter &counter : kDeviceCounters) {
        uint64_t number = 0;
        if (telemetry_read_number_file((directory + counter.file).c_str(), &number))
            telemetry_add_reading(payload, counter.key, static_cast<double>(number), count);
    }
}

struct DelayProbe {
    const char *key;
    const char *option; // host in `telemetry`.`internet`
    int (*ping)(char *output, const char *host);
};

static constexpr DelayProbe kDelayV4 = {"d4", "ping_v4", telemetry_ping_delay_v4};
static constexpr DelayProbe kDelayV6 = {"d6", "ping_v6", telemetry_ping_delay_v6};

// A link-local gateway cannot be asked without its device, and a link without a gateway says so by "0.0.0.0"
// or "::".
static bool is_reachable_gateway(const char *gateway) {
    return gateway[strspn(gateway, "0.:")] != '\0' && strncasecmp(gateway, "fe80", 4) != 0;
}

// The configured host, or the gateway.
static void add_delay(const DelayProbe &probe, const char *gateway, cJSON *payload, uint32_t *count) {
    char host[kHostSize] = {};
    if (telemetry_get_uci_value("telemetry", "internet", probe.option, host, sizeof(host),
                                TELEMETRY_UCI_SYSTEM) != 0 &&
        is_reachable_gateway(gateway))
        copy_text(host, gateway);
    if (host[0] == '\0')
        return;
    if (telemetry_is_host(host) == 0) {
        LOG_ERROR("%s is no address or host name", probe.option);
        return;
    }
    char delay[128] = {};
    if (probe.ping(delay, host) == 0 && delay[0] != '\0')
        telemetry_add_reading(payload, probe.key, strtod(delay, nullptr), count);
}

int collect_internet_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count) {
    if (ctx == nullptr || payload == nullptr || count == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    telemetry_collect_watched_table(
        kInternetTable, "collect internet info successfully, now data collect count is: %d!", payload, count);
    InterfaceStatus wan = {"network.interface.wan", "0.0.0.0", false, false, false, -1, {}, {}};
    InterfaceStatus wan6 = {"network.interface.wan6", "::", false, false, false, -1, {}, {}};
    query_status(&wan);
    query_status(&wan6);
    if (wan.answered) {
        telemetry_add_reading(payload, "up", wan.up ? 1 : 0, count);
        if (wan.uptime >= 0)
            telemetry_add_reading(payload, "ut", static_cast<double>(wan.uptime), count);
    }
    if (wan6.answered)
        telemetry_add_reading(payload, "u6", wan6.up ? 1 : 0, count);
    if (wan.device[0] != '\0')
        add_device_counters(wan.device, payload, count);
    if (ctx->collect_stgy2_now != 0) {
        add_delay(kDelayV4, wan.gateway, payload, count);
        add_delay(kDelayV6, wan6.gateway, payload, count);
    }
    return 0;
}
