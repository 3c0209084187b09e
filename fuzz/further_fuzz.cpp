// What other programs leave for the collectors of settings and states: the AFC agent's and the security
// suite's files, the network daemon's reply, counters, attributes of USB devices, configuration packages. The
// first byte chooses. A command that would be run is checked instead: its host must be an address or a name.
#include <cstdint>
#include <cstring>
#include <string>

#include <unistd.h>

#include "collectors.h"
#include "support/fuzz_answer.h"
#include "support/fuzz_root.h"
#include "restart_info.h"
#include "telemetry_command.h"
#include "telemetry_json.h"
#include "telemetry_paths.h"
#include "telemetry_utils.h"

namespace {

// No payload of these modules comes near: the largest is a table of texts of 2 KiB, six bytes a control
// character.
constexpr long kLargestPayload = 100000;

struct FuzzSource {
    const char *path;
    TelemetryCollector collect;
};

constexpr FuzzSource kSources[] = {
    {"/tmp/afc/status", collect_afc_info},
    {"/tmp/havenguard/stats", collect_havenguard_v2_info},
    {"/sys/class/net/eth1/statistics/rx_bytes", collect_internet_info},
    {"/sys/bus/usb/devices/1-1/idVendor", collect_usb_info},
    {"/sys/bus/usb/devices/1-1/bDeviceClass", collect_usb_info},
    {"/sys/bus/usb/devices/1-1:1.0/bInterfaceClass", collect_usb_info},
    {"/proc/uptime", collect_restart_info},
    {"/tmp/telemetry/restart", collect_restart_info},
    {"/etc/config/restart_schedule", collect_restart_info},
    {"/etc/config/eco_mode", collect_ecomode_info},
    {"/etc/config/qos", collect_qos_info},
    {"/etc/config/vpn", collect_advanced_info},
    {"/etc/config/network", collect_internet_info},
    {"/etc/config/telemetry", collect_internet_info},
    {"/etc/config/parental", collect_havenguard_v2_info},
};
constexpr size_t kFileCount = std::size(kSources);
// After the files: the network daemon's reply as bytes and as JSON.
constexpr size_t kChoices = kFileCount + 2;

void run(TelemetryCollector collect) {
    TelemetryCtx ctx = {};
    copy_text(ctx.dev_mac, "020000000101");
    ctx.collect_stgy2_now = 1;
    const JsonPtr payload(cJSON_CreateObject());
    uint32_t count = 0;
    collect(&ctx, payload.get(), &count);
    require((count == 0) == (payload->child == nullptr));
    require(telemetry_json_length(payload.get()) < kLargestPayload);
}

} // namespace

int telemetry_command_run(const char *const argv[], int, const TelemetryCommandOutput *output, int *) {
    require(telemetry_is_host(argv[3]) == 1);
    memset(output->text, 0, output->size);
    return TELEMETRY_COMMAND_ENDED;
}

uint32_t telemetry_commands_killed() {
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    for (const FuzzSource &source : kSources)
        std::filesystem::create_directories(
            std::filesystem::path(fuzz_root().path(source.path)).parent_path());
    fuzz_root().write("/etc/profile.d/profile",
                      "config afc\n\toption support yes\nconfig eco_mode\n\toption support yes\n");
    require(freopen("/dev/null", "w", stdout) != nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const size_t choice = *data++ % kChoices;
    size--;
    for (const FuzzSource &source : kSources)
        unlink(fuzz_root().path(source.path).c_str());
    fuzz_root().write(kBackupConfigFile, "");
    fake_services.clear();
    fake_service_calls.clear();
    ServiceAnswer status;
    status.json =
        R"({"up":true,"l3_device":"eth1","route":[{"target":"0.0.0.0","mask":0,"nexthop":"198.51.100.1"}]})";
    if (choice >= kFileCount) {
        status = answer_of(data, size, choice > kFileCount);
    } else {
        fuzz_root().write("/sys/bus/usb/devices/1-1/bDeviceClass", "00\n");
        fuzz_root().write(kSources[choice].path, {reinterpret_cast<const char *>(data), size});
    }
    fake_services["network.interface.wan.status"] = status;
    fake_services["network.interface.wan6.status"] = status;
    telemetry_count_daemon_start();
    run(choice < kFileCount ? kSources[choice].collect : collect_internet_info);
    return 0;
}
