#include "chaos_world.h"

#include <chrono>
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

constexpr size_t kHistory = 25;
constexpr int kDriveMs = 60000;
constexpr size_t kLogLimit = 8 << 20;
constexpr const char *kLogs[] = {"/dev/console", "/var/log/messages", "/lab/services.log"};

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
    lab.cloud().set_strategy("often",
                             "collect_interval_strategy1=1,collect_interval_strategy2=60,post_interval=1\n");
    mount_small_tmp();
    advance(0);
    lab.start();
}

uint32_t World::draw(uint32_t below) {
    return static_cast<uint32_t>(random_()) % below;
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
}

void World::set_clocks() {
    for (size_t i = 0; i < lab.node_count(); i++)
        lab.node(i).shift_wall_clock(real_ms() - real_start_ms_ - lab.node(i).clock_ahead_ms());
}

void World::note(const std::string &text) {
    history.push_back(std::to_string(events) + ": " + text);
    if (history.size() > kHistory)
        history.pop_front();
}

void World::kill_bus(size_t node) {
    lab.node(node).bus.kill();
    lab.node(node).services.kill();
    bus[node] = Bus::dead;
    bus_deaths++;
}

void World::start_bus(size_t node) {
    lab.node(node).start_bus();
    bus[node] = Bus::up;
}

void World::revive_services() {
    for (size_t i = 0; i < lab.node_count(); i++) {
        if (bus[i] == Bus::up && !lab.node(i).services.running())
            lab.node(i).start_services();
    }
}

lab::BusReply World::ask(const std::string &method, const std::string &arguments) {
    return bus[0] == Bus::up ? main().call(method, arguments, 1) : lab::BusReply{};
}

Status World::status() {
    Status status;
    if (bus[0] != Bus::up)
        return status;
    const lab::BusReply reply = main().call_object("telemetry.status", "get", "{}", 1);
    if (reply.status != UBUS_STATUS_OK || !reply.json)
        return status;
    const auto member = [&](const char *name) {
        return cJSON_GetObjectItemCaseSensitive(reply.json.get(), name);
    };
    const auto number = [](const cJSON *table, const char *name) {
        return static_cast<long>(lab::json_number(table, name));
    };
    const cJSON *counters = member("counters"), *list = member("list");
    status.answered = true;
    status.state = lab::json_text(reply.json.get(), "state");
    status.retry_ms = number(member("next"), "retry_ms");
    status.list_records = number(list, "records");
    status.list_bytes = number(list, "bytes");
    status.cycles = number(counters, "cycles");
    status.records = number(counters, "records");
    status.accepted = number(counters, "uploads_accepted");
    status.failed = number(counters, "uploads_failed");
    status.reconnections = number(counters, "bus_reconnections");
    for (const char *name : {"items_shrunk", "items_cleared", "items_in_flight"})
        status.dropped_items += number(counters, name);
    return status;
}

Status World::drive(const std::string &what, const std::function<bool(const Status &)> &condition) {
    Status last;
    int64_t since = real_ms();
    const int64_t end = since + kDriveMs;
    while (real_ms() < end) {
        const Status now = status();
        if (now.answered && condition(now))
            return now;
        check_alive();
        Status same = now;
        same.retry_ms = last.retry_ms; // runs down by itself
        if (!(same == last))
            since = real_ms();
        last = now;
        // Without an answer it waits in a call; with a timer armed for that; else for an answer of the cloud,
        // which takes its real time.
        if (!now.answered)
            advance(5000);
        else if (now.retry_ms > 0)
            advance(now.retry_ms + 50);
        else if (real_ms() - since > 1500)
            advance(10000), since = real_ms();
        usleep(20000);
    }
    throw Finding("the daemon did not " + what + " within a minute: state " + last.state + ", retry in " +
                  std::to_string(last.retry_ms) + " ms, " + std::to_string(last.list_records) +
                  " records, cycle " + std::to_string(last.cycles));
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
        // Without a bus, or when its tools are too slow, one that has just been started gives up.
        node_is_down[i] = true;
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
        for (const char *log : kLogs) {
            std::error_code none;
            if (fs::file_size(node.root() + log, none) > kLogLimit && !none)
                fs::resize_file(node.root() + log, 0); // written at its end, wherever that is
        }
    }
}

Levels World::levels() {
    Levels levels;
    const std::string process = "/proc/" + std::to_string(main().daemon.pid());
    const std::string told = lab::read_file(process + "/status");
    if (const size_t at = told.find("VmRSS:"); at != told.npos)
        levels.memory_kb = atol(told.c_str() + at + strlen("VmRSS:"));
    for (const auto &entry : fs::directory_iterator(process + "/fd")) {
        std::error_code gone;
        levels.open += " " + fs::read_symlink(entry.path(), gone).string();
        levels.descriptors++;
    }
    const std::string children = lab::read_file(process + "/task/" + process.substr(6) + "/children");
    levels.children = std::count(children.begin(), children.end(), ' ');
    return levels;
}

std::string World::keep_logs() {
    const std::string kept = "/tmp/telemetry-chaos-" + std::to_string(seed);
    std::error_code none;
    fs::remove_all(kept, none);
    for (size_t i = 0; i < lab.node_count(); i++) {
        const std::string from = lab.node(i).root(), to = kept + "/n" + std::to_string(i);
        fs::create_directories(to, none);
        for (const char *part :
             {"/dev/console", "/var/log/messages", "/lab", "/etc/config", "/tmp/telemetry"}) {
            fs::create_directories(fs::path(to + part).parent_path(), none);
            fs::copy(from + part, to + part, fs::copy_options::recursive | fs::copy_options::skip_symlinks,
                     none);
        }
    }
    fs::copy(lab.directory() + "/cloud", kept + "/cloud", fs::copy_options::recursive, none);
    return kept;
}

} // namespace chaos
