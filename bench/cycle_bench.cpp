// A whole collection cycle with everything to report: snapshot and all seventeen collectors, over the root
// directory of a scenario's main node. Services, satellites and driver answer from tables in this process, so
// the figures are the daemon's own work: configuration, files, commands, parsing, records. The 3 seconds
// between two CPU samples are left out.
#include <algorithm>
#include <cstring>

#include <malloc.h>

#include <benchmark/benchmark.h>

#include "fake_services.h"
#include "lab_root.h"
#include "sysroot.h"
#include "telemetry_collect.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_transfer.h"
#include "telemetry_utils.h"

extern "C" unsigned sleep(unsigned) {
    return 0;
}

namespace {

const lab::Scenario *scenario;

const lab::ScenarioNode &main_node() {
    return scenario->nodes[0];
}

// --- Services
// ------------------------------------------------------------------------------------------------------

std::string print(cJSON *tree) {
    const lab::JsonTree owned(tree);
    return lab::print_json(tree);
}

std::string traffic_reply() {
    cJSON *reply = cJSON_CreateObject();
    cJSON_AddNumberToObject(reply, "total", static_cast<double>(scenario->clients.size()));
    cJSON *list = cJSON_AddArrayToObject(reply, "tfslist");
    for (const lab::ScenarioClient &client : scenario->clients) {
        cJSON *entry = cJSON_CreateObject();
        cJSON_AddItemToArray(list, entry);
        cJSON_AddStringToObject(entry, "ip", client.ip.c_str());
        cJSON_AddStringToObject(entry, "mac", client.mac.c_str());
        cJSON_AddNumberToObject(entry, "retx_byte", client.retx_byte);
        cJSON_AddNumberToObject(entry, "rerx_byte", client.rerx_byte);
    }
    return print(reply);
}

std::string own_clients_reply() {
    cJSON *reply = cJSON_CreateObject();
    for (const lab::ScenarioClient &client : scenario->clients) {
        if (client.node != main_node().device_id)
            continue;
        cJSON *entry = cJSON_AddObjectToObject(reply, client.mac.c_str());
        for (const auto &[key, text] : {std::pair("ip", &client.ip),
                                        {"mac", &client.mac},
                                        {"hostname", &client.hostname},
                                        {"wire_type", &client.wire_type},
                                        {"device_id", &client.node},
                                        {"connection_type", &client.connection_type}})
            cJSON_AddStringToObject(entry, key, text->c_str());
        for (const auto &[key, number] : {std::pair("is_guest", static_cast<int>(client.is_guest)),
                                          {"network_type", client.network_type},
                                          {"signal_level_2g", client.signal_level_2g},
                                          {"signal_level_5g", client.signal_level_5g},
                                          {"client_type", client.client_type}})
            cJSON_AddNumberToObject(entry, key, number);
    }
    return print(reply);
}

std::string node_list_reply() {
    cJSON *reply = cJSON_CreateObject();
    for (const lab::ScenarioNode &node : scenario->nodes) {
        cJSON *entry = cJSON_AddObjectToObject(reply, node.device_id.c_str());
        cJSON_AddStringToObject(entry, "mac", node.mac.c_str());
        cJSON_AddStringToObject(entry, "ip", node.ip.c_str());
    }
    return print(reply);
}

// One satellite's answer to an opcode.
lab::JsonTree satellite_answer(int opcode, const lab::ScenarioNode &node) {
    static constexpr std::pair<int, const char *> kFixed[] = {
        {TELEMETRY_TRANSFER_DEVICE,
         R"({"wired_port_used_num":2,"port_info":[{"port_num":1,"port_speed":1000},{"port_num":2,"port_speed":1000}],)"
         R"("parent_mac":"02:00:00:01:00:01","ping_delay":"1.600000","hw_version":"2.0","backhaul_info":[)"
         R"({"backhaul_type":"2.4G","backhaul_rssi":42,"backhaul_txrate":280,"backhaul_rxrate":253,)"
         R"("backhaul_channel":6,"backhaul_channle_util":54},{"backhaul_type":"5G","backhaul_rssi":42,)"
         R"("backhaul_txrate":1722,"backhaul_rxrate":1436,"backhaul_channel":44,"backhaul_channle_util":51}]})"},
        {TELEMETRY_TRANSFER_SYSTEM,
         R"({"sys_mode":"router","cpu_usage":7,"cpu_freq":1300000,"mem_total":512000,"mem_usage":59,"mem_free":128000,)"
         R"("wifi0_temp":60,"wifi1_temp":60,"wifi2_temp":60,"cpu_temp":61,"nat_num":417,)"
         R"("lowpower":{"res":"success","associate_time":4,"associate_duration":130}})"},
        {TELEMETRY_TRANSFER_USB,
         R"({"usb_enable":1,"config_is_change":0,"usb_type":1,"vendor_id":"1d6b","product_id":"0104"})"},
        {TELEMETRY_TRANSFER_AFC, R"({"en":1,"st":"granted","ex":7200,"cl":[{"oc":131,"ch":37,"pw":30}]})"},
        {TELEMETRY_TRANSFER_CLIENT, "{}"},
    };
    lab::JsonTree answer;
    for (const auto &[known, text] : kFixed) {
        if (known == opcode)
            answer.reset(cJSON_Parse(text));
    }
    cJSON_AddStringToObject(answer.get(), "mac", node.mac.c_str());
    if (opcode != TELEMETRY_TRANSFER_CLIENT)
        return answer;
    cJSON *list = cJSON_AddArrayToObject(answer.get(), "client_sta_list");
    for (const lab::ScenarioClient &client : scenario->clients) {
        if (client.node != node.device_id || client.interface.empty())
            continue;
        cJSON *station = cJSON_CreateObject();
        cJSON_AddItemToArray(list, station);
        cJSON_AddStringToObject(station, "mac_addr", client.mac.c_str());
        cJSON_AddNumberToObject(station, "pymode", client.phymode);
        cJSON_AddNumberToObject(station, "ng_rxrate", client.rx);
        cJSON_AddNumberToObject(station, "ng_txrate", client.tx);
    }
    return answer;
}

std::string satellites_reply(int opcode) {
    cJSON *reply = cJSON_CreateObject();
    const bool single = scenario->nodes.size() == 2;
    cJSON_AddNumberToObject(reply, "success", static_cast<double>(scenario->nodes.size() - 1));
    cJSON *list = single ? nullptr : cJSON_AddArrayToObject(reply, "data");
    for (size_t i = 1; i < scenario->nodes.size(); ++i) {
        cJSON *answer = cJSON_CreateObject();
        cJSON_AddItemToObject(answer, "result", satellite_answer(opcode, scenario->nodes[i]).release());
        if (single)
            cJSON_AddItemToObject(reply, "data", answer);
        else
            cJSON_AddItemToArray(list, answer);
    }
    return print(reply);
}

void set_services() {
    fake_services.clear();
    fake_services["tfstats.get"].json = traffic_reply();
    fake_services["client_mgmt.get_myself"].json = own_clients_reply();
    fake_services["sync.list"].json = node_list_reply();
    fake_services["low_power.telemetry_get"].json =
        R"({"res":"success","associate_time":3,"associate_duration":120})";
    fake_services["network.interface.wan.status"].json = R"({"up":true,"uptime":86400,"l3_device":"eth1"})";
    fake_services["network.interface.wan6.status"].json = R"({"up":true,"uptime":86390})";
    std::map<int, std::string> replies;
    for (const int opcode : {TELEMETRY_TRANSFER_DEVICE, TELEMETRY_TRANSFER_CLIENT, TELEMETRY_TRANSFER_SYSTEM,
                             TELEMETRY_TRANSFER_USB, TELEMETRY_TRANSFER_AFC})
        replies[opcode] = satellites_reply(opcode);
    fake_services["sync.request"].fill = [replies](blob_buf *reply) {
        const std::string &arguments = fake_service_calls.back().arguments; // {"opcode":50946,...
        const size_t digits = arguments.find_first_of("0123456789");
        blobmsg_add_json_from_string(reply, replies.at(atoi(arguments.c_str() + digits)).c_str());
    };
}

// --- Driver
// --------------------------------------------------------------------------------------------------------

int add_stations(const char *ifname, ClientStaList *list, uint32_t *count) {
    for (const lab::ScenarioClient &client : scenario->clients) {
        if (client.node != main_node().device_id || client.interface != ifname || *count >= list->capacity)
            continue;
        ClientStaInfo &station = list->stations[(*count)++];
        unsigned bytes[6] = {};
        sscanf(client.mac.c_str(), "%x:%x:%x:%x:%x:%x", &bytes[0], &bytes[1], &bytes[2], &bytes[3], &bytes[4],
               &bytes[5]);
        std::copy(std::begin(bytes), std::end(bytes), station.mac);
        station.txrate = static_cast<uint32_t>(client.tx);
        station.rxrate = static_cast<uint32_t>(client.rx);
    }
    return 1;
}

WlanPlatformOps driver_table() {
    WlanPlatformOps ops = wlan_platform_ops_mtk; // interface names are the real ones
    ops.get_device_temperature = [](const char *, double *temperature) { return *temperature = 54, 1; };
    ops.get_backhaul_ap_channel = [](uint32_t band, uint32_t *channel) {
        return *channel = band == 0 ? 6 : 44, 1;
    };
    ops.get_uplink_rate = [](const char *, BackhaulStats *, uint8_t *) { return 0; };
    ops.get_channel_util = [](const char *, uint8_t *, uint32_t, uint8_t) { return 0; };
    ops.get_wifi_bandwidth = [](uint32_t *bandwidth) { return *bandwidth = 80, 1; };
    ops.get_band_client_sta_info = add_stations;
    return ops;
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
