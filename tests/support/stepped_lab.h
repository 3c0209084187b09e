// The home scenario with time that only the test moves: the main node's clocks step from one collection cycle
// to the next, and what the daemon holds after each step can be looked at.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "lab.h"

struct HeldRecord {
    std::string eid, payload; // compact JSON
    long ct = 0, count = 0;
    bool operator==(const HeldRecord &) const = default;
};

// What the daemon tells of itself; cycles is -1 when it did not answer.
struct DaemonState {
    std::vector<HeldRecord> list;
    size_t list_length = 0; // bytes of its compact text
    long post_state = 0, item_count = 0, cycles = -1, retries = 0, retry_interval_ms = 0;
    bool uploading = false;
};

class SteppedLab {
  public:
    SteppedLab() : lab(quick_home()), node(lab.node()), cloud(lab.cloud()) {
        setenv("LAB_WALL_TIME", std::to_string(kMidnight).c_str(), 1);
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
        return kMidnight + static_cast<long>(elapsed_ms_ / 1000);
    }

    // Runs the clock to just before the next cycle; uploads that are due on the way are done then.
    void approach_cycle() {
        advance(next_cycle_ms_ - 8000 - elapsed_ms_);
        wait_until_idle();
    }
    // The cycle itself. The number of cycles run afterwards is `cycle`. The next one is due a second more
    // than a quarter of an hour later, which keeps it apart from uploads: they follow the clock to the
    // millisecond.
    DaemonState run_cycle(long cycle) {
        advance(next_cycle_ms_ + 1000 - elapsed_ms_);
        next_cycle_ms_ = elapsed_ms_ + kQuarterMs;
        return wait([&](const DaemonState &state) { return state.cycles >= cycle; }, "run a cycle");
    }

    // Cycles and uploads come well within a minute, on a busy machine and with sanitizers.
    DaemonState wait(const std::function<bool(const DaemonState &)> &condition, const char *what) {
        DaemonState state;
        if (!lab::wait_until([&] { return condition(state = read_state()); }, 60000))
            throw std::runtime_error(std::string("the daemon did not ") + what + "\n" +
                                     log.substr(log.size() - std::min<size_t>(log.size(), 5000)));
        return state;
    }
    DaemonState wait_until_idle() {
        return wait([](const DaemonState &state) { return state.cycles >= 0 && !state.uploading; },
                    "finish its upload");
    }

  private:
    static constexpr long kMidnight = 1767225600;
    static constexpr int64_t kQuarterMs = 900000;

    static lab::Scenario quick_home() {
        const lab::Scenario home = lab::scenario_load("home");
        // The main node cannot answer itself while it asks: the service need not wait for it.
        cJSON *limits = cJSON_AddObjectToObject(home.json.get(), "sync");
        cJSON_AddNumberToObject(limits, "own_limit_ms", 10);
        return lab::scenario_parse(lab::print_json(home.json.get()), "home");
    }

    // One state dump, which is then taken off the console: a day of them is long. Its lines are "name:
    // number"; the list's text follows a line of its own and has no prefix from the second line on.
    DaemonState read_state() {
        const std::string console = node.root() + "/dev/console";
        if (node.call("print").status != 0 || !node.wait_for_console("telemetry post end", 5000))
            return {};
        std::istringstream lines(lab::read_file(console));
        std::filesystem::resize_file(console, 0);
        std::map<std::string, long> numbers;
        std::string line, list;
        bool in_list = false, uploading = false;
        while (std::getline(lines, line)) {
            const size_t prefix = line.rfind("[telemetry][", 0) == 0 ? line.find("): ") : line.npos;
            const bool printed = prefix != line.npos && line.find("][print_") < prefix;
            const std::string text = prefix == line.npos ? line : line.substr(prefix + 3);
            if (printed) {
                const size_t colon = std::min(text.find(": "), text.size());
                const long number = atol(text.substr(colon).c_str() + (colon < text.size() ? 2 : 0));
                numbers[text.substr(0, colon)] = number;
                uploading = uploading || (text.rfind("used: ", 0) == 0 && number != 0);
                in_list = text.rfind("[", 0) == 0 && text.rfind("[post request", 0) != 0;
            }
            if (in_list)
                list += text + "\n";
            else if (!printed && prefix != line.npos)
                log += line + "\n";
        }
        return {read_list(list),
                static_cast<size_t>(numbers["backup data total str len"]),
                numbers["post state"],
                numbers["data_collect_count"],
                numbers["collect_count"],
                numbers["post retry count"],
                numbers["post_retry_interval"],
                uploading};
    }
    static std::vector<HeldRecord> read_list(const std::string &text) {
        std::vector<HeldRecord> records;
        const lab::JsonTree list = lab::parse_json(text.empty() ? "[]" : text, "the daemon's list");
        const cJSON *record = nullptr;
        cJSON_ArrayForEach(record, list.get()) records.push_back(
            {lab::json_text(record, "eid"), lab::print_json(cJSON_GetObjectItemCaseSensitive(record, "ep")),
             static_cast<long>(lab::json_number(record, "ct")),
             static_cast<long>(lab::json_number(record, "cnt"))});
        return records;
    }

    int64_t elapsed_ms_ = 0, next_cycle_ms_ = kQuarterMs;

  public:
    lab::Lab lab;
    lab::LabNode &node;
    lab::LabCloud &cloud;
    std::string log; // console without the state dumps
};
