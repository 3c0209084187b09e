// The home scenario with time that only the test moves: the main node's clocks step from one collection cycle
// to the next, and what the daemon holds after each step can be looked at.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "lab.h"

inline constexpr int64_t kQuarterMs = 900000;
// A cycle takes its time, so the next one is due later than a quarter of an hour after it. That keeps it
// apart from uploads, which follow the clock to the millisecond.
inline constexpr int64_t kCycleStepMs = kQuarterMs + 1000;
// Uploads that are due around the time of a cycle are waited for this long before it.
inline constexpr int64_t kApproachMs = 8000;
// Cycles and uploads come well within this, on a busy machine and with sanitizers.
inline constexpr int kStepWaitMs = 60000;

struct HeldRecord {
    std::string eid, payload; // compact JSON
    long ct = 0, count = 0;
    bool operator==(const HeldRecord &) const = default;
};

// What the daemon tells of itself.
struct DaemonState {
    std::vector<HeldRecord> list;
    size_t list_length = 0; // bytes of its compact text
    long post_state = 0, item_count = 0, cycles = 0, retries = 0, retry_interval_ms = 0;
    bool uploading = false;
};

class SteppedLab {
  public:
    // `midnight`: seconds since the epoch at which the wall clock stands when the daemon starts.
    explicit SteppedLab(long midnight)
        : midnight_(midnight), lab(quick_home()), node(lab.node()), cloud(lab.cloud()) {
        setenv("LAB_WALL_TIME", std::to_string(midnight).c_str(), 1);
        for (size_t i = 0; i < lab.node_count(); ++i)
            lab.node(i).advance_clock(0);
    }
    ~SteppedLab() {
        unsetenv("LAB_WALL_TIME");
    }

    // The router boots, and learns the time a little later: the daemon gets key and strategy from then on.
    void boot() {
        const std::string synced = "/tmp/run/ntpd.uptime";
        node.remove(synced);
        lab.start();
        advance(300000);
        node.write(synced, "1\n");
        advance(31000);
        wait([](const DaemonState &state) { return state.post_state == 3; }, "become ready");
    }

    void advance(int64_t ms) {
        elapsed_ms_ += ms;
        node.advance_clock(ms);
    }
    int64_t elapsed_ms() const {
        return elapsed_ms_;
    }
    long now() const { // of the daemon's wall clock
        return midnight_ + static_cast<long>(elapsed_ms_ / 1000);
    }

    // Runs the clock to just before the next cycle; uploads that are due on the way are done then.
    void approach_cycle() {
        advance(next_cycle_ms_ - kApproachMs - elapsed_ms_);
    }
    // The cycle itself. The number of cycles run afterwards is `cycle`.
    DaemonState run_cycle(long cycle) {
        advance(next_cycle_ms_ + 1000 - elapsed_ms_);
        next_cycle_ms_ = elapsed_ms_ + kQuarterMs;
        return wait([&](const DaemonState &state) { return state.cycles >= cycle; }, "run a cycle");
    }

    DaemonState wait(const std::function<bool(const DaemonState &)> &condition, const char *what) {
        DaemonState state;
        if (!lab::wait_until(
                [&] {
                    state = read_state();
                    return condition(state);
                },
                kStepWaitMs))
            throw std::runtime_error(std::string("the daemon did not ") + what + "\n" +
                                     log.substr(log.size() - std::min<size_t>(log.size(), 5000)));
        return state;
    }
    DaemonState wait_until_idle() {
        return wait([](const DaemonState &state) { return state.cycles >= 0 && !state.uploading; },
                    "finish its upload");
    }

  private:
    static lab::Scenario quick_home() {
        const lab::Scenario home = lab::scenario_load("home");
        // The main node cannot answer itself while it asks: the service need not wait for it.
        cJSON *limits = cJSON_AddObjectToObject(home.json.get(), "sync");
        cJSON_AddNumberToObject(limits, "own_limit_ms", 10);
        return lab::scenario_parse(lab::print_json(home.json.get()), "home");
    }

    static constexpr char kPrefixEnd[] = "): ";

    // One state dump, which is then taken off the console: a day of them is long.
    DaemonState read_state() {
        DaemonState state;
        state.cycles = -1; // did not answer
        const std::string console = node.root() + "/dev/console";
        if (node.call("print").status != 0 || !node.wait_for_console("telemetry post end", 5000))
            return state;
        std::istringstream lines(lab::read_file(console));
        std::filesystem::resize_file(console, 0);
        std::string line, list;
        bool in_list = false;
        while (std::getline(lines, line)) {
            const size_t prefix = line.rfind("[telemetry][", 0) == 0 ? line.find(kPrefixEnd) : line.npos;
            const bool printed = prefix != line.npos && line.find("][print_") < prefix;
            const std::string text = prefix == line.npos ? line : line.substr(prefix + 3);
            if (printed)
                in_list = read_line(text, state);
            if (in_list)
                list += text + "\n";
            else if (!printed && prefix != line.npos)
                log += line + "\n";
        }
        read_list(list, state);
        return state;
    }
    // true from the line on with which the list begins.
    static bool read_line(const std::string &text, DaemonState &state) {
        const size_t colon = text.find(": ");
        const std::string name = text.substr(0, colon);
        const long value = colon == text.npos ? 0 : atol(text.c_str() + colon + 2);
        const std::pair<const char *, long *> numbers[] = {
            {"post state", &state.post_state},
            {"data_collect_count", &state.item_count},
            {"collect_count", &state.cycles},
            {"post retry count", &state.retries},
            {"post_retry_interval", &state.retry_interval_ms},
        };
        for (const auto &[known, number] : numbers) {
            if (name == known)
                *number = value;
        }
        if (name == "used" && value != 0)
            state.uploading = true;
        if (name == "backup data total str len")
            state.list_length = static_cast<size_t>(value);
        return text.rfind("[", 0) == 0 && text.rfind("[post request", 0) != 0;
    }
    static void read_list(const std::string &text, DaemonState &state) {
        if (text.empty())
            return;
        const lab::JsonTree list = lab::parse_json(text, "the daemon's list");
        const cJSON *record = nullptr;
        cJSON_ArrayForEach(record, list.get()) {
            state.list.push_back({lab::json_text(record, "eid"),
                                  lab::print_json(cJSON_GetObjectItemCaseSensitive(record, "ep")),
                                  static_cast<long>(lab::json_number(record, "ct")),
                                  static_cast<long>(lab::json_number(record, "cnt"))});
        }
    }

    long midnight_;
    int64_t elapsed_ms_ = 0, next_cycle_ms_ = kQuarterMs;

  public:
    lab::Lab lab;
    lab::LabNode &node;
    lab::LabCloud &cloud;
    std::string log; // console without the state dumps
};
