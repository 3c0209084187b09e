// What the mesh tells the daemon: the device list, the satellites' client list, the replies of the three
// services as messages and as JSON, the answers to each opcode. The first byte chooses; telemetry_bus_call()
// is the one of fake_services.h and hands the input over.
#include <cstdint>
#include <cstring>

#include <unistd.h>

#include "collectors.h"
#include "support/fuzz_answer.h"
#include "support/fuzz_root.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_pre_client.h"
#include "telemetry_pre_collect.h"
#include "telemetry_pre_device.h"
#include "telemetry_satellites.h"
#include "telemetry_snapshot.h"

namespace {

template <size_t N> void require_terminated(const char (&text)[N]) {
    require(strnlen(text, N) < N);
}

// Every text ends inside its field, and every record can be printed and reported.
void check_snapshot() {
    const PreCollectInfo &info = telemetry_pre_collect;
    require(info.client_num >= 0 && info.client_num <= 4096 &&
            (info.client_num == 0 || info.clients != nullptr));
    for (int i = 0; i < info.client_num; ++i) {
        const PreClientInfo &client = info.clients[i];
        require_terminated(client.ap_mac);
        require_terminated(client.hostname);
        require_terminated(client.ipaddr);
        require_terminated(client.mac);
        require_terminated(client.wire_type);
        require_terminated(client.connection_type);
        require_terminated(client.device_id);
    }
    for (int i = 0; i < info.device_num; ++i) {
        const MeshDeviceInfo &device = info.devices[i];
        require_terminated(device.mac);
        require_terminated(device.ping_delay);
        require_terminated(device.hw_version);
        require_terminated(device.parent_mac);
        require(device.band_num >= 0 && device.band_num <= kBackhaulSlots);
        for (const BackhaulInfo &slot : device.backhaul)
            require(slot.stats != nullptr && strnlen(slot.backhaul_type, sizeof(slot.backhaul_type)) < 23);
    }
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    telemetry_print_client_info();
    telemetry_print_device_info();
    telemetry_debug_level = TELEMETRY_LOG_INFO;
}

using Collector = decltype(&collect_client_list);

void report(std::initializer_list<Collector> collectors) {
    static TelemetryCtx ctx;
    ctx.collect_periodic_now = 1;
    for (const Collector collect : collectors) {
        const JsonPtr payload(cJSON_CreateObject());
        uint32_t count = 0;
        collect(&ctx, payload.get(), &count);
        require(telemetry_json_print(payload.get()) != nullptr);
    }
}

// Records for the input to meet: two nodes, three clients.
void lay_out() {
    telemetry_init_device_info_list(2);
    snprintf(telemetry_pre_collect.devices[0].mac, 18, "02-00-00-01-00-01");
    snprintf(telemetry_pre_collect.devices[1].mac, 18, "02-00-00-01-00-02");
    snprintf(telemetry_pre_collect.devices[0].ipaddr, 16, "192.168.0.1");
    telemetry_pre_collect.devices[0].is_fap = 1;
    telemetry_free_client_info_list();
    telemetry_pre_collect.clients = static_cast<PreClientInfo *>(calloc(3, sizeof(PreClientInfo)));
    telemetry_pre_collect.client_num = 3;
    for (int i = 0; i < 3; ++i) {
        snprintf(telemetry_pre_collect.clients[i].mac, 18, "02-00-00-02-00-0%d", i + 1);
        telemetry_pre_collect.clients[i].is_exist = 1;
    }
}

constexpr const char *kServices[] = {"tfstats.get", "client_mgmt.get_myself", "client_mgmt.get", "sync.list",
                                     "sync.request"};

void run_service(int which) {
    int32_t count = 0;
    switch (which) {
    case 0:
        telemetry_get_client_list_from_tfstats();
        break;
    case 1:
        telemetry_complete_ap_client_list_info();
        telemetry_get_myself_client_num(&count);
        break;
    case 2:
        telemetry_complete_device_type_info();
        break;
    case 3:
        telemetry_get_client_host_ap_mac_from_sync_server();
        break;
    default:
        telemetry_collect_RE_device_info();
        telemetry_get_re_client_sta_list();
        report({collect_usb_info, collect_afc_info});
    }
}

} // namespace

extern "C" unsigned sleep(unsigned) {
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_root();
    // The log is what is read of the records, but nobody reads it.
    require(freopen("/dev/null", "w", stdout) != nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const int choice = *data++ % 14;
    size--;
    const std::string_view file(reinterpret_cast<const char *>(data), size);
    lay_out();
    fake_services.clear();
    fake_service_calls.clear();
    if (choice < 10) {
        fake_services[kServices[choice / 2]] = answer_of(data, size, choice % 2 == 1);
        run_service(choice / 2);
    } else if (choice < 12) {
        fake_services["sync.request"] = answer_of(data, size, choice % 2 == 1);
        report({collect_system_info}); // it asks the satellites for their figures
    } else if (choice == 12) {
        fuzz_root().write(kReClientListPath, file);
        telemetry_complete_re_client_list_info();
    } else {
        fuzz_root().write(kMeshDeviceListPath, file);
        telemetry_init_device_list_info_from_file();
        telemetry_get_fap_ipaddr();
        telemetry_get_device_mac_by_id("a");
    }
    check_snapshot();
    report({collect_client_list, collect_device_list});
    telemetry_free_pre_collect_info();
    require(telemetry_pre_collect.clients == nullptr && telemetry_pre_collect.devices == nullptr);
    return 0;
}
