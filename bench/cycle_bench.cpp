// A whole collection cycle with everything to report: snapshot and all seventeen collectors, over the root
// directory of a scenario's main node. Services, satellites and driver answer from tables in this process, so
// the figures are the daemon's own work: configuration, files, commands, parsing, records. The 3 seconds
// between two CPU samples are left out.
#include <algorithm>
#include <cstring>

#include <malloc.h>

#include <benchmark/benchmark.h>

#include "fake_services.h"
#include "scenario_tables.h"
#include "sysroot.h"
#include "telemetry_collect.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_utils.h"

extern "C" unsigned sleep(unsigned) {
    return 0;
}

namespace {

void set_services() {
    fake_services.clear();
    const JsonReplies replies = scenario_replies();
    for (const auto &[name, json] : replies)
        fake_services[name].json = json;
    fake_services["sync.request"].fill = [replies](blob_buf *reply) {
        const std::string &arguments = fake_service_calls.back().arguments; // {"opcode":50946,...
        const int opcode = atoi(arguments.c_str() + arguments.find_first_of("0123456789"));
        blobmsg_add_json_from_string(reply, replies.at("sync.request." + std::to_string(opcode)).c_str());
    };
}

// --- Measuring
// -----------------------------------------------------------------------------------------------------

// The C library counts what it caches for each thread as in use: growth would be seen where there is none.
__attribute__((constructor)) void start_without_cache(int, char **argv, char **) {
    if (getenv("GLIBC_TUNABLES") == nullptr &&
        setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1) == 0)
        execv("/proc/self/exe", argv);
}

size_t heap_in_use() {
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

// A line of /proc/self/status, kB.
double status_kb(const char *name) {
    std::ifstream lines("/proc/self/status");
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(name))
            return atof(line.c_str() + strlen(name));
    return -1;
}

class Cycle {
  public:
    explicit Cycle(const char *name) : scenario_(lab::scenario_load(name)) {
        scenario = &scenario_;
        telemetry_debug_enable = 0;
        TestSysroot &root = test_sysroot();
        root.clean();
        lab::root_build(root.root(), scenario_, 0, "cloud", "");
        static const bool path_set = [] {
            const std::string path = std::string(TEST_SOURCE_DIR "/lab/board:") + getenv("PATH");
            return setenv("PATH", path.c_str(), 1) == 0;
        }();
        static_cast<void>(path_set);
        set_services();
        static const WlanPlatformOps ops = driver_table();
        wlan_platform_ops = &ops;
        std::string mac = main_node().mac;
        mac_to_format(ctx_.dev_mac, mac.c_str());
        copy_text(ctx_.hw_version, "1.0");
    }
    ~Cycle() {
        telemetry_clear_collect_list(&ctx_);
        wlan_platform_ops = &wlan_platform_ops_mtk;
    }
    // As after a boot: every setting counts as changed.
    void forget() {
        telemetry_clear_collect_list(&ctx_);
        fake_service_calls.clear();
        test_sysroot().write_backup("");
    }
    void run() {
        if (ctx_.collect_list == nullptr)
            ctx_.collect_list = cJSON_CreateArray();
        ctx_.collect_stgy2_now = ctx_.collect_periodic_now = 1;
        telemetry_collect_all_modules(&ctx_);
    }
    double bytes() const {
        return static_cast<double>(telemetry_json_length(ctx_.collect_list));
    }
    double records() const {
        return cJSON_GetArraySize(ctx_.collect_list);
    }
    double clients() const {
        return static_cast<double>(scenario_.clients.size());
    }

  private:
    lab::Scenario scenario_;
    TelemetryCtx ctx_ = {};
};

void one_cycle(benchmark::State &state, const char *name) {
    Cycle cycle(name);
    cycle.run(); // what the C library keeps for itself from the first use on
    double peak = 0;
    for (auto _ : state) {
        state.PauseTiming();
        cycle.forget();
        malloc_trim(0);
        std::ofstream("/proc/self/clear_refs") << 5; // the high-water mark starts anew
        const double before = status_kb("VmRSS:");
        state.ResumeTiming();
        cycle.run();
        state.PauseTiming();
        peak = std::max(peak, status_kb("VmHWM:") - before);
        state.ResumeTiming();
    }
    state.counters["clients"] = cycle.clients();
    state.counters["records"] = cycle.records();
    state.counters["bytes"] = cycle.bytes();
    state.counters["peak_kB"] = peak;
}

// Heap in use after the first ten cycles and after all of them.
void many_cycles(benchmark::State &state, const char *name) {
    Cycle cycle(name);
    size_t settled = 0;
    int done = 0;
    for (auto _ : state) {
        state.PauseTiming();
        cycle.forget();
        if (done++ == 10)
            settled = heap_in_use();
        state.ResumeTiming();
        cycle.run();
    }
    cycle.forget();
    const double growth = static_cast<double>(heap_in_use()) - static_cast<double>(settled);
    state.counters["heap_growth"] = growth;
    if (growth > 0)
        state.SkipWithError("the heap grew");
}

} // namespace

BENCHMARK_CAPTURE(one_cycle, 25_clients, "home")->Unit(benchmark::kMillisecond)->Iterations(50);
BENCHMARK_CAPTURE(one_cycle, 512_clients, "large")->Unit(benchmark::kMillisecond)->Iterations(50);
BENCHMARK_CAPTURE(many_cycles, 25_clients, "home")->Unit(benchmark::kMillisecond)->Iterations(1000);
BENCHMARK_CAPTURE(many_cycles, 512_clients, "large")->Unit(benchmark::kMillisecond)->Iterations(1000);
