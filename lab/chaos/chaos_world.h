// The mesh of a hostile day: a lab whose main node is watched, and what is wrong with it at the moment.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "lab.h"

namespace chaos {

// What should not have been; the text says what.
struct Finding : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class Bus { up, stopped, full, dead };

// What `telemetry.status` tells of the daemon.
struct Status {
    bool answered = false;
    std::string state;
    long retry_ms = -1, list_records = 0, list_bytes = 0;
    long cycles = 0, records = 0, accepted = 0, failed = 0, dropped_items = 0, reconnections = 0;
    bool operator==(const Status &) const = default;
};

struct Levels {
    long memory_kb = 0, descriptors = 0, children = 0;
    std::string open; // what stands behind the descriptors
};

class World {
  public:
    explicit World(uint32_t seed);
    // The same on every machine for the same seed.
    uint32_t draw(uint32_t below);
    bool chance(uint32_t percent) {
        return draw(100) < percent;
    }
    lab::LabNode &main() {
        return lab.node();
    }

    // Time passes on every node.
    void advance(int64_t ms);
    // The wall clocks are right again.
    void set_clocks();
    // Something happened: kept for the report of a finding.
    void note(const std::string &text);

    void kill_bus(size_t node);
    void start_bus(size_t node);
    // Starts services that have died, where the bus takes them.
    void revive_services();
    // A call of the main node's daemon, whether it answers or not; nothing where no bus would carry it.
    lab::BusReply ask(const std::string &method, const std::string &arguments = "{}");
    Status status();
    // Asks until the condition holds, moving the clock past what the daemon waits for; a finding after a
    // minute.
    Status drive(const std::string &what, const std::function<bool(const Status &)> &condition);

    // A finding when a daemon that is to run does not.
    void check_alive();
    // A finding when a sanitizer has spoken. Shortens logs that grow without end.
    void check_logs();
    Levels levels();
    // Copies them to a directory that stays, whose name it gives.
    std::string keep_logs();

    const uint32_t seed;
    lab::Lab lab;
    bool has_small_tmp = false; // the main node's /tmp is a file system of its own
    Bus bus[3] = {};
    bool node_is_down[3] = {};
    std::map<std::string, std::string> faults; // of the main node's services
    long setting = 1000;                       // qos.settings.upload, which only rises
    long bus_deaths = 0, events = 0;
    std::deque<std::string> history;

  private:
    void mount_small_tmp();
    std::mt19937 random_;
    int64_t real_start_ms_;
};

} // namespace chaos
