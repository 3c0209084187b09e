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
#include <memory>

#include <sys/prctl.h>
#include <valgrind/callgrind.h>

#include "bus_daemon.h"
#include "scenario_tables.h"
#include "sysroot.h"
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

// --- The services: a process of their own ---

namespace {

std::map<std::string, std::unique_ptr<BlobBuffer>> served; // by "object.method", with the opcode

int answer(ubus_context *bus, ubus_object *object, ubus_request_data *request, const char *method,
           blob_attr *message) {
    std::string name = std::string(object->name) + "." + method;
    const TextPtr text(blobmsg_format_json(message, true));
    const char *digits = strpbrk(text.get(), "0123456789");
    if (strcmp(method, "request") == 0 && digits != nullptr)
        name += "." + std::to_string(atoi(digits));
    const auto found = served.find(name);
    return found == served.end() ? UBUS_STATUS_METHOD_NOT_FOUND
                                 : ubus_send_reply(bus, request, found->second->head());
}

[[noreturn]] void serve(const std::string &socket, int ready) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    static const ubus_method methods[] = {
        UBUS_METHOD_NOARG("get", answer),           UBUS_METHOD_NOARG("get_myself", answer),
        UBUS_METHOD_NOARG("list", answer),          UBUS_METHOD_NOARG("request", answer),
        UBUS_METHOD_NOARG("telemetry_get", answer), UBUS_METHOD_NOARG("status", answer)};
    const char *const names[] = {"tfstats",   "client_mgmt",           "sync",
                                 "low_power", "network.interface.wan", "network.interface.wan6"};
    static ubus_object_type types[std::size(names)] = {};
    static ubus_object objects[std::size(names)] = {};
    uloop_init();
    const BusContextPtr bus(ubus_connect(socket.c_str()));
    for (size_t i = 0; i < std::size(names); ++i) {
        types[i] = {names[i], 0, methods, std::size(methods)};
        objects[i].name = names[i];
        objects[i].type = &types[i];
        objects[i].methods = methods;
        objects[i].n_methods = std::size(methods);
        if (!bus || ubus_add_object(bus.get(), &objects[i]) != UBUS_STATUS_OK)
            _exit(1);
    }
    ubus_add_uloop(bus.get());
    if (write(ready, "", 1) == 1)
        uloop_run();
    _exit(0);
}

void start_services(const std::string &socket) {
    for (const auto &[name, json] : scenario_replies()) {
        served[name] = std::make_unique<BlobBuffer>();
        blobmsg_add_json_from_string(served[name]->get(), json.c_str());
    }
    int ready[2];
    if (pipe(ready) != 0)
        abort();
    const pid_t pid = fork();
    if (pid == 0)
        serve(socket, ready[1]);
    close(ready[1]);
    char byte = 0;
    if (pid < 0 || read(ready[0], &byte, 1) != 1)
        abort();
    close(ready[0]);
}

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
    start_services(bus.socket());
    const WlanPlatformOps driver = driver_table();
    wlan_platform_ops = &driver;
    telemetry_debug_enable = 0;
    mac_to_format(ctx.dev_mac, main_node().mac.c_str());
    copy_text(ctx.hw_version, "1.0");
    // What libraries keep for themselves from the first use on, and a backup to compare with.
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
