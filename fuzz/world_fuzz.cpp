// A router as its input describes it: pieces, each the content of a file, the answer of a service, the output
// of a command, or what the driver says. File `sources` names them for each target by kind of piece.
#include <cstring>
#include <fstream>
#include <sstream>

#include <unistd.h>

#include "afc_info.h"
#include "collectors.h"
#include "restart_info.h"
#include "support/fuzz_target.h"
#include "system_info.h"
#include "telemetry_collect.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_links.h"
#include "telemetry_log.h"
#include "telemetry_main.h"
#include "telemetry_paths.h"
#include "telemetry_platform_iwinfo.h"
#include "telemetry_platform_mtk.h"
#include "telemetry_pre_client.h"
#include "telemetry_pre_collect.h"
#include "telemetry_pre_device.h"
#include "telemetry_satellites.h"
#include "telemetry_snapshot.h"
#include "telemetry_ubus_query.h"
#include "telemetry_uci_package.h"

namespace {

TelemetryCtx ctx;

// --- What must hold ---

template <size_t... N> void require_terminated(const char (&...texts)[N]) {
    require(((strnlen(texts, N) < N) && ...));
}

// Every text ends inside its field, and every record can be printed.
void check_snapshot() {
    const PreCollectInfo &info = telemetry_pre_collect;
    require(info.client_num >= 0 && info.client_num <= 4096 &&
            (info.client_num == 0 || info.clients != nullptr));
    for (int i = 0; i < info.client_num; ++i) {
        const PreClientInfo &client = info.clients[i];
        require_terminated(client.ap_mac, client.mac, client.hostname, client.ipaddr, client.wire_type,
                           client.connection_type, client.device_id);
    }
    for (int i = 0; i < info.device_num; ++i) {
        const MeshDeviceInfo &device = info.devices[i];
        require_terminated(device.mac, device.parent_mac, device.ping_delay, device.hw_version);
        require(device.band_num >= 0 && device.band_num <= kBackhaulSlots);
        for (const BackhaulInfo &slot : device.backhaul) {
            require(slot.stats != nullptr);
            require_terminated(slot.backhaul_type);
        }
    }
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    telemetry_print_client_info();
    telemetry_print_device_info();
    telemetry_debug_level = TELEMETRY_LOG_ERROR;
}

// A record has what it counts, and is no longer than one of such input can be: the largest is a table of
// texts of 2 KiB, six bytes a control character.
template <int (*...Collectors)(TelemetryCtx *, cJSON *, uint32_t *)> void report() {
    const JsonPtr list(cJSON_CreateArray());
    const TelemetryUciCycle cycle;
    for (const auto collect : {Collectors...})
        telemetry_collect_data_by_module(&ctx, list.get(), "record", collect);
    require(((Collectors(nullptr, nullptr, nullptr) <= 0) && ...));
    const FuzzPlenty plenty;
    const cJSON *record = nullptr;
    cJSON_ArrayForEach(record, list.get()) {
        size_t length = 0;
        require(cJSON_GetObjectItem(record, "cnt")->valuedouble >= 1 &&
                cJSON_GetObjectItem(record, "ep")->child != nullptr);
        require(telemetry_json_print(record, &length) != nullptr && length < 2000000);
    }
}

// --- Runs ---

// An input without a piece: a router with nothing.
void run_without_anything() {
    const FuzzPlenty plenty;
    char name[16] = {};
    for (const WlanPlatformOps *ops : {&wlan_platform_ops_iwinfo, &wlan_platform_ops_mtk}) {
        wlan_platform_ops = ops;
        call_without_arguments<wlan_get_device_temperature, wlan_get_cpu_temperature,
                               wlan_get_backhaul_ap_channel, wlan_get_uplink_rate, wlan_get_channel_util,
                               wlan_get_sta_if_name, wlan_get_band_if_name, wlan_get_wifi_bandwidth,
                               wlan_get_band_client_sta_info>();
        require(wlan_get_sta_if_name(9, name, 16) == 0 && wlan_get_band_if_name(9, 0, name, 16) == 0);
    }
    call_without_arguments<collect_data_for_system_info, telemetry_collect_wired_port_num,
                           telemetry_collect_backhaul_info, telemetry_pre_device_info,
                           telemetry_collect_RE_device_info, telemetry_get_client_sta_info>();
}

// Records for the input to meet: two nodes, three clients.
void lay_out() {
    const FuzzPlenty plenty;
    telemetry_init_device_info_list(2);
    snprintf(telemetry_pre_collect.devices[0].mac, 18, "02-00-00-01-00-01");
    snprintf(telemetry_pre_collect.devices[1].mac, 18, "02-00-00-01-00-02");
    snprintf(telemetry_pre_collect.devices[0].ipaddr, 16, "192.168.0.1");
    telemetry_pre_collect.devices[0].is_fap = 1;
    telemetry_pre_collect.clients = static_cast<PreClientInfo *>(calloc(3, sizeof(PreClientInfo)));
    telemetry_pre_collect.client_num = 3;
    for (int i = 0; i < 3; ++i) {
        snprintf(telemetry_pre_collect.clients[i].mac, 18, "02-00-00-02-00-0%d", i + 1);
        telemetry_pre_collect.clients[i].is_exist = 1;
    }
}

void leave() {
    check_snapshot();
    report<collect_client_list, collect_device_list>();
}

void run_clients() {
    telemetry_init_device_info_list(2);
    telemetry_pre_clients_info();
    leave();
}

void run_devices() {
    telemetry_pre_device_info(&ctx);
    telemetry_get_device_mac_by_id("a");
    char parent[18] = {};
    telemetry_collect_device_parent_mac(parent);
    require_terminated(parent);
    report<collect_system_info>();
    leave();
}

void run_satellites() {
    lay_out();
    telemetry_collect_RE_device_info();
    telemetry_get_re_client_sta_list();
    report<collect_system_info, collect_usb_info, collect_afc_info>();
    leave();
}

void run_links() {
    BackhaulStats stats[kBackhaulSlots] = {};
    BackhaulInfo slots[kBackhaulSlots] = {};
    for (int i = 0; i < kBackhaulSlots; ++i)
        slots[i].stats = &stats[i];
    for (int look = 0; look < 2; ++look)
        telemetry_collect_backhaul_info(slots);
    uint32_t width = 0;
    wlan_get_wifi_bandwidth(&width);
    double degrees = 0;
    wlan_get_cpu_temperature(&degrees);
    wlan_get_device_temperature("wifi1", &degrees);
}

// Exactly the room that the list tells, so that an entry too many is seen.
void run_driver() {
    const auto capacity =
        static_cast<uint32_t>(fuzz_driver_answer != nullptr ? fuzz_driver_answer->size() % 200 : 9);
    const uint32_t used = capacity / 3;
    std::vector<ClientStaInfo> room(capacity);
    ClientStaList list = {0, capacity, room.data()};
    uint32_t count = used;
    wlan_get_band_client_sta_info("rax2", &list, &count);
    require(count >= used && count - used <= kMtkStationRoom && (count == used || count <= capacity));
    lay_out();
    telemetry_get_client_sta_list();
    run_links();
    leave();
}

void run_iwinfo() {
    wlan_platform_ops = &wlan_platform_ops_iwinfo;
    wlan_iwinfo_forget();
    lay_out();
    telemetry_get_client_sta_list();
    run_links();
    leave();
}

void run_restarts() {
    telemetry_count_daemon_start();
    report<collect_restart_info>();
}

void run_start() {
    TelemetryCtx started = {};
    telemetry_load_options();
    telemetry_load_uci_config(&started);
    telemetry_get_device_info(&started);
}

void run_cloud_info() {
    telemetry_init_device_list_info_from_file();
    report<collect_cloud_info>();
    leave();
}

void run_own_node() {
    lay_out();
    report<collect_system_info>();
    leave();
}

constexpr struct {
    const char *name;
    void (*run)();
} kWorlds[] = {
    {"clients", run_clients},
    {"devices", run_devices},
    {"satellites", run_satellites},
    {"iwinfo", run_iwinfo},
    {"driver", run_driver},
    {"own_node", run_own_node},
    {"internet", report<collect_internet_info>},
    {"usb", report<collect_usb_info>},
    {"suites", report<collect_afc_info, collect_havenguard_v2_info>},
    {"restarts", run_restarts},
    {"wireless", report<collect_wireless_host_info, collect_wireless_guest_info, collect_wireless_iot_info>},
    {"settings", report<collect_ecomode_info, collect_iptv_info, collect_qos_info, collect_quicksetup_info,
                        collect_advanced_info>},
    {"cloud_info", run_cloud_info},
    {"start", run_start},
};

// --- Making it ---

void (*run)();
std::vector<std::string> sources; // by kind of piece: "/a/file", "object.method", "!command", "driver"

void place(const std::string &source, std::string_view text) {
    static std::string driver;
    if (source.ends_with("/driver")) {
        static_cast<void>(symlink(std::string(text).c_str(), fuzz_root().path(source).c_str()));
    } else if (source[0] == '/') {
        fuzz_root().write(source, text);
    } else if (source != "driver") {
        fuzz_answers[source].emplace_back(text);
    } else {
        driver = text;
        fuzz_driver_answer = &driver;
    }
}

void make_world(std::string_view input) {
    const FuzzPlenty plenty;
    for (const std::string &source : sources) {
        if (source[0] == '/')
            unlink(fuzz_root().path(source).c_str());
    }
    fuzz_root().write(kBackupConfigFile, "");
    for (const FuzzPiece &piece : pieces_of(input))
        place(sources[static_cast<uint8_t>(piece.kind - 'a') % sources.size()], piece.text);
}

void run_world(const uint8_t *data, size_t size) {
    make_world({reinterpret_cast<const char *>(data), size});
    ctx.collect_stgy2_now = ctx.collect_periodic_now = size % 8 != 0;
    if (size == 0)
        run_without_anything();
    run();
}

void end_world() {
    telemetry_free_pre_collect_info();
    require(telemetry_pre_collect.clients == nullptr && telemetry_pre_collect.devices == nullptr);
    wlan_platform_ops = &wlan_platform_ops_mtk;
    telemetry_log_console = true;
}

void start_world() {
    for (const auto &known : kWorlds) {
        if (fuzz_target->name == known.name)
            run = known.run;
    }
    std::ifstream file(FUZZ_SOURCES);
    for (std::string line, word; sources.empty() && std::getline(file, line);) {
        std::istringstream words(line);
        words >> word;
        while (word == fuzz_target->name && words >> sources.emplace_back())
            std::filesystem::create_directories(
                std::filesystem::path(fuzz_root().path(sources.back())).parent_path());
    }
    require(sources.size() > 1);
    sources.pop_back();
    fuzz_root().write("/etc/profile.d/profile", "config afc\n\toption support yes\n");
    copy_text(ctx.dev_mac, "020000010001");
}

const FuzzTargets registered = [] {
    std::vector<FuzzTarget> targets;
    for (const auto &known : kWorlds)
        targets.push_back({known.name, run_world, mutate_pieces, start_world, end_world});
    return FuzzTargets(targets);
}();

} // namespace
