// The mesh of a hostile day: a lab whose main node is watched, what is wrong with it at the moment, and the
// steps that make it so.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <string>

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
    long retry_ms = 0, list_records = 0, cycles = 0, records = 0, accepted = 0, failed = 0, dropped_items = 0;
    long ended() const {
        return accepted + failed;
    }
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
    uint32_t draw(uint32_t below) {
        return static_cast<uint32_t>(random_()) % below;
    }
    bool chance(uint32_t percent) {
        return draw(100) < percent;
    }
    lab::LabNode &main() {
        return lab.node();
    }

    // Time passes on every node; the lab's clock hardly moves by itself, so that a busy machine makes nothing
    // late.
    void advance(int64_t ms);
    // The same in small steps, each long enough for the daemons to do what is due.
    void pass(int steps, int64_t step_ms);
    // How far the lab's clock had moved when this machine's stood there (s).
    int64_t advanced_at(long second) const;
    // The wall clocks are right again, to a day: no second comes twice, and two cycles are never of the same.
    void set_clocks();

    void kill_bus(size_t node);
    // With its daemon, on a satellite that is down.
    void start_bus(size_t node);
    // Starts services that have died, where the bus takes them.
    void revive_services();
    // Whether those that were started last are on the bus, with all their objects.
    bool has_services(size_t node);
    // A call of the main node's daemon, whether it answers or not; nothing where no bus would carry it.
    lab::BusReply ask(const std::string &method, const std::string &arguments = "{}", double timeout_s = 0.2);
    Status status();
    // Asks until the condition holds, moving the clock past what the daemon waits for, gently where none of
    // its limits may be over meanwhile. When it does not hold after ten minutes of this machine, a finding;
    // nothing after so many turns.
    enum Manner { ROUGHLY, GENTLY };
    Status drive(const std::string &what, const std::function<bool(const Status &)> &condition,
                 Manner manner = ROUGHLY, int turns = 0);
    // A request to upload, once for each that has ended, and when nothing comes of it.
    void ask_for_upload(const Status &now);

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
    std::deque<std::string> history; // the last steps, for the report of a finding

  private:
    void mount_small_tmp();
    std::mt19937 random_;
    int64_t real_start_ms_;
    long ended_ = -1; // uploads, when the last one was asked for
    int patience_ = 0;
    std::map<long, int64_t> advanced_; // by the machine's second, from its beginning on
};

// Draws a step from the table of steps and does it, or ends one that is in force.
void random_step(World &world);
// Everything is as it should be: daemons, buses and services run, clocks and configuration are right.
void undo_all(World &world);
// Another value of the watched setting stands in the main node's configuration.
void change_setting(World &world);

} // namespace chaos
