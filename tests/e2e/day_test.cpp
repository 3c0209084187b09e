// A working day of eight hours in the life of the home scenario, with time that only the test moves: the
// cloud's strategy keeps the default intervals but has the "daily" modules report after eight hours. Beside
// the daemon runs a model of what it must hold and when it must upload; at the end the cloud has every record
// that was collected and not shrunk away, once, and nothing was reported that had not changed.
#include <cstdlib>
#include <numeric>
#include <set>

#include <gmock/gmock.h>

#include "lab.h"

namespace {

constexpr long kMidnight = 1767225600;
constexpr int64_t kQuarterMs = 900000, kPostIntervalMs = 4 * 3600000;
constexpr size_t kThreshold = 32768, kMaxLength = 65536;

// Cycle k runs at k quarters of an hour past midnight (and k seconds).
constexpr long kWifiCycle = 10;                   // the first after a change of the channel
constexpr long kKeyCycle = 17;                    // the key has expired before the upload that is due
constexpr long kBusCycle = 20;                    // the bus was restarted
constexpr long kNoiseFirst = 21, kNoiseLast = 30; // a program fills options with nonsense
constexpr long kCloudDown = 23, kCloudUp = 30;
constexpr long kLastCycle = 33; // the "daily" one

// Options that take any text, for a program that goes mad.
constexpr const char *kNoisyOptions[][3] = {
    {"eco_mode", "settings", "mode"}, {"iptv", "iptv", "mode"},
    {"qos", "settings", "mode"},      {"system", "basic", "timezone"},
    {"system", "basic", "language"},  {"quicksetup", "quicksetup", "wan_detection"},
};

struct HeldRecord {
    std::string eid, payload; // compact JSON
    long ct = 0, count = 0;
    bool operator==(const HeldRecord &) const = default;
};

// What the daemon tells of itself.
struct DaemonState {
    explicit DaemonState(std::map<std::string, std::string> &&lines)
        : answered(!lines.empty()), uploading(lines.count("uploading") > 0),
          list_length(strtoul(lines["backup data total str len"].c_str(), nullptr, 10)),
          post_state(atol(lines["post state"].c_str())), items(atol(lines["data_collect_count"].c_str())),
          cycles(atol(lines["collect_count"].c_str())), retries(atol(lines["post retry count"].c_str())),
          retry_interval_ms(atol(lines["post_retry_interval"].c_str())) {
        const lab::JsonTree tree =
            lab::parse_json(lines.count("list") > 0 ? lines["list"] : "[]", "the daemon's list");
        const cJSON *record = nullptr;
        cJSON_ArrayForEach(record, tree.get()) list.push_back(
            {lab::json_text(record, "eid"), lab::print_json(cJSON_GetObjectItemCaseSensitive(record, "ep")),
             static_cast<long>(lab::json_number(record, "ct")),
             static_cast<long>(lab::json_number(record, "cnt"))});
    }
    bool answered, uploading;
    size_t list_length; // bytes of its compact text
    long post_state, items, cycles, retries, retry_interval_ms;
    std::vector<HeldRecord> list;
};

class DayTest : public ::testing::Test {
  protected:
    DayTest() {
        setenv("LAB_WALL_TIME", std::to_string(kMidnight).c_str(), 1);
        for (size_t i = 0; i < lab.node_count(); ++i)
            lab.node(i).advance_clock(0);
        cloud.set_strategy("s-8",
                           "collect_interval_strategy1=15,collect_interval_strategy2=480,post_interval=240");
        // Answers take a moment: what is uploaded is still held when the daemon is asked after the cycle.
        cloud.script("upload", R"([{"kind":"ok","delay_ms":1000,"times":-1}])");
        // The router boots, and learns the time a little later: the daemon gets key and strategy from then
        // on.
        const std::string synced = "/tmp/run/ntpd.uptime";
        node.remove(synced);
        lab.start();
        advance(300000);
        node.write(synced, "1\n");
        advance(31000);
        wait([](const DaemonState &state) { return state.post_state == 3; }, "become ready");
        post_due_ms = elapsed_ms + kPostIntervalMs;
    }

    void advance(int64_t ms) {
        elapsed_ms += ms;
        node.advance_clock(ms);
    }
    long now() const { // of the daemon's wall clock
        return kMidnight + static_cast<long>(elapsed_ms / 1000);
    }
    DaemonState wait(const std::function<bool(const DaemonState &)> &condition, const char *what) {
        DaemonState state({});
        if (!lab::wait_until(
                [&] {
                    state = DaemonState(node.state());
                    return state.answered && condition(state);
                },
                60000))
            throw std::runtime_error(std::string("the daemon did not ") + what + "\n" + node.log());
        return state;
    }
    DaemonState wait_until_idle() {
        return wait([](const DaemonState &state) { return !state.uploading; }, "finish its upload");
    }

    // What happens in the quarter of an hour before a cycle.
    void happen_before(long cycle) {
        if (cycle == kWifiCycle)
            node.set_config("wifi", "radio_5g", "channel", "149");
        if (cycle == kKeyCycle)
            cloud.expire_keys();
        if (cycle == kBusCycle)
            restart_bus();
        if (cycle >= kNoiseFirst && cycle <= kNoiseLast)
            for (const auto &[package, section, option] : kNoisyOptions)
                node.set_config(package, section, option,
                                std::string(1900, static_cast<char>('a' + cycle % 26)));
        if (cycle == kCloudDown)
            cloud.down();
        if (cycle == kCloudUp)
            cloud.up();
    }
    void restart_bus() {
        node.bus.kill();
        node.services.stop();
        node.start_bus();
        node.start_services();
        advance(3000); // the daemon tries every two seconds
        ASSERT_TRUE(node.wait_for_object("telemetry"));
        ASSERT_TRUE(node.wait_for_object("network.interface.wan6"));
    }

    // The cycle adds records of its own time to those that were held; when the list gets too long, the oldest
    // go.
    void take_over(long cycle, const DaemonState &state) {
        std::vector<HeldRecord> kept;
        std::set<std::string> fresh;
        long items = 0;
        for (const HeldRecord &record : state.list) {
            items += record.count;
            if (record.ct != now()) {
                kept.push_back(record);
                continue;
            }
            EXPECT_TRUE(fresh.insert(record.eid).second) << record.eid << " twice";
            reported[record.eid].push_back(cycle);
        }
        EXPECT_EQ(state.items, items);
        ASSERT_LE(kept.size(), held.size());
        const size_t gone = held.size() - kept.size();
        EXPECT_TRUE(std::equal(kept.begin(), kept.end(), held.begin() + static_cast<std::ptrdiff_t>(gone)));
        size_t length = state.list_length;
        for (size_t i = 0; i < gone; ++i)
            length += held[i].payload.size() + 100;
        EXPECT_EQ(gone > 0, length >= kMaxLength) << length;
        shrunk += gone;
        collected += fresh.size();
        held = state.list;
    }

    // An upload is due: waits for its outcome, and for that of the retries when it failed.
    void expect_attempt() {
        DaemonState state = outcome(0, 3);
        while (state.retries != 0 || state.post_state != 3) {
            ++failures;
            advance(state.retry_interval_ms);
            state = outcome(state.retries, state.post_state);
        }
        post_due_ms = elapsed_ms + kPostIntervalMs;
    }
    // Of the attempt that changes these.
    DaemonState outcome(long retries, long post_state) {
        wait(
            [&](const DaemonState &state) {
                return state.retries != retries || state.post_state != post_state ||
                       cloud.count("posts") > posts;
            },
            "upload");
        DaemonState state = wait_until_idle();
        if (cloud.count("posts") > posts)
            note_upload();
        return state;
    }
    // What the cloud accepted is what was held, in that order, whole.
    void note_upload() {
        EXPECT_EQ(cloud.count("posts"), ++posts);
        size_t at = 0;
        for (const lab::CloudRecord &record : cloud.records()) {
            if (record.post != posts)
                continue;
            ASSERT_LT(at, held.size());
            EXPECT_EQ(record.eid, held[at].eid);
            EXPECT_EQ(record.ct, std::to_string(held[at].ct));
            EXPECT_EQ(lab::print_json(lab::parse_json(record.payload, record.eid).get()), held[at++].payload);
        }
        EXPECT_EQ(at, held.size());
        sent += held.size();
        held.clear();
    }

    // A whole quarter of an hour. Cycles are a second more than that apart, which keeps them apart from
    // uploads: those follow the clock to the millisecond.
    void run_quarter(long cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        happen_before(cycle);
        advance(next_cycle_ms - 8000 - elapsed_ms);
        wait_until_idle();
        if (elapsed_ms >= post_due_ms && !held.empty()) {
            ++interval_posts;
            expect_attempt();
        }
        advance(next_cycle_ms + 1000 - elapsed_ms);
        next_cycle_ms = elapsed_ms + kQuarterMs;
        const DaemonState state =
            wait([&](const DaemonState &told) { return told.cycles >= cycle; }, "run a cycle");
        EXPECT_EQ(state.cycles, cycle);
        take_over(cycle, state);
        if (state.list_length >= kThreshold) {
            ++threshold_posts;
            advance(200);
            expect_attempt();
        }
        EXPECT_EQ(cloud.count("posts"), posts) << "an upload that was not due";
    }

    // The main node cannot answer itself while it asks: the service need not wait for it.
    lab::Lab lab{lab::scenario_load("home", {R"({"sync":{"own_limit_ms":10}})"})};
    lab::LabNode &node = lab.node();
    lab::LabCloud &cloud = lab.cloud();
    int64_t elapsed_ms = 0, next_cycle_ms = kQuarterMs, post_due_ms = 0;
    std::vector<HeldRecord> held; // what the daemon must hold
    std::map<std::string, std::vector<long>> reported;
    size_t collected = 0, sent = 0, shrunk = 0;
    long posts = 0, failures = 0, interval_posts = 0, threshold_posts = 0;
};

TEST_F(DayTest, TheCloudHasWhatChangedOnce) {
    for (long cycle = 1; cycle <= kLastCycle && !HasFailure(); ++cycle)
        ASSERT_NO_FATAL_FAILURE(run_quarter(cycle));
    ASSERT_EQ(node.call("post_now").status, 0);
    advance(200);
    expect_attempt();
    EXPECT_EQ(collected, sent + shrunk);
    EXPECT_TRUE(held.empty());

    std::vector<long> every(kLastCycle), noise = {1};
    std::iota(every.begin(), every.end(), 1);
    noise.insert(noise.end(), every.begin() + kNoiseFirst - 1, every.begin() + kNoiseLast);
    const std::vector<long> first = {1}, periodic = {17, 33}, daily = {33};
    const std::map<std::string, std::vector<long>> expected = {
        {"internet_info", every},
        {"ecomode_info", noise},
        {"iptv_info", noise},
        {"qos_info", noise},
        {"quicksetup_info", noise},
        {"client_info", periodic},
        {"device_info", daily},
        {"system_info", periodic},
        {"wireless_guest_info", first},
        {"wireless_host_info", {1, kWifiCycle}},
        {"wireless_iot_info", first},
        {"cloud_info", first},
        {"advanced_info", daily},
        {"restart_info", daily},
        {"usb_info", first},
        {"afc_info", daily},
        {"havenguard_info_v2", daily},
    };
    EXPECT_EQ(reported, expected);

    // The day was as it is told above.
    EXPECT_EQ(cloud.count("invalid_signatures"), 0);
    EXPECT_EQ(cloud.keys().size(), 2U);
    EXPECT_EQ(cloud.count("upload.refused"), 1) << "the expired key, once";
    EXPECT_EQ(node.config("telemetry", "cloud", "accessKey"), cloud.keys().back().access_key);
    EXPECT_GE(interval_posts, 1);
    EXPECT_GE(threshold_posts, 3);
    EXPECT_GE(failures, 5) << "retries while the cloud was away";
    EXPECT_GE(shrunk, 5U);
    EXPECT_GE(node.count_in_console("retry 5 times, stop retry uploading data"), 1U);
    EXPECT_EQ(node.daemon.stop(), 0);
}

} // namespace
