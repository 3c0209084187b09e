// Every method of the bus object with arbitrary message bytes: the first byte picks the method, the rest is
// the content of the call's data. The handlers answer over a real bus on which there are no services.
#include "telemetry_ubus.h"

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include <sys/prctl.h>
#include <unistd.h>

#include "../hostlibs/ubusd/ubusd.h"
#include "support/fuzz_root.h"
#include "telemetry_command.h"
#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"

// --- The platform: no waiting, no driver, and commands that only show what would reach a shell ---

extern "C" unsigned sleep(unsigned) {
    return 0;
}

extern "C" int ioctl(int, unsigned long, ...) noexcept;
extern "C" int ioctl(int, unsigned long, ...) noexcept {
    return -1;
}

int telemetry_command_run(const char *const argv[], int, const TelemetryCommandOutput *output, int *) {
    // Nothing but an address is asked for echoes.
    if (strncmp(argv[0], "ping", 4) == 0)
        require(strspn(argv[3], "0123456789abcdefABCDEF:.") == strlen(argv[3]));
    copy_text(output->text, output->size, "1.5\n");
    return TELEMETRY_COMMAND_ENDED;
}

uint32_t telemetry_commands_killed() {
    return 0;
}

static TelemetryCtx fuzz_ctx;
static ubus_context *fuzz_bus;

[[noreturn]] static void run_bus() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    uloop_init();
    ubusd_server server;
    if (ubusd_listen(server, telemetry_bus_default_socket()))
        uloop_run();
    _exit(1);
}

static bool start_daemon_on_bus() {
    fuzz_root();
    if (fork() == 0)
        run_bus();
    require(freopen("/dev/null", "w", stdout) != nullptr);
    uloop_init();
    for (int tries = 0; tries < 10000 && fuzz_bus == nullptr; tries++) {
        usleep(1000);
        fuzz_bus = ubus_connect(telemetry_bus_default_socket());
    }
    require(fuzz_bus != nullptr && telemetry_init_ubus(&fuzz_ctx) == 0);
    copy_text(fuzz_ctx.dev_mac, "0A0B0C0D0E0F");
    return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool started = start_daemon_on_bus();
    if (size == 0 || size > 65536 || !started)
        return 0;
    const ubus_object *object = telemetry_ubus_object();
    const ubus_method &method = object->methods[data[0] % object->n_methods];
    telemetry_debug_enable = 1;
    // The message ends with its allocation, so that a step beyond it is seen.
    const size_t length = sizeof(blob_attr) + size - 1;
    const std::unique_ptr<char[]> bytes(new char[length]);
    memcpy(bytes.get() + sizeof(blob_attr), data + 1, size - 1);
    auto *message = reinterpret_cast<blob_attr *>(bytes.get());
    message->id_len = htobe32(static_cast<uint32_t>(length));

    ubus_request_data request = {};
    request.object = object->id;
    request.peer = 4321;
    const int status =
        method.handler(fuzz_bus, const_cast<ubus_object *>(object), &request, method.name, message);
    require(status == UBUS_STATUS_OK || status == UBUS_STATUS_INVALID_ARGUMENT);
    require(telemetry_debug_level <= TELEMETRY_LOG_ERROR);
    uloop_timeout_cancel(&fuzz_ctx.collect_timer);
    uloop_timeout_cancel(&fuzz_ctx.post_timer);
    return 0;
}
