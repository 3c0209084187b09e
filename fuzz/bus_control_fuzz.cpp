// All that the bus sends the daemon on one connection, greeting and answers to the registration of its
// objects included: frames, as bytes, and the end of the connection behind them; then all of it on a second
// one. This node has a client and a record.
#include <cerrno>
#include <cstdint>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/fuzz_target.h"
#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_post.h"
#include "telemetry_ubus.h"

static std::string_view bus_sends;
static int bus_end = -1, connections;

// In the place of the system's.
extern "C" int connect(int fd, const sockaddr *, socklen_t) {
    int pair[2];
    if (++connections > 2 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) != 0) {
        errno = ECONNREFUSED;
        return -1;
    }
    close(bus_end);
    bus_end = pair[1];
    require(write(bus_end, bus_sends.data(), bus_sends.size()) == static_cast<ssize_t>(bus_sends.size()));
    shutdown(bus_end, SHUT_WR);
    require(dup2(pair[0], fd) == fd);
    return close(pair[0]);
}

static const std::string kStation(sizeof(uint32_t) + 64, '\1');

static TelemetryCtx ctx;

static void lay_out(std::string_view input) {
    const FuzzPlenty plenty;
    ctx = {};
    copy_text(ctx.dev_mac, "0A0B0C0D0E0F");
    static PostRequest request;
    ctx.post_requests[0] = &request;
    ctx.collect_list = cJSON_CreateArray();
    cJSON_AddItemToArray(ctx.collect_list, cJSON_Parse(R"({"eid":1,"ep":{},"cnt":1})"));
    fuzz_answers = {{"client_mgmt.get_myself", {R"({"02:00:00:02:00:01":{"mac":"02:00:00:02:00:01"}})"}},
                    {"!ping", {"1.5\n"}},
                    {"!getfirm", {"1.0\n"}},
                    {"!wire_port_info.sh", {"1\n"}}};
    fuzz_driver_answer = &kStation;
    fuzz_root().write("/etc/profile.d/interfaces", "config interface\n\toption type eth\n\toption port 1\n");
    bus_sends = input;
}

static void run(const uint8_t *data, size_t size) {
    if (size > 16384)
        return;
    lay_out({reinterpret_cast<const char *>(data), size});
    if (size % 4 == 1) // frames are whole words
        fuzz_answers.clear();
    if (telemetry_init_ubus(size == 0 ? nullptr : &ctx) == 0) {
        for (int turn = 0; turn < 6; turn++)
            uloop_run_timeout(0);
    }
    require(telemetry_debug_level <= TELEMETRY_LOG_ERROR);
}

static void end() {
    for (uloop_timeout *timer : {&ctx.collect_timer, &ctx.post_timer, &ctx.post_retry_timer})
        uloop_timeout_cancel(timer);
    telemetry_free_ubus();
    close(bus_end);
    bus_end = -1;
    connections = 0;
    cJSON_Delete(ctx.collect_list);
    ctx.collect_list = nullptr;
}

static const FuzzTargets registered({{"bus_control", run, mutate_bus_frames, [] { uloop_init(); }, end}});
