// Counts what one collection cycle of a scenario's main node costs, over a real bus with services that answer
// at once from replies made before: cycle_count SCENARIO quiet|changed prints the counts of one
// cycle as JSON.
//
//     cycle_count home quiet     nothing has changed since the cycle before
//     cycle_count home changed   everything counts as changed, as after a boot
//
// Both with all seventeen modules due. Allocations and calls of the base libraries are counted in here.
// Instructions are callgrind's, which is told when to count; system calls are strace's, between two writes to
// no descriptor (scripts/count-cycle does both). What the daemon starts (port script, ping) is not counted,
// and the 3 seconds between two CPU samples are left out.
#include <cstdlib>
#include <cstring>

#include <valgrind/callgrind.h>

#include "bench_services.h"
#include "scenario_tables.h"
#include "sysroot.h"
#include "telemetry_blob.h"
#include "telemetry_collect.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_utils.h"

// --- Counting: the linker puts these in the place of the functions (--wrap), the loader the first four ---

static struct {
    bool on;
    long allocations, package_loads, commits, connections, lookups, calls;
} counted;

static void count(long &what) {
    if (counted.on)
        ++what;
}

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t number, size_t size);
void *__libc_realloc(void *memory, size_t size);
void *malloc(size_t size) {
    count(counted.allocations);
    return __libc_malloc(size);
}
void *calloc(size_t number, size_t size) {
    count(counted.allocations);
    return __libc_calloc(number, size);
}
void *realloc(void *memory, size_t size) {
    count(counted.allocations);
    return __libc_realloc(memory, size);
}
unsigned sleep(unsigned) {
    return 0;
}

int __real_uci_load(uci_context *uci, const char *name, uci_package **package);
int __wrap_uci_load(uci_context *uci, const char *name, uci_package **package) {
    count(counted.package_loads);
    return __real_uci_load(uci, name, package);
}
int __real_uci_commit(uci_context *uci, uci_package **package, bool overwrite);
int __wrap_uci_commit(uci_context *uci, uci_package **package, bool overwrite) {
    count(counted.commits);
    return __real_uci_commit(uci, package, overwrite);
}
ubus_context *__real_ubus_connect(const char *path);
ubus_context *__wrap_ubus_connect(const char *path) {
    count(counted.connections);
    return __real_ubus_connect(path);
}
int __real_ubus_lookup_id(ubus_context *bus, const char *path, uint32_t *id);
int __wrap_ubus_lookup_id(ubus_context *bus, const char *path, uint32_t *id) {
    count(counted.lookups);
    return __real_ubus_lookup_id(bus, path, id);
}
// One of the two is a function of the library, which one depends on the library.
__attribute__((weak)) int __real_ubus_invoke(ubus_context *bus, uint32_t id, const char *method,
                                             blob_attr *message, ubus_data_handler_t reply, void *user,
                                             int timeout);
int __wrap_ubus_invoke(ubus_context *bus, uint32_t id, const char *method, blob_attr *message,
                       ubus_data_handler_t reply, void *user, int timeout) {
    count(counted.calls);
    return __real_ubus_invoke(bus, id, method, message, reply, user, timeout);
}
__attribute__((weak)) int __real_ubus_invoke_fd(ubus_context *bus, uint32_t id, const char *method,
                                                blob_attr *message, ubus_data_handler_t reply, void *user,
                                                int timeout, int fd);
int __wrap_ubus_invoke_fd(ubus_context *bus, uint32_t id, const char *method, blob_attr *message,
                          ubus_data_handler_t reply, void *user, int timeout, int fd) {
    count(counted.calls);
    return __real_ubus_invoke_fd(bus, id, method, message, reply, user, timeout, fd);
}
}

namespace {

// --- The cycles ---

TelemetryCtx ctx;

void run_cycle() {
    telemetry_clear_collect_list(&ctx);
    ctx.collect_list = cJSON_CreateArray();
    ctx.collect_stgy2_now = ctx.collect_periodic_now = 1;
    static_cast<void>(!write(-1, "", 0));
    CALLGRIND_TOGGLE_COLLECT;
    telemetry_collect_all_modules(&ctx);
    CALLGRIND_TOGGLE_COLLECT;
    static_cast<void>(!write(-1, "", 0));
}

void print_counts() {
    printf("{\"allocations\": %ld, \"package_loads\": %ld, \"commits\": %ld, \"bus_connections\": %ld, "
           "\"bus_lookups\": %ld, \"bus_calls\": %ld, \"records\": %d, \"bytes\": %ld}\n",
           counted.allocations, counted.package_loads, counted.commits, counted.connections, counted.lookups,
           counted.calls, cJSON_GetArraySize(ctx.collect_list),
           static_cast<long>(telemetry_json_length(ctx.collect_list)));
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3 || (strcmp(argv[2], "quiet") != 0 && strcmp(argv[2], "changed") != 0)) {
        fprintf(stderr, "usage: cycle_count SCENARIO quiet|changed\n");
        return 2;
    }
    const lab::Scenario loaded = lab::scenario_load(argv[1]);
    scenario = &loaded;
    TestSysroot &root = test_sysroot();
    lab::root_build(root.root(), loaded, 0, "cloud", "");
    const std::string path = std::string(TEST_SOURCE_DIR "/lab/board:") + getenv("PATH");
    setenv("PATH", path.c_str(), 1);
    const BusDaemon bus(root.path(kBusSocketPath));
    for (const auto &[name, json] : scenario_replies()) {
        served[name] = std::make_unique<BlobBuffer>();
        blobmsg_add_json_from_string(served[name]->get(), json.c_str());
    }
    const Services services(bus.socket(), {"tfstats", "client_mgmt", "sync", "low_power",
                                           "network.interface.wan", "network.interface.wan6"});
    const WlanPlatformOps driver = driver_table();
    wlan_platform_ops = &driver;
    telemetry_debug_enable = 0;
    mac_to_format(ctx.dev_mac, main_node().mac.c_str());
    copy_text(ctx.hw_version, "1.0");
    // What libraries keep for themselves from the first use on, and a backup to compare with.
    root.write_backup("");
    run_cycle();
    run_cycle();
    if (strcmp(argv[2], "changed") == 0)
        root.write_backup("");
    CALLGRIND_ZERO_STATS;
    counted.on = true;
    run_cycle();
    counted.on = false;
    print_counts();
    telemetry_clear_collect_list(&ctx);
    return 0;
}
