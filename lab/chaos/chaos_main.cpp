// lab-chaos SECONDS SEED: a hostile day of a mesh of three. What happens is drawn by the seed; every 24 steps
// everything is put right, and the daemon has to be what it was: one cycle that is whole, one upload, the
// descriptors and the memory of the start. Exit status 1 with what was wrong, the last steps and the logs.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <unistd.h>

#include "chaos_model.h"
#include "chaos_steps.h"

using namespace chaos;

namespace {

constexpr int kStepsBetween = 24;
constexpr useconds_t kPauseUs = 40000; // for a step to have its effect
constexpr int kServicesMs = 20000;
constexpr size_t kWarmUp = 8; // recoveries until memory is level
constexpr long kMemoryRoomKb = 16384;

// Records of each whole cycle, and those of them that end with the same bytes then (settings that changed
// stand before these).
constexpr const char *kWhole[] = {"internet_info", "qos_info",    "client_info",
                                  "device_info",   "system_info", "afc_info"};
constexpr const char *kConstant[] = {"client_info", "device_info", "internet_info"};

using Payloads = std::map<std::string, std::vector<std::string>>;

class Day {
  public:
    Day(World &world, Model &model) : world_(world), model_(model) {}
    // Everything is put right, and one collection and one upload are whole.
    void recover();
    void print_line(const char *what) const;
    size_t recoveries() const {
        return memory_.size();
    }

  private:
    void wait_for_services();
    void speak_again();
    void upload_all();
    Status settled();
    void expect_whole(const Payloads &records);
    void expect_levels();

    World &world_;
    Model &model_;
    Payloads reference_;
    std::vector<long> memory_;
    long descriptors_ = 0;
    Status status_;
};

void Day::wait_for_services() {
    for (size_t i = 0; i < world_.lab.node_count(); i++) {
        for (const char *object : {"network.interface.wan6", "telemetry"}) {
            if (i > 0 && object[0] == 'n')
                continue;
            const bool there = lab::wait_until(
                [&] {
                    world_.advance(500); // the daemon tries every two seconds
                    return world_.lab.node(i).wait_for_object(object, 0);
                },
                kServicesMs);
            if (!there)
                throw Finding(std::string(object) + " is not back on the bus of node " + std::to_string(i));
        }
    }
}

// The log is on, at its ordinary level.
void Day::speak_again() {
    world_.ask("debug", R"({"level":"info"})");
    const size_t before = world_.main().console_length();
    world_.ask("print");
    if (!world_.main().wait_for_console("telemetry post end", 500, before))
        world_.ask("toggle_debug");
}

// The list is empty, nothing is on its way, and what has arrived has been read.
Status Day::settled() {
    for (int i = 0; i < 100; i++) {
        const Status before = world_.status();
        model_.read();
        const Status after = world_.status();
        if (after.answered && after.list_records == 0 && before.records == after.records &&
            before.accepted + before.failed == after.accepted + after.failed &&
            !world_.main().state().contains("uploading"))
            return after;
        upload_all();
    }
    throw Finding("the daemon does not come to rest");
}

void Day::upload_all() {
    long ended = -1;
    int patience = 0;
    world_.drive("upload what it has", [&](const Status &now) {
        // Once for each that has ended, and when nothing comes of it.
        const bool again = ended != now.accepted + now.failed || ++patience > 50;
        if (now.state == "ready" && now.list_records > 0 && again) {
            ended = now.accepted + now.failed;
            patience = 0;
            world_.ask("post_now");
            world_.advance(150);
        }
        return now.list_records == 0;
    });
}

void Day::expect_whole(const Payloads &records) {
    for (const char *eid : kWhole) {
        if (!records.contains(eid))
            throw Finding("after all was put right, the cycle has no " + std::string(eid));
    }
    for (const char *eid : kConstant) {
        if (reference_.count(eid) > 0 &&
            !records.at(eid).back().ends_with(reference_.at(eid).back().substr(1)))
            throw Finding(std::string(eid) + " is not what it was: " + records.at(eid).back() + " not " +
                          reference_.at(eid).back());
    }
    const std::vector<std::string> &settings = records.at("qos_info");
    const std::string value = "\"ub\":" + std::to_string(world_.setting) + ",";
    if (std::count_if(settings.begin(), settings.end(),
                      [&](const std::string &text) { return text.find(value) != text.npos; }) != 1)
        throw Finding("the changed setting did not come once: " + settings.back() + " for " + value);
}

void Day::expect_levels() {
    Levels now;
    try {
        world_.drive("give back its descriptors and children", [&](const Status &) {
            now = world_.levels();
            return memory_.size() < 2 || (now.descriptors <= descriptors_ && now.children == 0);
        });
    } catch (const Finding &finding) {
        throw Finding(finding.what() + ("; it had " + std::to_string(descriptors_)) + ":" + now.open);
    }
    if (memory_.size() < 2)
        descriptors_ = std::max(descriptors_, now.descriptors);
    memory_.push_back(now.memory_kb);
    if (memory_.size() > kWarmUp && now.memory_kb > memory_[kWarmUp - 1] * 5 / 4 + kMemoryRoomKb)
        throw Finding("memory grows: " + std::to_string(memory_[kWarmUp - 1]) + " kB, now " +
                      std::to_string(now.memory_kb));
}

void Day::recover() {
    undo_all(world_);
    wait_for_services();
    speak_again();
    world_.drive("become ready", [](const Status &now) { return now.state == "ready"; });
    upload_all();
    model_.balance(settled());

    change_setting(world_);
    model_.mark();
    world_.ask("collect_all_next_time");
    const long cycle = world_.status().cycles + 1;
    world_.ask("collect_now");
    world_.advance(150);
    world_.drive("collect", [&](const Status &now) { return now.cycles >= cycle; });
    upload_all();
    status_ = settled();
    model_.balance(status_);
    if (!memory_.empty())
        expect_whole(model_.since_mark());
    if (memory_.size() == 1)
        reference_ = model_.since_mark();
    expect_levels();
    world_.check_logs();
}

void Day::print_line(const char *what) const {
    printf(
        "%s: %ld events, %zu recoveries, %ld bus deaths, %ld exchanges with the cloud, %ld cycles, %ld "
        "uploads "
        "(%ld again), %ld records, %ld dropped items; memory %ld kB, after the start %ld; %ld descriptors\n",
        what, world_.events, recoveries(), world_.bus_deaths, world_.lab.cloud().count("requests"),
        status_.cycles, model_.posts(), model_.repeated_posts(), model_.records(), status_.dropped_items,
        memory_.back(), memory_[std::min(kWarmUp, memory_.size()) - 1], descriptors_);
    fflush(stdout);
}

// Until the time is over; at least two recoveries before, which tell what is to come back, and one after.
void run(World &world, int seconds) {
    Model model(world);
    Day day(world, model);
    day.recover();
    day.recover();
    const auto begin = std::chrono::steady_clock::now();
    auto next_line = begin + std::chrono::minutes(1);
    while (std::chrono::steady_clock::now() < begin + std::chrono::seconds(seconds)) {
        for (int i = 0; i < kStepsBetween; i++) {
            random_step(world);
            if (world.chance(40))
                world.revive_services();
            world.advance(world.draw(2000));
            usleep(kPauseUs);
            world.check_alive();
        }
        day.recover();
        if (std::chrono::steady_clock::now() > next_line) {
            day.print_line("so far");
            next_line += std::chrono::minutes(1);
        }
    }
    for (size_t i = 0; i < world.lab.node_count(); i++) {
        const int exit = world.lab.node(i).daemon.stop(20000);
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
