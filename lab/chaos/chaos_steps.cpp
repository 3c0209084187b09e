// What happens on a hostile day: a table of steps, drawn by their weights.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <sys/resource.h>
#include <unistd.h>

#include "chaos_world.h"
#include "lab_bus.h"
#include "lab_files.h"

using namespace std::string_literals;

namespace chaos {

namespace {

constexpr int64_t kSecondMs = 1000, kDayMs = 86400000;
constexpr size_t kNoise = 1500; // characters, of an option that takes any text

std::string any_word(World &world, const char *words) {
    std::istringstream text(words);
    const std::vector<std::string> all{std::istream_iterator<std::string>(text), {}};
    return all[world.draw(static_cast<uint32_t>(all.size()))];
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
    if (world.chance(40))
        return of_node(node);
    world.start_bus(node); // as a supervised service
    return of_node(node) + ", and is back";
}

void limit_descriptors(World &world, size_t node, rlim_t limit) {
    rlimit limits = {};
    const pid_t process = world.lab.node(node).bus.pid();
    prlimit(process, RLIMIT_NOFILE, nullptr, &limits);
    limits.rlim_cur = std::min(limit, limits.rlim_max);
    prlimit(process, RLIMIT_NOFILE, &limits, nullptr);
}

// Stopped, or so full that it takes no more connections; those that it has stay.
template <Bus state> std::string bus_suffers(World &world) {
    const size_t node = any_node(world);
    if (world.bus[node] != Bus::up)
        return "";
    world.bus[node] = state;
    if (state == Bus::stopped)
        world.lab.node(node).bus.signal(SIGSTOP);
    else
        limit_descriptors(world, node, 0);
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

// --- Services and the cloud ---

std::string service_misbehaves(World &world) {
    const std::string call =
        any_word(world, "tfstats client_mgmt client_mgmt.get_myself client_mgmt.get sync sync.request "
                        "sync.request sync.list low_power network.interface.wan network.interface.wan6");
    const std::string kind =
        any_word(world, "absent slow silent status no_data empty types nonsense garbage huge twice die");
    world.faults[call] = R"({"kind":")" + kind + R"(","delay_ms":)" + std::to_string(world.draw(1500)) + "}";
    std::string all;
    for (const auto &[name, fault] : world.faults)
        all += (all.empty() ? "{\"" : ",\"") + name + "\":" + fault;
    world.main().set_faults(all + "}");
    return call + " " + kind;
}

std::string cloud_answers(World &world, const std::string &call, const std::string &kind,
                          const std::string &code, long times, uint32_t delay_ms = 0) {
    world.lab.cloud().script(call, R"([{"kind":")" + kind + R"(","code":)" + code + R"(,"delay_ms":)" +
                                       std::to_string(delay_ms) + R"(,"times":)" + std::to_string(times) +
                                       "}]");
    return call + " " + kind + " " + code + " x" + std::to_string(times);
}

std::string cloud_misbehaves(World &world) {
    const bool connect = world.chance(20);
    const std::string call = connect ? "connect" : any_word(world, "key strategy upload upload upload");
    const std::string kind =
        any_word(world, connect ? "unknown_ca wrong_host expired cut"
                                : "error_code empty garbage huge ok no_members wrong_type cut drip cut_body");
    const std::string code = any_word(world, "-10301 -10303 -10304 -10306 -20105 -20107 -20501 -20511 -20000 "
                                             "-29004 -1 7");
    const uint32_t delay_ms = world.chance(30) ? world.draw(2000) : 0;
    return cloud_answers(world, call, kind, code, 1 + world.draw(4), delay_ms);
}

// Of the minutes of collecting, collecting the rest and uploading. It is asked for after a new key only.
std::string new_strategy(World &world, const std::string &minutes) {
    std::istringstream words(minutes);
    std::string content, part;
    for (const char *name :
         {"collect_interval_strategy1=", ",collect_interval_strategy2=", ",post_interval="})
        content += std::getline(words, part, ',') ? name + part : ", please";
    world.lab.cloud().set_strategy("chaos-" + std::to_string(world.events), content + "\n");
    return content;
}

std::string strategy_changes(World &world) {
    world.lab.cloud().expire_keys();
    return new_strategy(world, any_word(world, "1,60,1 1,1,2 15,1440,240 2,60,1 0,60,1 more,often "
                                               "71583,2147483647,71583 40000,99999999999,40000"));
}

// Some exchanges with the cloud, as long as nothing keeps the daemon from them.
std::string uploads(World &world) {
    constexpr int kTurns = 80;
    constexpr int64_t kObstacleMs = 29000; // it looks again after thirty seconds
    const long wanted = 1 + world.draw(10);
    if (world.chance(20))
        world.lab.cloud().expire_keys();
    else if (world.chance(75)) // the records stay for the next one
        cloud_answers(world, "upload", "error_code", "-10306", wanted - 1);
    long first = -1, ended = 0;
    int obstacles = 0;
    const auto enough = [&](const Status &now) {
        if (now.list_records == 0 && now.state == "ready") {
            world.advance(kSecondMs);
            world.ask("collect_now");
        }
        world.ask_for_upload(now);
        first = first < 0 ? now.ended() : first;
        ended = now.ended() - first;
        obstacles += now.retry_ms > kObstacleMs ? 1 : 0;
        return ended >= wanted || obstacles > 2;
    };
    world.drive("upload", enough, World::ROUGHLY, kTurns);
    return std::to_string(ended) + " of " + std::to_string(wanted);
}

// --- Clocks ---

std::string time_passes(World &world) {
    const std::string seconds = any_word(world, "1 9 20 61 61 61 900 14400");
    world.advance(std::stol(seconds) * kSecondMs);
    return seconds + " s";
}

std::string wall_clock_jumps(World &world) {
    const size_t node = any_node(world);
    const int64_t days = static_cast<int64_t>(world.draw(60 * 365)) - 30 * 365;
    world.lab.node(node).shift_wall_clock(days * kDayMs);
    return of_node(node) + ", " + std::to_string(days) + " days";
}

// --- Files ---

// By another name, which takes no room in a full /tmp.
std::string rename(World &world, const std::string &from, const std::string &to) {
    ::rename((world.main().root() + from).c_str(), (world.main().root() + to).c_str());
    return "";
}

constexpr char kClock[] = "/tmp/run/ntpd.uptime", kNoClock[] = "/tmp/run/ntpd.kept";
constexpr char kRole[] = "/tmp/work_mode", kNoRole[] = "/tmp/work_mode.kept";

std::string tmp_fills(World &world) {
    if (!world.has_small_tmp)
        return "not here";
    std::ofstream file(world.main().root() + "/tmp/fill", std::ios::binary);
    const std::string block(4096 - world.draw(4000), 'x');
    while (file << block << std::flush) {
    }
    return "";
}

constexpr char kPackages[] =
    "telemetry qos wifi iptv network system ddns telemetry_info eco_mode bind_device_list";

std::string config_path(World &world, const std::string &package) {
    return world.main().root() + "/etc/config/" + package;
}

// The packages as they were before anything happened to them.
const std::map<std::string, std::string> &good_texts(World &world) {
    static std::map<std::string, std::string> texts;
    std::istringstream words(kPackages);
    for (std::string package; texts.size() < 10 && words >> package;)
        texts[package] = lab::read_file(config_path(world, package));
    return texts;
}

std::string configuration_is_rewritten(World &world) {
    const std::string package = any_word(world, kPackages), path = config_path(world, package);
    const std::string text = lab::read_file(path),
                      way = any_word(world, "gone cut garbage huge written written");
    const std::string half = text.substr(0, world.draw(static_cast<uint32_t>(text.size()) + 1));
    if (way == "gone")
        std::filesystem::remove(path);
    if (way == "cut")
        lab::write_file(path, half);
    if (way == "garbage")
        lab::write_file(path, half + std::string("\0\xff'\"\\ config {", 14));
    if (way == "huge")
        lab::write_file(path, std::string(300000, '\'') + text);
    if (way == "written") {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file << half << std::flush;
        usleep(3000);
        file << text.substr(half.size());
    }
    return package + " is " + way;
}

void configuration_returns(World &world) {
    for (const auto &[package, text] : good_texts(world)) {
        if (package != "qos")
            lab::write_file(config_path(world, package), text);
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

// --- Daemons ---

std::string satellite_reboots(World &world) {
    const size_t node = 1 + world.draw(2);
    if (world.node_is_down[node]) {
        world.start_bus(node);
        return of_node(node) + " comes";
    }
    world.lab.node(node).daemon.kill();
    world.kill_bus(node);
    world.node_is_down[node] = true;
    std::filesystem::remove_all(world.lab.node(node).root() + "/tmp/telemetry"); // that memory forgets
    return of_node(node) + " goes";
}

void satellites_run(World &world) {
    for (size_t node = 1; node < world.lab.node_count(); node++) {
        if (world.node_is_down[node])
            world.start_bus(node);
    }
}

std::string debug_is_switched(World &world) {
    const std::string level = any_word(world, "toggled toggled toggled toggled debug info error what");
    if (level == "toggled")
        world.ask("toggle_debug");
    else
        world.ask("debug", R"({"level":")" + level + R"("})");
    return level;
}

std::string is_called(World &world) {
    const std::string method =
        any_word(world, "collect_now collect_now collect_now post_now post_now collect_all_next_time "
                        "collect_all_next_time print collect_stgy2_and_post_now collect_system_info "
                        "collect_client_info collect_usb_info collect_afc_info collect_device_info clear");
    world.advance(kSecondMs);
    world.ask(method, method == "collect_device_info" ? R"({"ip_ap_addr":"192.168.68.1"})" : "{}");
    world.advance(200);
    return method;
}

// --- The table ---

struct Step {
    const char *name;
    uint32_t weight;
    // Does it; what exactly, for the report. Done again while it is in force it may do more of the same.
    std::string (*act)(World &world);
    // Puts everything right that `act` did, however often; null for what is over at once.
    void (*undo)(World &world);
};

// In the order in which everything is put right.
const Step kSteps[] = {
    {"/tmp is full", 2, tmp_fills, [](World &w) { w.main().remove("/tmp/fill"); }},
    {"satellite reboots", 5, satellite_reboots, satellites_run},
    {"bus dies", 8, bus_dies, mend_buses},
    {"bus stops", 2, bus_suffers<Bus::stopped>, mend_buses},
    {"bus takes nobody", 2, bus_suffers<Bus::full>, mend_buses},
    {"bus is flooded", 2, bus_is_flooded, nullptr},
    {"service misbehaves", 12, service_misbehaves,
     [](World &w) { w.faults.clear(), w.main().set_faults("{}"); }},
    {"cloud refuses", 2, [](World &w) { return w.lab.cloud().down(), ""s; },
     [](World &w) { w.lab.cloud().up(); }},
    {"cloud misbehaves", 12, cloud_misbehaves, [](World &w) { w.lab.cloud().reset_script(); }},
    {"keys expire", 4, [](World &w) { return w.lab.cloud().expire_keys(), ""s; }, nullptr},
    {"strategy changes", 6, strategy_changes, [](World &w) { new_strategy(w, "1,60,1"); }},
    {"time passes", 24, time_passes, nullptr},
    {"wall clock jumps", 4, wall_clock_jumps, [](World &w) { w.set_clocks(); }},
    {"clock is lost", 1, [](World &w) { return rename(w, kClock, kNoClock); },
     [](World &w) { rename(w, kNoClock, kClock); }},
    {"role is lost", 1, [](World &w) { return rename(w, kRole, kNoRole); },
     [](World &w) { rename(w, kNoRole, kRole); }},
    {"configuration is rewritten", 5, configuration_is_rewritten, configuration_returns},
    {"settings change", 6, settings_change, configuration_returns},
    {"telemetry is off", 1,
     [](World &w) { return w.main().set_config("telemetry", "basic", "enable", "0"), ""s; },
     configuration_returns},
    {"reload", 3, [](World &w) { return w.main().daemon.signal(SIGHUP), ""s; }, nullptr},
    {"debug is switched", 3, debug_is_switched, nullptr},
    {"is called", 14, is_called, nullptr},
    {"uploads", 30, uploads, nullptr},
};
bool in_force[std::size(kSteps)];

constexpr uint32_t kEndPercent = 30; // of the steps, something that is in force ends
constexpr size_t kHistory = 25;

void note(World &world, const std::string &text) {
    world.history.push_back(std::to_string(world.events) + ": " + text);
    if (world.history.size() > kHistory)
        world.history.pop_front();
}

} // namespace

void change_setting(World &world) {
    const std::string &good = good_texts(world).at("qos"), before = "option upload '";
    const size_t at = good.find(before) + before.size();
    lab::write_file(config_path(world, "qos"),
                    good.substr(0, at) + std::to_string(++world.setting) + good.substr(good.find('\'', at)));
}

void random_step(World &world) {
    const bool ends = world.chance(kEndPercent);
    uint32_t total = 0;
    const auto weight = [&](size_t index) { return ends ? in_force[index] : kSteps[index].weight; };
    for (size_t index = 0; index < std::size(kSteps); index++)
        total += weight(index);
    world.events++;
    if (total == 0)
        return;
    uint32_t drawn = world.draw(total);
    size_t index = 0;
    while (drawn >= weight(index))
        drawn -= weight(index++);
    const Step &step = kSteps[index];
    note(world, step.name);
    in_force[index] = !ends && step.undo != nullptr;
    if (ends)
        step.undo(world);
    world.history.back() += ends ? " no more" : ": " + step.act(world);
}

void undo_all(World &world) {
    good_texts(world); // before the first of them is touched
    note(world, "everything is put right");
    for (size_t index = 0; index < std::size(kSteps); index++) {
        if (kSteps[index].undo != nullptr)
            kSteps[index].undo(world);
        in_force[index] = false;
    }
    world.revive_services();
}

} // namespace chaos
