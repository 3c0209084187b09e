// A command over the bus: `telemetry` `toggle_debug`, called 10,000 times by one client that waits for each
// answer. Bus daemon and daemon are processes of their own, with a root directory of their own.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <vector>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "bus_daemon.h"
#include "sysroot.h"
#include "telemetry_blob.h"
#include "telemetry_paths.h"

static constexpr int kCalls = 10000;

class Daemon {
  public:
    Daemon() {
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execl(TEST_BIN_DIR "/telemetry", "telemetry", nullptr);
            _exit(127);
        }
    }
    ~Daemon() {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    // User and system time so far, in nanoseconds, as the scheduler counts it.
    double cpu_ns() const {
        clockid_t clock = 0;
        timespec used = {};
        clock_getcpuclockid(pid_, &clock);
        clock_gettime(clock, &used);
        return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
    }

  private:
    pid_t pid_;
};

static uint32_t wait_for_object(ubus_context *bus) {
    uint32_t id = 0;
    for (int tries = 0; tries < 5000 && ubus_lookup_id(bus, "telemetry", &id) != UBUS_STATUS_OK; ++tries)
        usleep(1000);
    return id;
}

static void toggle_debug(benchmark::State &state) {
    TestSysroot &root = test_sysroot();
    root.clean();
    root.add_command("getfirm", "echo 0a:0b:0c:0d:0e:0f");
    const BusDaemon bus(root.path(kBusSocketPath));
    const Daemon daemon;
    const BusContextPtr client(ubus_connect(bus.socket().c_str()));
    const uint32_t id = wait_for_object(client.get());
    BlobBuffer arguments;
    std::vector<double> times_us;
    times_us.reserve(kCalls);
    const double cpu_before = daemon.cpu_ns();
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        if (ubus_invoke(client.get(), id, "toggle_debug", arguments.head(), nullptr, nullptr, 3000) !=
            UBUS_STATUS_OK) {
            state.SkipWithError("the call failed");
            break;
        }
        times_us.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    if (times_us.empty())
        return;
    const auto count = static_cast<double>(times_us.size());
    std::sort(times_us.begin(), times_us.end());
    double sum = 0;
    for (const double time : times_us)
        sum += time;
    state.counters["mean_us"] = sum / count;
    state.counters["median_us"] = times_us[times_us.size() / 2];
    state.counters["p99_us"] = times_us[times_us.size() * 99 / 100];
    state.counters["daemon_cpu_us"] = (daemon.cpu_ns() - cpu_before) / count / 1000;
}
BENCHMARK(toggle_debug)->Iterations(kCalls)->UseRealTime()->Unit(benchmark::kMicrosecond);
