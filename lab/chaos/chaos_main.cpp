// lab-chaos SECONDS SEED: a hostile day of a mesh of three. What happens is drawn by the seed; every 24 steps
// everything is put right, and the daemon has to be what it was: one cycle that is whole, one upload, the
// descriptors and the memory of the start. Exit status 1 with what was wrong, the last steps and the logs.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "chaos_model.h"

using namespace chaos;

namespace {

constexpr int kStepsBetween = 24, kTurns = 2;
constexpr uint32_t kTurnMs = 1000; // at most, two of which follow a step
constexpr int kAnswerS = 60;       // of this machine, however busy
constexpr int kServicesMs = 300000, kEndMs = 300000;
constexpr int kRestTurns = 300; // of 100 ms of the lab
constexpr long kKept = 2;       // connections to the cloud, which are closed when another is opened
constexpr size_t kWarmUp = 8;   // recoveries until memory is level
constexpr long kMemoryRoomKb = 16384;

// Records of each whole cycle, and those of them that end with the same bytes then (settings that changed
// stand before these).
constexpr const char *kWhole[] = {"internet_info", "qos_info",    "client_info",
                                  "device_info",   "system_info", "afc_info"};
constexpr const char *kConstant[] = {"client_info", "device_info", "internet_info"};

bool answers(const Status &) {
    return true;
}

class Day {
  public:
    explicit Day(World &world) : world_(world), model_(world) {}
    // Everything is put right, and one collection and one upload are whole.
    void recover();
    void print_line(const char *what) const;

  private:
    void wait_for_node(size_t node);
    void speak_again();
    void upload_all();
    void settle();
    void collect_all();
    void expect_whole(const Payloads &records) const;
    void expect_levels();

    World &world_;
    Model model_;
    Payloads reference_;
    std::vector<long> memory_; // by recovery
    long descriptors_ = 0;
    Status status_;
};

void Day::wait_for_node(size_t node) {
    const auto there = [&] {
        world_.advance(100); // the daemon tries every two seconds
        world_.check_alive();
        if (world_.node_is_down[node]) // its tools were too slow for a clock that leaps
            world_.start_bus(node);
        return world_.has_services(node) && world_.lab.node(node).wait_for_object("telemetry", 0);
    };
    if (!lab::wait_until(there, kServicesMs))
        throw Finding("node " + std::to_string(node) + " is not back on its bus");
}

// The log is on, at its ordinary level.
void Day::speak_again() {
    world_.ask("debug", R"({"level":"info"})", kAnswerS);
    const size_t before = world_.main().console_length();
    world_.ask("print", "{}", kAnswerS); // writes before it answers
    if (world_.main().count_in_console("telemetry post end", before) == 0)
        world_.ask("toggle_debug", "{}", kAnswerS);
}

void Day::upload_all() {
    world_.drive("upload what it has", [&](const Status &now) {
        world_.ask_for_upload(now);
        return now.list_records == 0;
    });
}

// The list is empty, nothing is on its way, what has arrived has been read, and the model's books agree.
void Day::settle() {
    for (int i = 0; i < kRestTurns; i++) {
        upload_all();
        const Status before = world_.status();
        model_.read();
        status_ = world_.status();
        if (status_.answered && status_.list_records == 0 && before.records == status_.records &&
            before.ended() == status_.ended() && !world_.main().state().contains("uploading"))
            return model_.balance(status_);
        world_.pass(1, 100);
    }
    throw Finding("the daemon does not come to rest");
}

void Day::expect_whole(const Payloads &records) const {
    for (const char *eid : kWhole) {
        if (!records.contains(eid))
            throw Finding("after all was put right, the cycle has no " + std::string(eid));
    }
    // A cycle that was due by itself may have come before, and reports everything in place of the one asked
    // for.
    for (const char *eid : kConstant) {
        const std::vector<std::string> &all = records.at(eid);
        const auto is_whole = [&](const std::string &text) {
            return text.ends_with(reference_.at(eid).back().substr(1));
        };
        if (reference_.contains(eid) && std::none_of(all.begin(), all.end(), is_whole))
            throw Finding(std::string(eid) + " is not what it was: " + all.back() + " not " +
                          reference_.at(eid).back());
    }
    const std::string value = "\"ub\":" + std::to_string(world_.setting) + ",";
    const auto has_value = [&](const std::string &text) { return text.find(value) != text.npos; };
    const std::vector<std::string> &settings = records.at("qos_info");
    if (std::count_if(settings.begin(), settings.end(), has_value) != 1)
        throw Finding("the changed setting did not come once: " + settings.back() + " for " + value);
}

void Day::expect_levels() {
    Levels now;
    const bool known = memory_.size() >= 2;
    try {
        world_.drive("give back its descriptors and children", [&](const Status &) {
            now = world_.levels();
            return !known || (now.descriptors <= descriptors_ + kKept && now.children == 0);
        });
    } catch (const Finding &finding) {
        throw Finding(finding.what() + ("; it had " + std::to_string(descriptors_)) + ", now " +
                      std::to_string(now.children) + " children and" + now.open);
    }
    if (!known)
        descriptors_ = std::max(descriptors_, now.descriptors);
    memory_.push_back(now.memory_kb);
    if (memory_.size() > kWarmUp && now.memory_kb > memory_[kWarmUp - 1] * 5 / 4 + kMemoryRoomKb)
        throw Finding("memory grows: " + std::to_string(memory_[kWarmUp - 1]) + " kB, now " +
                      std::to_string(now.memory_kb));
}

void Day::collect_all() {
    change_setting(world_);
    model_.since_mark.clear();
    world_.ask("collect_all_next_time", "{}", kAnswerS);
    const long cycles = world_.drive("answer", answers, World::GENTLY).cycles;
    world_.advance(1000);
    world_.ask("collect_now", "{}", kAnswerS);
    world_.advance(150);
    const auto collected = [&](const Status &now) { return now.cycles > cycles; };
    world_.drive("collect", collected, World::GENTLY);
    settle();
}

void Day::recover() {
    undo_all(world_);
    for (size_t node = 0; node < world_.lab.node_count(); node++)
        wait_for_node(node);
    world_.drive("answer", answers);
    speak_again();
    world_.drive("become ready", [](const Status &now) { return now.state == "ready"; });
    settle();

    // On a busy machine the clock leaps while a command runs, which then has taken too long.
    for (int tries = 0; tries < 3; tries++) {
        const size_t before = world_.main().console_length();
        collect_all();
        if (world_.main().count_in_console("ms and is killed", before) == 0)
            break;
    }
    if (!memory_.empty())
        expect_whole(model_.since_mark);
    if (memory_.size() == 1)
        reference_ = model_.since_mark;
    expect_levels();
    world_.check_logs();
}

void Day::print_line(const char *what) const {
    printf(
        "%s: %ld events, %zu recoveries, %ld bus deaths, %ld exchanges with the cloud, %ld cycles, %ld "
        "uploads "
        "(%ld again), %ld records, %ld dropped items; memory %ld kB, after the start %ld; %ld descriptors\n",
        what, world_.events, memory_.size(), world_.bus_deaths, world_.lab.cloud().count("requests"),
        status_.cycles, model_.posts, model_.repeated_posts, model_.records, status_.dropped_items,
        memory_.back(), memory_[std::min(kWarmUp, memory_.size()) - 1], descriptors_);
    fflush(stdout);
}

// Until the time is over; at least two recoveries before, which tell what is to come back, and one after.
void run(World &world, int seconds) {
    using Clock = std::chrono::steady_clock;
    Day day(world);
    day.recover();
    day.recover();
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    auto next_line = Clock::now() + std::chrono::minutes(1);
    while (Clock::now() < end) {
        for (int i = 0; i < kStepsBetween; i++) {
            random_step(world);
            if (world.chance(40))
                world.revive_services();
            world.pass(kTurns, world.draw(kTurnMs));
            world.check_alive();
        }
        day.recover();
        if (Clock::now() > next_line) {
            day.print_line("so far");
            next_line += std::chrono::minutes(1);
        }
    }
    for (size_t i = 0; i < world.lab.node_count(); i++) {
        const int exit = world.lab.node(i).daemon.stop(kEndMs);
        world.node_is_down[i] = true;
        if (exit != 0)
            throw Finding("the daemon of node " + std::to_string(i) + " ended with " + std::to_string(exit));
    }
    world.check_logs();
    day.print_line("no finding");
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: lab-chaos SECONDS SEED\n");
        return 2;
    }
    // What is freed goes back soon: memory can be compared.
    const char *options = getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS", (std::string(options ? options : "") + ":quarantine_size_mb=4").c_str(), 1);
    const auto seed = static_cast<uint32_t>(strtoul(argv[2], nullptr, 10));
    printf("seed %u\n", seed);
    fflush(stdout);
    std::unique_ptr<World> world;
    try {
        world = std::make_unique<World>(seed);
        run(*world, atoi(argv[1]));
        return 0;
    } catch (const std::exception &error) {
        fprintf(stderr, "lab-chaos, seed %u: %s\n", seed, error.what());
        if (world) {
            for (const std::string &step : world->history)
                fprintf(stderr, "  %s\n", step.c_str());
            fprintf(stderr, "logs are in %s\n", world->keep_logs().c_str());
        }
        return 1;
    }
}
