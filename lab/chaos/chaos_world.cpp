#include "chaos_world.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iterator>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "lab_bus.h"

namespace fs = std::filesystem;

namespace chaos {

namespace {

// Of this machine, which may have much else to do.
constexpr int64_t kDriveMs = 600000, kPatienceMs = 1500, kBusyMs = 30000;
constexpr useconds_t kTurnUs = 5000; // in which a daemon looks at the clock
constexpr const char *kSlow = "8";
// Of the lab.
constexpr int64_t kTurnMs = 100;      // in which the daemon looks at its transfers
constexpr int64_t kTransferMs = 2000; // well below the limit of one
constexpr size_t kLogLimit = 2 << 20;
constexpr char kServicesReady[] = "/lab/services.ready";
// Of the main node's services, which a step takes from the bus.
constexpr const char *kObjects[] = {"tfstats",   "client_mgmt",           "sync",
                                    "low_power", "network.interface.wan", "network.interface.wan6"};

int64_t real_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

lab::Scenario scenario() {
    // Nobody waits for the asking node's own answer.
    return lab::scenario_load("home", {R"({"sync":{"own_limit_ms":10}})"});
}

} // namespace

World::World(uint32_t wanted_seed)
    : seed(wanted_seed), lab(scenario()), random_(wanted_seed), real_start_ms_(real_ms()) {
    setenv("LAB_WALL_TIME", std::to_string(time(nullptr)).c_str(), 1);
    setenv("LAB_CLOCK_SLOW", kSlow, 1);
    lab.cloud().set_strategy("often",
                             "collect_interval_strategy1=1,collect_interval_strategy2=60,post_interval=1\n");
    mount_small_tmp();
    advance(0);
    lab.start();
}

// A private name space, so that the file system goes with this process.
void World::mount_small_tmp() {
    const std::string tmp = main().root() + "/tmp", kept = main().root() + "/lab/tmp";
    if (unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
        fs::rename(tmp, kept);
        fs::create_directory(tmp);
        has_small_tmp = mount("tmpfs", tmp.c_str(), "tmpfs", 0, "size=2m") == 0;
        fs::copy(kept, tmp, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    }
    if (!has_small_tmp)
        printf("no full /tmp today: that takes root\n");
}

void World::advance(int64_t ms) {
    for (size_t i = 0; i < lab.node_count(); i++)
        lab.node(i).advance_clock(ms);
    advanced_[time(nullptr) + 1] = main().clock_ahead_ms();
}

void World::pass(int steps, int64_t step_ms) {
    for (int i = 0; i < steps; i++) {
        advance(step_ms);
        usleep(kTurnUs);
    }
}

int64_t World::advanced_at(long second) const {
    const auto later = advanced_.upper_bound(second);
    return later == advanced_.begin() ? 0 : std::prev(later)->second;
}

void World::set_clocks() {
    const int64_t to_ms = real_ms() - real_start_ms_ + draw(86400) * int64_t{1000};
    for (size_t i = 0; i < lab.node_count(); i++)
        lab.node(i).shift_wall_clock(to_ms - lab.node(i).clock_ahead_ms());
}

void World::kill_bus(size_t node) {
    lab.node(node).bus.kill();
    lab.node(node).services.kill();
    bus[node] = Bus::dead;
    bus_deaths++;
}

void World::start_bus(size_t node) {
    if (bus[node] != Bus::up) {
        lab.node(node).services.kill(); // those of the bus before would end soon: nobody would revive them
        lab.node(node).start_bus();
    }
    bus[node] = Bus::up;
    if (node_is_down[node])
        lab.node(node).start_daemon();
    node_is_down[node] = false;
}

void World::revive_services() {
    for (size_t i = 0; i < lab.node_count(); i++) {
        if (bus[i] != Bus::up || lab.node(i).services.running())
            continue;
        lab.node(i).remove(kServicesReady);
        lab.node(i).start_services();
    }
}

bool World::has_services(size_t node) {
    const auto there = [&](const char *object) { return lab.node(node).wait_for_object(object, 0); };
    return lab.node(node).exists(kServicesReady) &&
           (node > 0 || std::all_of(std::begin(kObjects), std::end(kObjects), there));
}

lab::BusReply World::ask(const std::string &method, const std::string &arguments, double timeout_s) {
    return bus[0] == Bus::up ? main().call(method, arguments, timeout_s) : lab::BusReply{};
}

struct StatusRow {
    const char *table, *name;
    long Status::*field;
};
static constexpr StatusRow kStatus[] = {
    {"next", "retry_ms", &Status::retry_ms},
    {"list", "records", &Status::list_records},
    {"counters", "cycles", &Status::cycles},
    {"counters", "records", &Status::records},
    {"counters", "uploads_accepted", &Status::accepted},
    {"counters", "uploads_failed", &Status::failed},
    {"counters", "items_shrunk", &Status::dropped_items},
    {"counters", "items_cleared", &Status::dropped_items},
    {"counters", "items_in_flight", &Status::dropped_items},
};

Status World::status() {
    Status status;
    if (bus[0] != Bus::up)
        return status;
    const lab::BusReply reply = main().call_object("telemetry.status", "get", "{}", 0.1);
    if (reply.status != UBUS_STATUS_OK || !reply.json)
        return status;
    status.answered = true;
    status.state = lab::json_text(reply.json.get(), "state");
    for (const StatusRow &row : kStatus)
        status.*row.field += static_cast<long>(
            lab::json_number(cJSON_GetObjectItemCaseSensitive(reply.json.get(), row.table), row.name));
    return status;
}

Status World::drive(const std::string &what, const std::function<bool(const Status &)> &condition,
                    Manner manner, int turns) {
    Status last;
    const int64_t begin = real_ms();
    int64_t since = begin, passed = 0, patience = kPatienceMs;
    for (int turn = 1; real_ms() < begin + kDriveMs; turn++) {
        const Status now = status();
        if ((now.answered && condition(now)) || turn == turns)
            return now;
        check_alive();
        Status same = now;
        same.retry_ms = last.retry_ms; // runs down by itself
        if (!(same == last))
            since = real_ms(), passed = 0;
        last = now;
        // Without an answer it waits in a call or is busy; with a timer armed for that; else for an answer of
        // the cloud, which takes its real time, each time longer.
        int64_t ms = manner == GENTLY ? kTurnMs / 10 : kTurnMs;
        if (!now.answered && (manner == ROUGHLY || real_ms() - since > kBusyMs))
            ms = 5000;
        else if (now.retry_ms > 0)
            ms = now.retry_ms + 50;
        else if (real_ms() - since > patience && manner == ROUGHLY)
            ms = 10000, since = real_ms(), patience *= 2;
        else if (passed > kTransferMs)
            ms = 0;
        passed = ms > kTurnMs ? 0 : passed + ms;
        pass(1, ms);
    }
    throw Finding("the daemon did not " + what + " within ten minutes: state " + last.state + ", retry in " +
                  std::to_string(last.retry_ms) + " ms, " + std::to_string(last.list_records) +
                  " records, cycle " + std::to_string(last.cycles));
}

void World::ask_for_upload(const Status &now) {
    const bool again = ended_ != now.ended() || ++patience_ > 50;
    if (now.state != "ready" || now.list_records == 0 || !again)
        return;
    ended_ = now.ended();
    patience_ = 0;
    ask("post_now");
    advance(150);
}

void World::check_alive() {
    for (size_t i = 0; i < lab.node_count(); i++) {
        lab::LabNode &node = lab.node(i);
        if (node_is_down[i] || node.daemon.running())
            continue;
        const int exit = node.daemon.wait(0);
        if (i == 0 || exit != 0)
            throw Finding("the daemon of node " + std::to_string(i) + " has ended with " +
                          std::to_string(exit));
        node_is_down[i] = true; // one that has just been started gives up without a bus or its tools
    }
}

void World::check_logs() {
    for (size_t i = 0; i < lab.node_count(); i++) {
        const lab::LabNode &node = lab.node(i);
        const std::string said = node.read("/lab/daemon.log") + node.console();
        for (const char *word : {"AddressSanitizer", "LeakSanitizer", "runtime error:"}) {
            if (said.find(word) != said.npos)
                throw Finding("node " + std::to_string(i) + ": " + said.substr(said.find(word), 300));
        }
        for (const char *log : {"/dev/console", "/var/log/messages", "/lab/services.log"}) {
            std::error_code none;
            if (fs::file_size(node.root() + log, none) > kLogLimit && !none)
                fs::resize_file(node.root() + log, 0); // written at its end, wherever that is
        }
    }
}

Levels World::levels() {
    Levels levels;
    const std::string pid = std::to_string(main().daemon.pid()), process = "/proc/" + pid;
    const std::string told = lab::read_file(process + "/status");
    if (const size_t at = told.find("VmRSS:"); at != told.npos)
        levels.memory_kb = atol(told.c_str() + at + strlen("VmRSS:"));
    for (const auto &entry : fs::directory_iterator(process + "/fd")) {
        std::error_code gone;
        levels.open += " " + fs::read_symlink(entry.path(), gone).string();
        levels.descriptors++;
    }
    const std::string children = lab::read_file(process + "/task/" + pid + "/children");
    levels.children = std::count(children.begin(), children.end(), ' ');
    return levels;
}

std::string World::keep_logs() {
    const std::string kept = "/tmp/telemetry-chaos-" + std::to_string(seed);
    const std::string copy = "rm -rf " + kept + " && cp -a " + lab.directory() + " " + kept;
    return system(copy.c_str()) == 0 ? kept : kept + ", in part";
}

} // namespace chaos
