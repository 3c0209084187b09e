// What other programs leave for the collectors of settings and states: the AFC agent's and the security
// suite's files, the network daemon's reply, counters, attributes of USB devices, configuration packages. The
// first byte chooses. A command that would be run is checked instead: its host must be an address or a name.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../tests/support/fake_services.h"
#include "collectors.h"
#include "restart_info.h"
#include "telemetry_json.h"
#include "telemetry_paths.h"
#include "telemetry_utils.h"

namespace {

// No payload of these modules comes near: the largest is a table of texts of 2 KiB, six bytes a control
// character.
constexpr long kLargestPayload = 100000;

void require(bool holds) {
    if (!holds)
        abort();
}

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

void make_directories(const std::string &path) {
    for (size_t at = path.find('/', 1); at != path.npos; at = path.find('/', at + 1))
        mkdir(path.substr(0, at).c_str(), 0700);
}

const std::string &root() {
    static const std::string directory = [] {
        char name[] = "/tmp/further-fuzz-XXXXXX";
        require(mkdtemp(name) != nullptr);
        setenv("TELEMETRY_SYSROOT", name, 1);
        for (const FuzzSource &source : kSources)
            make_directories(std::string(name) + source.path);
        make_directories(std::string(name) + "/etc/profile.d/profile");
        return std::string(name);
    }();
    return directory;
}

void write_file(const char *path, const void *data, size_t size) {
    const FdHandle file(open((root() + path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    require(file.valid() && write(file.get(), data, size) == static_cast<ssize_t>(size));
}

void remove_root() {
    const std::string command = "rm -rf " + root();
    require(system(command.c_str()) == 0);
}

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

extern "C" FILE *popen(const char *command, const char *) {
    const char *host = strstr(command, " -c 3 ");
    require(host != nullptr);
    host += strlen(" -c 3 ");
    const char *end = strstr(host, " |awk");
    require(end != nullptr && telemetry_is_host(std::string(host, end).c_str()) == 1);
    return fopen("/dev/null", "r");
}

extern "C" int pclose(FILE *file) {
    return fclose(file);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    root();
    atexit(remove_root);
    constexpr char kProfile[] = "config afc\n\toption support yes\nconfig eco_mode\n\toption support yes\n";
    write_file("/etc/profile.d/profile", kProfile, strlen(kProfile));
    require(freopen("/dev/null", "w", stdout) != nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const size_t choice = *data++ % kChoices;
    size--;
    for (const FuzzSource &source : kSources)
        unlink((root() + source.path).c_str());
    unlink((root() + kBackupConfigFile).c_str());
    write_file(kBackupConfigFile, "", 0);
    fake_services.clear();
    fake_service_calls.clear();
    ServiceAnswer status;
    status.json =
        R"({"up":true,"l3_device":"eth1","route":[{"target":"0.0.0.0","mask":0,"nexthop":"198.51.100.1"}]})";
    if (choice >= kFileCount) {
        const bool json = choice > kFileCount;
        status.fill = [=](blob_buf *reply) {
            if (!json)
                blob_put_raw(reply, data, static_cast<unsigned>(size));
            else if (!blobmsg_add_json_from_string(
                         reply, std::string(reinterpret_cast<const char *>(data), size).c_str()))
                blob_buf_init(reply, 0);
        };
    } else {
        write_file("/sys/bus/usb/devices/1-1/bDeviceClass", "00\n", 3);
        write_file(kSources[choice].path, data, size);
    }
    fake_services["network.interface.wan.status"] = status;
    fake_services["network.interface.wan6.status"] = status;
    telemetry_count_daemon_start();
    run(choice < kFileCount ? kSources[choice].collect : collect_internet_info);
    return 0;
}
