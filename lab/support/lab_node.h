// One node of the lab: its root directory, its bus, its services and its daemon.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "lab_process.h"
#include "lab_scenario.h"

namespace lab {

// Answer of a bus call: `status` is the bus's status code (0 ok, 4 not found, 7 timed out, ...).
struct BusReply {
    int status = -1;
    std::string text; // compact JSON; empty when there was none
    JsonTree json;    // the same, parsed; null when there was none
};

class LabNode {
  public:
    // `directory` is the lab's; the node's root is made below it.
    LabNode(const Scenario &scenario, size_t index, const std::string &directory, const std::string &bin_dir);

    const std::string &root() const {
        return root_;
    }
    const ScenarioNode &scenario() const {
        return scenario_.nodes[index_];
    }
    std::string bus_socket() const;
    // Environment of the node's processes.
    std::vector<std::pair<std::string, std::string>> environment() const;

    void start_bus();
    void start_services(); // nothing when lab-services was not built
    void start_daemon();
    // Moves the daemon's monotonic clock, so that its timers and time-outs are due. The first call must come
    // before the daemon starts (0 will do); without one its clock is the machine's.
    void advance_clock(int64_t ms);
    // Sets its wall clock, which then differs by `ms` from where it would be (with LAB_WALL_TIME only).
    void shift_wall_clock(int64_t ms);
    int64_t clock_ahead_ms() const {
        return clock_ms_[0];
    }
    // Where a test lays a FailOrder (lab/fakefail/) before the daemon starts.
    std::string fail_file() const;
    // SIGTERM to each, the daemon first.
    void stop();
    Process bus, services, daemon;

    // Calls a method of a bus object.
    BusReply call_object(const std::string &object, const std::string &method,
                         const std::string &arguments = "{}", double timeout_s = 30) const;
    // The same of the daemon's own object.
    BusReply call(const std::string &method, const std::string &arguments = "{}",
                  double timeout_s = 30) const;
    bool wait_for_object(const std::string &object, int timeout_ms = 10000) const;

    // Files of the root, by the router's paths.
    std::string read(const std::string &path) const;
    void write(const std::string &path, const std::string &text) const;
    void remove(const std::string &path) const;
    bool exists(const std::string &path) const;
    std::string config(const std::string &package, const std::string &section,
                       const std::string &option) const;
    void set_config(const std::string &package, const std::string &section, const std::string &option,
                    const std::string &value) const;
    // Misbehaviour of the services and the driver (docs/lab.md), from the next call on.
    void set_faults(const std::string &json) const;

    // What the daemon wrote to /dev/console; from an offset when given.
    std::string console(size_t from = 0) const;
    size_t console_length() const;
    bool wait_for_console(const std::string &text, int timeout_ms, size_t from = 0) const;
    // How often a text stands there.
    size_t count_in_console(const std::string &text, size_t from = 0) const;
    // The console without the state dumps.
    std::string log() const;
    // The daemon's state dump (its method "print"): "post state" -> "3" and so on, "list" -> the records that
    // it holds as JSON, "uploading" -> "1" while one of its requests is in use. Empty when it does not
    // answer.
    std::map<std::string, std::string> state() const;
    // A number of the state dump, 0 when it is not there.
    long number(const std::string &line) const;
    // Waits until a line of the state dump has that value (the daemon answers between its cycles).
    bool wait_for_state(const std::string &line, const std::string &value, int timeout_ms) const;

  private:
    std::string clock_file() const;
    const Scenario &scenario_;
    size_t index_;
    void write_clock() const;
    int64_t clock_ms_[2] = {}; // monotonic clock ahead of the machine's, wall clock ahead of that
    std::string directory_, root_, bin_dir_;
};

// The daemon's post state when it is ready to upload.
inline constexpr char kReadyForUpload[] = "3";

} // namespace lab
