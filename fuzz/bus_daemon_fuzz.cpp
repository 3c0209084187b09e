// What clients send to the bus: two of root's and one of a user's, who has some rights. The sequence number
// of a frame says which of them sends it.
#include <cstdint>

#include "../hostlibs/ubusd/ubusd.h"
#include "support/fuzz_target.h"

static constexpr char kRights[] =
    R"({"user":"nobody","access":{"telemetry*":{"methods":["get","p*"]}},"publish":["a*"],"subscribe":["*"],)"
    R"("listen":["*"],"send":["e*"]})";

static std::vector<ubusd_grant> rights;

static void start() {
    ubusd_server server;
    std::filesystem::create_directory(fuzz_root().path("/acl"));
    fuzz_root().write("/acl/rights.json", kRights);
    ubusd_acl_load(server, fuzz_root().path("/acl").c_str());
    rights = server.grants;
}

static void add_clients(ubusd_server &server) {
    server.grants = rights;
    for (const uid_t user : {0u, 0u, 65534u}) {
        ubusd_client *client = ubusd_client_add(server, -1);
        client->uid = user;
        client->user = user == 0 ? "root" : "nobody";
    }
}

static void run_frames(const uint8_t *data, size_t size) {
    ubusd_server server;
    add_clients(server);
    std::string_view input(reinterpret_cast<const char *>(data), size);
    while (input.size() >= 12) {
        const uint32_t length = static_cast<uint32_t>(data[9] << 16 | data[10] << 8 | data[11]);
        const std::string_view frame = input.substr(0, 8 + std::max<size_t>((length + 3) & ~3u, 4));
        const auto client = server.clients.find(1025 + data[3] % 3u);
        if (client != server.clients.end())
            ubusd_client_input(*client->second, frame);
        if (data[2] == 1) // of the sequence number
            ubusd_announce_rights(server);
        ubusd_reap(server);
        for (auto &[id, receiver] : server.clients) {
            receiver->queue.clear();
            receiver->queue_bytes = 0;
        }
        input.remove_prefix(frame.size());
        data += frame.size();
    }
    ubusd_stop(server);
    require(server.clients.empty() && server.objects.empty() && server.paths.empty() && server.types.empty());
    require(server.listeners.empty() && server.subscriptions.empty() && server.monitors == 0);
}

static const FuzzTargets registered({{"bus_daemon", run_frames, mutate_bus_frames, start}});
