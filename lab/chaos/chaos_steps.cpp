#include "chaos_steps.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "lab_bus.h"
#include "lab_files.h"

using namespace std::string_literals;

namespace chaos {

namespace {

constexpr int64_t kSecondMs = 1000, kMinuteMs = 60000, kDayMs = 86400000;
constexpr int kStartMs = 10000;
constexpr size_t kNoise = 1500; // characters, of an option that takes any text

std::string config_path(World &world, const std::string &package) {
    return world.main().root() + "/etc/config/" + package;
}

template <typename T, size_t N> const T &any_of(World &world, const T (&list)[N]) {
    return list[world.draw(N)];
}

// Mostly the main node.
size_t any_node(World &world) {
    return world.chance(60) ? 0 : world.draw(3);
}

std::string of_node(size_t node) {
    return "node " + std::to_string(node);
}

// --- Buses ---

std::string bus_dies(World &world) {
    const size_t node = any_node(world);
    if (world.node_is_down[node])
        return "";
    world.kill_bus(node);
    // Often it is back at once, as a supervised service is.
    if (world.chance(60)) {
        world.start_bus(node);
        return of_node(node) + ", and is back";
    }
    return of_node(node);
}

std::string bus_stops(World &world) {
    const size_t node = any_node(world);
    if (world.bus[node] != Bus::up)
        return "";
    world.lab.node(node).bus.signal(SIGSTOP);
    world.bus[node] = Bus::stopped;
    return of_node(node);
}

void limit_descriptors(World &world, size_t node, rlim_t limit) {
    rlimit limits = {};
    const pid_t process = world.lab.node(node).bus.pid();
    prlimit(process, RLIMIT_NOFILE, nullptr, &limits);
    limits.rlim_cur = std::min(limit, limits.rlim_max);
    prlimit(process, RLIMIT_NOFILE, &limits, nullptr);
}

// It takes no more connections; those that it has stay.
std::string bus_fills(World &world) {
    const size_t node = any_node(world);
    if (world.bus[node] != Bus::up)
        return "";
    limit_descriptors(world, node, 0);
    world.bus[node] = Bus::full;
    return of_node(node);
}

void mend_buses(World &world) {
    for (size_t node = 0; node < world.lab.node_count(); node++) {
        if (world.bus[node] == Bus::stopped)
            world.lab.node(node).bus.signal(SIGCONT);
        if (world.bus[node] == Bus::full)
            limit_descriptors(world, node, 1024);
        if (world.bus[node] == Bus::dead && !world.node_is_down[node])
            world.start_bus(node);
        if (world.bus[node] != Bus::dead)
            world.bus[node] = Bus::up;
    }
}

// Questions whose answers nobody takes, until the bus has no room for more of them.
std::string bus_is_flooded(World &world) {
    if (world.bus[0] != Bus::up)
        return "";
    const std::unique_ptr<ubus_context, decltype(&ubus_free)> connection(
        ubus_connect(world.main().bus_socket().c_str()), ubus_free);
    uint32_t id = 0;
    if (!connection || ubus_lookup_id(connection.get(), "telemetry.status", &id) != UBUS_STATUS_OK)
        return "nobody there";
    blob_buf nothing = {};
    blob_buf_init(&nothing, 0);
    ubus_request request = {};
    for (int i = 0; i < 400; i++)
        ubus_invoke_async(connection.get(), id, "get", nothing.head, &request);
    blob_buf_free(&nothing);
    usleep(50000);
    return "400 calls";
}

// --- Services ---

std::string service_misbehaves(World &world) {
    static constexpr const char *kCalls[] = {
        "tfstats",   "client_mgmt",           "client_mgmt.get_myself", "client_mgmt.get",
        "sync",      "sync.request",          "sync.request",           "sync.list",
        "low_power", "network.interface.wan", "network.interface.wan6",
    };
    static constexpr const char *kKinds[] = {"absent", "slow",     "silent",  "status", "no_data", "empty",
                                             "types",  "nonsense", "garbage", "huge",   "twice",   "die"};
    const std::string call = any_of(world, kCalls), kind = any_of(world, kKinds);
    world.faults[call] = R"({"kind":")" + kind + R"(","delay_ms":)" + std::to_string(world.draw(1500)) + "}";
    std::string all;
    for (const auto &[name, fault] : world.faults)
        all += (all.empty() ? "{\"" : ",\"") + name + "\":" + fault;
    world.main().set_faults(all + "}");
    return call + " " + kind;
}

// --- The cloud ---

std::string cloud_misbehaves(World &world) {
    static constexpr const char *kCalls[] = {"key", "strategy", "upload", "upload", "upload"};
    static constexpr const char *kKinds[] = {"error_code", "empty",      "garbage", "huge", "ok",
                                             "no_members", "wrong_type", "cut",     "drip", "cut_body"};
    static constexpr const char *kConnects[] = {"unknown_ca", "wrong_host", "expired", "cut"};
    static constexpr int kCodes[] = {-10301, -10303, -10304, -10306, -20105, -20107,
                                     -20501, -20511, -20000, -29004, -1,     7};
    const bool connect = world.chance(20);
    const std::string call = connect ? "connect" : any_of(world, kCalls);
    const std::string kind = connect ? any_of(world, kConnects) : any_of(world, kKinds);
    const int code = any_of(world, kCodes);
    const uint32_t delay = world.chance(30) ? world.draw(2000) : 0, times = 1 + world.draw(4);
    world.lab.cloud().script(call, R"([{"kind":")" + kind + R"(","code":)" + std::to_string(code) +
                                       R"(,"delay_ms":)" + std::to_string(delay) + R"(,"times":)" +
                                       std::to_string(times) + "}]");
    return call + " " + kind + " " + std::to_string(code) + " x" + std::to_string(times);
}

constexpr char kOften[] = "collect_interval_strategy1=1,collect_interval_strategy2=60,post_interval=1\n";

// It is asked for after a new key only.
void new_strategy(World &world, const std::string &content) {
    world.lab.cloud().set_strategy("chaos-" + std::to_string(world.events), content);
}

std::string strategy_changes(World &world) {
    static constexpr const char *kContents[] = {
        kOften,
        "collect_interval_strategy1=1,collect_interval_strategy2=1,post_interval=2",
        "collect_interval_strategy1=15,collect_interval_strategy2=1440,post_interval=240\n",
        "collect_interval_strategy1=2,collect_interval_strategy2=60,post_interval=1\n",
        "collect_interval_strategy1=0,collect_interval_strategy2=60,post_interval=1\n",
        "collect_interval_strategy1=71583,collect_interval_strategy2=2147483647,post_interval=71583\n",
        "collect_interval_strategy1=40000,collect_interval_strategy2=99999999999,post_interval=40000\n",
        "more often, please",
    };
    const std::string content = any_of(world, kContents);
    new_strategy(world, content);
    world.lab.cloud().expire_keys();
    return content.substr(0, content.find('\n'));
}

// --- Clocks ---

std::string time_passes(World &world) {
    static constexpr int64_t kLeaps[] = {kSecondMs,      9 * kSecondMs,  20 * kSecondMs, 61 * kSecondMs,
                                         61 * kSecondMs, 61 * kSecondMs, 15 * kMinuteMs, 4 * 60 * kMinuteMs};
    const int64_t ms = any_of(world, kLeaps);
    world.advance(ms);
    return std::to_string(ms / 1000) + " s";
}

std::string wall_clock_jumps(World &world) {
    const size_t node = any_node(world);
    const int64_t days = static_cast<int64_t>(world.draw(60 * 365)) - 30 * 365;
    world.lab.node(node).shift_wall_clock(days * kDayMs);
    return of_node(node) + ", " + std::to_string(days) + " days";
}

// By other names, which takes no room in a full /tmp.
std::string hide(World &world, const std::string &path) {
    rename((world.main().root() + path).c_str(), (world.main().root() + path + ".kept").c_str());
    return "";
}

void show(World &world, const std::string &path) {
    rename((world.main().root() + path + ".kept").c_str(), (world.main().root() + path).c_str());
}

constexpr char kClockFile[] = "/tmp/run/ntpd.uptime", kRoleFile[] = "/tmp/work_mode";

// --- Configuration ---

constexpr const char *kPackages[] = {"telemetry", "qos",  "wifi",           "iptv",     "network",
                                     "system",    "ddns", "telemetry_info", "eco_mode", "bind_device_list"};

void write_in_place(const std::string &path, const std::string &text, size_t half) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text.substr(0, half) << std::flush;
    usleep(3000);
    file << text.substr(half);
}

// The package as it was before anything happened to it.
std::string good_text(World &world, const std::string &package) {
    static std::map<std::string, std::string> texts;
    if (!texts.contains(package))
        texts[package] = lab::read_file(config_path(world, package));
    return texts[package];
}

std::string configuration_is_rewritten(World &world) {
    const std::string package = any_of(world, kPackages), path = config_path(world, package);
    const std::string text = lab::read_file(path);
    const uint32_t way = world.draw(6);
    if (way == 0) {
        std::filesystem::remove(path);
        return package + " is gone";
    }
    const size_t half = text.empty() ? 0 : world.draw(static_cast<uint32_t>(text.size()));
    if (way == 1)
        lab::write_file(path, text.substr(0, half));
    else if (way == 2)
        lab::write_file(path, text.substr(0, half) + std::string("\0\xff'\"\\ config {", 14));
    else if (way == 3)
        lab::write_file(path, std::string(300000, '\'') + text);
    else
        write_in_place(path, text, half);
    static constexpr const char *kWays[] = {"",        "is cut",     "is garbage",
                                            "is huge", "is written", "is written"};
    return package + " " + kWays[way];
}

void configuration_returns(World &world) {
    for (const std::string package : kPackages) {
        if (package != "qos")
            lab::write_file(config_path(world, package), good_text(world, package));
    }
    change_setting(world);
    world.main().daemon.signal(SIGHUP); // it may have read the cloud's address from half a file
}

std::string settings_change(World &world) {
    change_setting(world);
    if (!world.chance(40))
        return std::to_string(world.setting);
    // A program goes mad: the list fills.
    for (const auto &[package, section] : {std::pair{"eco_mode", "settings"}, {"iptv", "iptv"}})
        world.main().set_config(package, section, "mode",
                                std::string(kNoise, static_cast<char>('a' + world.draw(26))));
    return std::to_string(world.setting) + " and noise";
}

// --- The rest of the system ---

std::string tmp_fills(World &world) {
    if (!world.has_small_tmp)
        return "not here";
    std::ofstream file(world.main().root() + "/tmp/fill", std::ios::binary);
    const std::string block(4096 - world.draw(4000), 'x');
    while (file << block << std::flush) {
    }
    return "";
}

std::string satellite_reboots(World &world) {
    const size_t node = 1 + world.draw(2);
    lab::LabNode &satellite = world.lab.node(node);
    if (!world.node_is_down[node]) {
        satellite.daemon.kill();
        world.kill_bus(node);
        world.node_is_down[node] = true;
        std::filesystem::remove_all(satellite.root() + "/tmp/telemetry"); // that memory forgets
    } else {
        world.node_is_down[node] = false;
        world.start_bus(node);
        satellite.start_daemon();
    }
    return of_node(node) + (world.node_is_down[node] ? " goes" : " comes");
}

void satellites_run(World &world) {
    for (size_t node = 1; node < world.lab.node_count(); node++) {
        if (!world.node_is_down[node])
            continue;
        lab::LabNode &satellite = world.lab.node(node);
        world.node_is_down[node] = false;
        world.start_bus(node);
        satellite.start_daemon();
        lab::wait_until(
            [&] { return !satellite.daemon.running() || satellite.wait_for_object("telemetry", 0); },
            kStartMs);
    }
}

std::string debug_is_switched(World &world) {
    static constexpr const char *kLevels[] = {"debug", "info", "error", "what"};
    if (world.chance(50)) {
        world.ask("toggle_debug");
        return "toggled";
    }
    const std::string level = any_of(world, kLevels);
    world.ask("debug", R"({"level":")" + level + R"("})");
    return level;
}

std::string is_called(World &world) {
    static constexpr const char *kMethods[] = {"collect_now",
                                               "collect_now",
                                               "collect_now",
                                               "post_now",
                                               "post_now",
                                               "collect_all_next_time",
                                               "collect_all_next_time",
                                               "print",
                                               "collect_stgy2_and_post_now",
                                               "collect_system_info",
                                               "collect_client_info",
                                               "collect_usb_info",
                                               "collect_afc_info",
                                               "collect_device_info",
                                               "clear"};
    const std::string method = any_of(world, kMethods);
    world.ask(method, method == "collect_device_info" ? R"({"ip_ap_addr":"192.168.68.1"})" : "{}");
    world.advance(200);
    return method;
}

// In the order in which everything is put right.
const Step kSteps[] = {
    {"/tmp is full", 2, tmp_fills, [](World &w) { w.main().remove("/tmp/fill"); }},
    {"satellite reboots", 5, satellite_reboots, satellites_run},
    {"bus dies", 8, bus_dies, mend_buses},
    {"bus stops", 2, bus_stops, mend_buses},
    {"bus takes nobody", 2, bus_fills, mend_buses},
    {"bus is flooded", 2, bus_is_flooded, nullptr},
    {"service misbehaves", 12, service_misbehaves,
     [](World &w) { w.faults.clear(), w.main().set_faults("{}"); }},
    {"cloud refuses", 2, [](World &w) { return w.lab.cloud().down(), ""s; },
     [](World &w) { w.lab.cloud().up(); }},
    {"cloud misbehaves", 12, cloud_misbehaves, [](World &w) { w.lab.cloud().reset_script(); }},
    {"keys expire", 4, [](World &w) { return w.lab.cloud().expire_keys(), ""s; }, nullptr},
    {"strategy changes", 6, strategy_changes, [](World &w) { new_strategy(w, kOften); }},
    {"time passes", 24, time_passes, nullptr},
    {"wall clock jumps", 4, wall_clock_jumps, [](World &w) { w.set_clocks(); }},
    {"clock is lost", 1, [](World &w) { return hide(w, kClockFile); }, [](World &w) { show(w, kClockFile); }},
    {"role is lost", 1, [](World &w) { return hide(w, kRoleFile); }, [](World &w) { show(w, kRoleFile); }},
    {"configuration is rewritten", 5, configuration_is_rewritten, configuration_returns},
    {"settings change", 6, settings_change, configuration_returns},
    {"telemetry is off", 1,
     [](World &w) { return w.main().set_config("telemetry", "basic", "enable", "0"), ""s; },
     configuration_returns},
    {"reload", 3, [](World &w) { return w.main().daemon.signal(SIGHUP), ""s; }, nullptr},
    {"debug is switched", 3, debug_is_switched, nullptr},
    {"is called", 20, is_called, nullptr},
};
bool in_force[std::size(kSteps)];

// Of what is in force, something ends.
constexpr uint32_t kUndoPercent = 30;

} // namespace

void change_setting(World &world) {
    const std::string good = good_text(world, "qos"), before = "option upload '";
    const size_t at = good.find(before) + before.size();
    lab::write_file(config_path(world, "qos"),
                    good.substr(0, at) + std::to_string(++world.setting) + good.substr(good.find('\'', at)));
}

void random_step(World &world) {
    uint32_t total = 0;
    for (const Step &step : kSteps)
        total += step.weight;
    uint32_t drawn = world.draw(total);
    size_t index = 0;
    while (drawn >= kSteps[index].weight)
        drawn -= kSteps[index++].weight;
    const Step &step = kSteps[index];
    const bool ends = in_force[index] && world.chance(kUndoPercent);
    world.events++;
    world.note(std::string(step.name) + (ends ? ": ends" : ""));
    if (ends) {
        step.undo(world);
        in_force[index] = false;
        return;
    }
    const std::string what = step.act(world);
    if (!what.empty())
        world.history.back() += ": " + what;
    in_force[index] = step.undo != nullptr;
}

void undo_all(World &world) {
    for (const char *package : kPackages)
        good_text(world, package); // before the first of them is touched
    world.note("everything is put right");
    for (size_t index = 0; index < std::size(kSteps); index++) {
        if (kSteps[index].undo != nullptr)
            kSteps[index].undo(world);
        in_force[index] = false;
    }
    world.revive_services();
}

} // namespace chaos
