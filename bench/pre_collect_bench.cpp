// One pre-collection: the snapshot of devices and clients of a mesh, from files, a bus whose services answer
// at once with replies made before, and a driver without a board. Arguments: clients, nodes. Three of sixteen
// clients are IoT devices, a quarter (on one node: all) hangs from the main node. Whole snapshots, and two
// parts of them: the IoT step, which reads four configuration packages, and all the other client steps.
#include <benchmark/benchmark.h>

#include <map>

#include "bench_services.h"
#include "sysroot.h"
#include "telemetry_blob.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_pre_client.h"
#include "telemetry_pre_collect.h"
#include "telemetry_satellites.h"
#include "telemetry_snapshot.h"

namespace {

// Fixed, so that an instruction count can be divided by it.
constexpr int kCycles = 10;
constexpr const char *kInterfaces[] = {"ra2", "ra4", "ra5", "rax2", "rax4", "rax5"};

struct Client {
    char mac[18];
    uint8_t bytes[6];
    int node;
    bool wired, iot;
};

// --- The mesh
// ----------------------------------------------------------------------------------------------------

std::vector<Client> make_clients(int count, int nodes) {
    std::vector<Client> clients;
    for (int i = 0; i < count; ++i) {
        Client client = {};
        const uint8_t bytes[6] = {2, 0, 0, 2, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i & 255)};
        snprintf(client.mac, sizeof(client.mac), "02:00:00:02:%02x:%02x", bytes[4], bytes[5]);
        memcpy(client.bytes, bytes, sizeof(bytes));
        client.node = nodes == 1 || i % 4 == 0 ? 0 : 1 + i % (nodes - 1);
        client.wired = i % 7 == 3;
        client.iot = i % 16 < 3;
        clients.push_back(client);
    }
    return clients;
}

std::string node_id(int node) {
    return "NODE" + std::to_string(node);
}

std::string node_mac(int node) {
    return "02:00:00:01:00:0" + std::to_string(node + 1);
}

std::string satellite_client(const Client &client, int number) {
    return "{\"mac\":\"" + std::string(client.mac) + "\",\"hostname\":\"client-" + std::to_string(number) +
           "\",\"wire_type\":\"wireless\",\"connection_type\":\"5G\",\"device_id\":\"" +
           node_id(client.node) + "\",\"signal_level_5g\":60,\"client_type\":2}";
}

void write_root(TestSysroot &root, const std::vector<Client> &clients, int nodes) {
    root.clean();
    std::string list = "{", names, satellites = "[", modules[4];
    for (int node = 0; node < nodes; ++node) {
        list += "\"" + node_id(node) + "\":{\"ip\":\"192.168.68." + std::to_string(node + 1) +
                "\",\"mac\":\"" + node_mac(node) +
                "\",\"device_model\":\"M\",\"fw_version\":\"1.2.10\",\"role\":\"" +
                (node == 0 ? "AP" : "RE") + "\"},";
        names += "config device '" + node_id(node) + "'\n\toption nickname 'Room'\n";
    }
    list.back() = '}';
    for (size_t i = 0; i < clients.size(); ++i) {
        if (clients[i].node != 0)
            satellites += satellite_client(clients[i], static_cast<int>(i)) + ",";
        if (clients[i].iot)
            modules[i % 4] += "config device 'd" + std::to_string(i) + "'\n\toption mac '" + clients[i].mac +
                              "'\n\toption category 'light'\n";
    }
    if (satellites.back() == ',')
        satellites.pop_back();
    root.write(kMeshDeviceListPath, list);
    root.write(kReClientListPath, satellites + "]");
    root.write_config("bind_device_list", names);
    root.write_config("device_prefer", "");
    const char *const packages[] = {"iot_kiro", "iot_zuna", "philips_hue", "matter"};
    for (int i = 0; i < 4; ++i)
        root.write_config(packages[i], modules[i]);
    // No port profile: the port script's processes would cost more than all the rest, and do not depend on
    // the mesh.
}

// --- Its services
// --------------------------------------------------------------------------------------------------

blob_buf *reply_of(Replies &replies, const char *name) {
    return (replies[name] = std::make_unique<BlobBuffer>())->get();
}

void add_client(blob_buf *reply, const Client &client) {
    void *entry = blobmsg_open_table(reply, client.mac);
    blobmsg_add_string(reply, "ip", "192.168.69.2");
    blobmsg_add_string(reply, "mac", client.mac);
    blobmsg_add_string(reply, "wire_type", client.wired ? "wired" : "wireless");
    blobmsg_add_string(reply, "hostname", "client");
    blobmsg_add_u32(reply, "is_guest", 0);
    blobmsg_add_string(reply, "connection_type", "5G");
    blobmsg_add_string(reply, "device_id", node_id(client.node).c_str());
    for (const char *key :
         {"network_type", "signal_level_2g", "signal_level_5g", "signal_level_6g", "client_type"})
        blobmsg_add_u32(reply, key, 2);
    blobmsg_close_table(reply, entry);
}

void add_transfer_reply(blob_buf *reply, const std::vector<Client> &clients, int nodes) {
    blobmsg_add_u32(reply, "success", static_cast<uint32_t>(nodes - 1));
    void *data = blobmsg_open_array(reply, "data");
    for (int node = 1; node < nodes; ++node) {
        // One reply for both questions: each reads its own members.
        void *answer = blobmsg_open_table(reply, nullptr);
        void *result = blobmsg_open_table(reply, "result");
        blobmsg_add_string(reply, "mac", node_mac(node).c_str());
        blobmsg_add_string(reply, "ping_delay", "1.600000");
        void *links = blobmsg_open_array(reply, "backhaul_info");
        for (int i = 0; i < 2; ++i) {
            void *link = blobmsg_open_table(reply, nullptr);
            blobmsg_add_string(reply, "backhaul_type", "5G");
            blobmsg_add_u32(reply, "backhaul_channel", 44);
            blobmsg_close_table(reply, link);
        }
        blobmsg_close_array(reply, links);
        void *stations = blobmsg_open_array(reply, "client_sta_list");
        for (const Client &client : clients) {
            if (client.node != node || client.wired)
                continue;
            void *station = blobmsg_open_table(reply, nullptr);
            blobmsg_add_string(reply, "mac_addr", client.mac);
            blobmsg_add_u16(reply, "pymode", 2);
            blobmsg_add_u64(reply, "ng_rxrate", 780);
            blobmsg_add_u64(reply, "ng_txrate", 866);
            blobmsg_close_table(reply, station);
        }
        blobmsg_close_array(reply, stations);
        blobmsg_close_table(reply, result);
        blobmsg_close_table(reply, answer);
    }
    blobmsg_close_array(reply, data);
}

Replies make_replies(const std::vector<Client> &clients, int nodes) {
    Replies replies;
    blob_buf *tfstats = reply_of(replies, "tfstats.get");
    blobmsg_add_u32(tfstats, "total", static_cast<uint32_t>(clients.size()));
    void *list = blobmsg_open_array(tfstats, "tfslist");
    for (const Client &client : clients) {
        void *entry = blobmsg_open_table(tfstats, nullptr);
        blobmsg_add_string(tfstats, "ip", "192.168.69.2");
        blobmsg_add_string(tfstats, "mac", client.mac);
        blobmsg_add_u64(tfstats, "retx_byte", 74474463206);
        blobmsg_add_u64(tfstats, "rerx_byte", 844657218600);
        blobmsg_close_table(tfstats, entry);
    }
    blobmsg_close_array(tfstats, list);
    blob_buf *own = reply_of(replies, "client_mgmt.get_myself");
    blob_buf *all = reply_of(replies, "client_mgmt.get");
    for (const Client &client : clients) {
        if (client.node == 0)
            add_client(own, client);
        add_client(all, client);
    }
    blob_buf *sync = reply_of(replies, "sync.list");
    for (int node = 0; node < nodes; ++node) {
        void *entry = blobmsg_open_table(sync, node_id(node).c_str());
        blobmsg_add_string(sync, "mac", node_mac(node).c_str());
        blobmsg_close_table(sync, entry);
    }
    add_transfer_reply(reply_of(replies, "sync.request"), clients, nodes);
    return replies;
}

// --- The driver
// ------------------------------------------------------------------------------------------------------

std::map<std::string, std::vector<ClientStaInfo>> stations;

int if_name(int32_t band, int32_t type, char *name, int32_t size) {
    if (type > 2)
        return 0;
    snprintf(name, static_cast<size_t>(size), "%s", kInterfaces[band * 3 + type]);
    return 1;
}

int band_stations(const char *ifname, ClientStaList *list, uint32_t *count) {
    for (const ClientStaInfo &station : stations[ifname]) {
        if (*count < list->capacity)
            list->stations[(*count)++] = station;
    }
    return 1;
}

void set_up_driver(const std::vector<Client> &clients) {
    static const WlanPlatformOps operations = [] {
        WlanPlatformOps table = {};
        table.get_band_if_name = if_name;
        table.get_band_client_sta_info = band_stations;
        return table;
    }();
    wlan_platform_ops = &operations;
    stations.clear();
    size_t number = 0;
    for (const Client &client : clients) {
        if (client.node != 0 || client.wired)
            continue;
        ClientStaInfo station = {{}, {}, 3, 780, 866, 0};
        memcpy(station.mac, client.bytes, sizeof(station.mac));
        auto &there = stations[kInterfaces[number++ % std::size(kInterfaces)]];
        if (there.size() < 64)
            there.push_back(station);
    }
}

// --- The measurements
// ------------------------------------------------------------------------------------------------

void require(bool holds, const char *what) {
    if (holds)
        return;
    fprintf(stderr, "pre_collect_bench: %s\n", what);
    abort();
}

void run_client_steps_but_iot() {
    require(telemetry_get_client_list_from_tfstats() == 0 && telemetry_complete_ap_client_list_info() == 0 &&
                telemetry_complete_re_client_list_info() == 0 && telemetry_complete_device_type_info() == 0 &&
                telemetry_get_client_host_ap_mac_from_sync_server() == 0 &&
                telemetry_get_client_sta_list() == 0 &&
                (!telemetry_is_mesh_network() || telemetry_get_re_client_sta_list() == 0),
            "a client step failed");
}

enum Part { WHOLE, IOT_STEP, OTHER_CLIENT_STEPS };

void pre_collect(benchmark::State &state, Part part) {
    const auto client_num = static_cast<int>(state.range(0));
    const auto nodes = static_cast<int>(state.range(1));
    TestSysroot &root = test_sysroot();
    const std::vector<Client> clients = make_clients(client_num, nodes);
    write_root(root, clients, nodes);
    set_up_driver(clients);
    served = make_replies(clients, nodes);
    const BusDaemon bus(root.path(kBusSocketPath));
    const Services services(bus.socket(), {"tfstats", "client_mgmt", "sync"});
    static TelemetryCtx ctx;
    telemetry_debug_enable = 0;
    require(freopen("/dev/null", "w", stderr) != nullptr, "stderr"); // "load profile: Entry not found"

    require(telemetry_pre_collect_info(&ctx) == 0 && telemetry_get_client_num() == client_num &&
                telemetry_get_client_info_list()[client_num - 1].is_exist == 1,
            "no snapshot");
    for (auto _ : state) {
        if (part == WHOLE) {
            telemetry_free_pre_collect_info();
            benchmark::DoNotOptimize(telemetry_pre_collect_info(&ctx));
        } else if (part == IOT_STEP) {
            benchmark::DoNotOptimize(telemetry_identify_iot_device_from_client_list());
        } else {
            run_client_steps_but_iot();
        }
    }
    telemetry_free_pre_collect_info();
    served.clear();
}

void every_size(benchmark::internal::Benchmark *bench) {
    for (const int nodes : {1, 3, 9}) {
        for (const int clients : {8, 64, 256, 512})
            bench->Args({clients, nodes});
    }
    bench->Iterations(kCycles)->Unit(benchmark::kMicrosecond)->ArgNames({"clients", "nodes"});
}

} // namespace

BENCHMARK_CAPTURE(pre_collect, whole, WHOLE)->Apply(every_size);
BENCHMARK_CAPTURE(pre_collect, iot_step, IOT_STEP)->Apply(every_size);
BENCHMARK_CAPTURE(pre_collect, other_client_steps, OTHER_CLIENT_STEPS)->Apply(every_size);
