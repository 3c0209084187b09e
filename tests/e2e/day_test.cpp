// A day in the life of the home scenario at the default intervals. Beside the daemon runs a model of what it
// must hold and when it must upload; at the end the cloud has every record that was collected and not shrunk
// away, once.
#include <set>

#include <gmock/gmock.h>

#include "stepped_lab.h"

using ::testing::HasSubstr;

namespace {

constexpr long kMidnight = 1767225600;
constexpr int64_t kHourMs = 3600000;
constexpr int64_t kPostIntervalMs = 4 * kHourMs;
constexpr size_t kThreshold = 32768, kMaxLength = 65536;

// Cycle k runs at k quarters of an hour past midnight (and k seconds).
constexpr long kWifiCycle = 41;                   // 10:15, the first after a change of the channel
constexpr long kNoonCycle = 49;                   // 12:15, the key has expired at 12:00
constexpr long kBusCycle = 57;                    // 14:15, the bus was restarted
constexpr long kNoiseFirst = 69, kNoiseLast = 80; // a program fills options with nonsense
constexpr long kCloudDown = 72, kCloudUp = 80;    // 18:00 and 20:00
constexpr long kLastCycle = 97;                   // the daily one

// Options that take any text, for a program that goes mad.
struct NoisyOption {
    const char *package, *section, *option;
};
constexpr NoisyOption kNoisyOptions[] = {
    {"eco_mode", "settings", "mode"}, {"iptv", "iptv", "mode"},
    {"qos", "settings", "mode"},      {"system", "basic", "timezone"},
    {"system", "basic", "language"},  {"quicksetup", "quicksetup", "wan_detection"},
};
constexpr size_t kNoiseLength = 1900;

class DayTest : public ::testing::Test {
  protected:
    DayTest() : day(kMidnight) {
        // Answers take a moment: what is uploaded is still held when the daemon is asked after the cycle.
        day.cloud.script("upload", R"([{"kind":"ok","delay_ms":1000,"times":-1}])");
        day.boot();
        post_due_ms = day.elapsed_ms() + kPostIntervalMs;
    }

    // What happens in the quarter of an hour before a cycle.
    void happen_before(long cycle) {
        lab::LabNode &node = day.node;
        if (cycle == kWifiCycle)
            node.set_config("wifi", "radio_5g", "channel", "149");
        if (cycle == kNoonCycle)
            day.cloud.expire_keys();
        if (cycle == kBusCycle)
            restart_bus();
        if (cycle >= kNoiseFirst && cycle <= kNoiseLast)
            for (const NoisyOption &option : kNoisyOptions)
                node.set_config(option.package, option.section, option.option,
                                std::string(kNoiseLength, static_cast<char>('a' + cycle % 26)));
        if (cycle == kCloudDown)
            day.cloud.down();
        if (cycle == kCloudUp)
            day.cloud.up();
    }

    void restart_bus() {
        day.node.bus.kill();
        day.node.services.stop();
        day.node.start_bus();
        day.node.start_services();
        day.advance(3000); // the daemon tries every two seconds
        ASSERT_TRUE(day.node.wait_for_object("telemetry"));
        ASSERT_TRUE(day.node.wait_for_object("network.interface.wan6"));
    }

    // The cycle adds records of its own time to those that were held; when the list gets too long, a third of
    // the items goes, oldest first.
    void take_over(long cycle, const DaemonState &state) {
        std::vector<HeldRecord> fresh, kept;
        for (const HeldRecord &record : state.list)
            (record.ct == day.now() ? fresh : kept).push_back(record);
        check_modules(cycle, fresh);
        ASSERT_LE(kept.size(), held.size());
        const auto first_kept = held.end() - static_cast<std::ptrdiff_t>(kept.size());
        EXPECT_TRUE(std::equal(kept.begin(), kept.end(), first_kept));
        if (first_kept == held.begin()) {
            EXPECT_LT(state.list_length, kMaxLength);
        } else {
            check_shrink(state, first_kept);
        }
        dropped.insert(dropped.end(), held.begin(), first_kept);
        held = state.list;
        EXPECT_EQ(state.item_count, items(held));
        collected += fresh.size();
    }

    void check_shrink(const DaemonState &state, std::vector<HeldRecord>::iterator first_kept) {
        size_t dropped_length = 0;
        long dropped_items = 0;
        for (auto record = held.begin(); record != first_kept; ++record) {
            dropped_length += record->payload.size() + 100;
            dropped_items += record->count;
        }
        EXPECT_GE(state.list_length + dropped_length, kMaxLength);
        const long target = 2 * (state.item_count + dropped_items) / 3;
        EXPECT_LE(state.item_count, target);
        EXPECT_GT(state.item_count + (first_kept - 1)->count, target);
    }

    static long items(const std::vector<HeldRecord> &list) {
        long sum = 0;
        for (const HeldRecord &record : list)
            sum += record.count;
        return sum;
    }

    void check_modules(long cycle, const std::vector<HeldRecord> &fresh) {
        std::set<std::string> names;
        for (const HeldRecord &record : fresh)
            EXPECT_TRUE(names.insert(record.eid).second) << record.eid << " twice";
        const bool first = cycle == 1, periodic = cycle > 1 && cycle % 16 == 1, daily = cycle == kLastCycle;
        EXPECT_EQ(names.contains("internet_info"), true);
        EXPECT_EQ(names.contains("client_info"), periodic);
        EXPECT_EQ(names.contains("system_info"), periodic);
        for (const char *name :
             {"device_info", "advanced_info", "restart_info", "afc_info", "havenguard_info_v2"})
            EXPECT_EQ(names.contains(name), daily) << name;
        EXPECT_EQ(names.contains("wireless_host_info"), first || cycle == kWifiCycle);
        EXPECT_EQ(names.contains("usb_info"), first);
        const bool noisy = cycle >= kNoiseFirst && cycle <= kNoiseLast;
        for (const char *name : {"ecomode_info", "iptv_info", "qos_info", "quicksetup_info"})
            EXPECT_EQ(names.contains(name), first || noisy) << name;
    }

    // An upload is due: waits for its outcome, and for that of the retries when it failed.
    void expect_attempt() {
        wait_for_outcome(0, 3);
        DaemonState state = day.wait_until_idle();
        note_upload();
        while (state.retries != 0 || state.post_state != 3) {
            ++failures;
            day.advance(state.retry_interval_ms);
            wait_for_outcome(state.retries, state.post_state);
            state = day.wait_until_idle();
            note_upload();
        }
        post_due_ms = day.elapsed_ms() + kPostIntervalMs;
    }
    void wait_for_outcome(long retries, long post_state) {
        day.wait(
            [&](const DaemonState &state) {
                return state.cycles >= 0 && (state.retries != retries || state.post_state != post_state ||
                                             day.cloud.count("posts") > posts);
            },
            "upload");
    }

    // What the cloud accepted is what was held, in that order, whole.
    void note_upload() {
        if (day.cloud.count("posts") == posts)
            return;
        ASSERT_EQ(day.cloud.count("posts"), ++posts);
        std::vector<HeldRecord> uploaded;
        for (const lab::CloudRecord &record : day.cloud.records()) {
            if (record.post == posts)
                uploaded.push_back({record.eid,
                                    lab::print_json(lab::parse_json(record.payload, record.eid).get()),
                                    atol(record.ct.c_str()), 0});
        }
        ASSERT_EQ(uploaded.size(), held.size());
        for (size_t i = 0; i < held.size(); ++i) {
            EXPECT_EQ(uploaded[i].eid, held[i].eid);
            EXPECT_EQ(uploaded[i].ct, held[i].ct);
            EXPECT_EQ(uploaded[i].payload, held[i].payload);
        }
        sent += held.size();
        held.clear();
    }

    // A whole quarter of an hour.
    void run_quarter(long cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        happen_before(cycle);
        day.approach_cycle();
        if (day.elapsed_ms() >= post_due_ms && !held.empty()) {
            ++interval_posts;
            expect_attempt();
        }
        const DaemonState state = day.run_cycle(cycle);
        EXPECT_EQ(state.cycles, cycle);
        take_over(cycle, state);
        if (state.list_length >= kThreshold) {
            ++threshold_posts;
            day.advance(200);
            expect_attempt();
        }
        EXPECT_EQ(day.cloud.count("posts"), posts) << "an upload that was not due";
    }

    SteppedLab day;
    std::vector<HeldRecord> held;    // what the daemon must hold
    std::vector<HeldRecord> dropped; // what it has shrunk away
    size_t collected = 0, sent = 0;
    long posts = 0, failures = 0, interval_posts = 0, threshold_posts = 0;
    int64_t post_due_ms = 0;
};

TEST_F(DayTest, TheCloudHasEveryRecordOnce) {
    for (long cycle = 1; cycle <= kLastCycle; ++cycle) {
        ASSERT_NO_FATAL_FAILURE(run_quarter(cycle));
        if (HasFailure())
            break;
    }
    ASSERT_EQ(day.node.call("post_now").status, 0);
    day.advance(200);
    expect_attempt();
    EXPECT_EQ(collected, sent + dropped.size());
    EXPECT_TRUE(held.empty());

    // Everything once, in the order of collection.
    std::set<std::pair<std::string, std::string>> known;
    long latest = 0;
    size_t records = 0;
    for (const lab::CloudRecord &record : day.cloud.records()) {
        EXPECT_TRUE(known.insert({record.eid, record.ct}).second)
            << record.eid << " of " << record.ct << " twice";
        EXPECT_GE(atol(record.ct.c_str()), latest);
        latest = atol(record.ct.c_str());
        ++records;
    }
    EXPECT_EQ(records, sent);
    for (const HeldRecord &record : dropped)
        EXPECT_FALSE(known.contains({record.eid, std::to_string(record.ct)}));

    // The day was as it is told above.
    EXPECT_EQ(day.cloud.count("invalid_signatures"), 0);
    EXPECT_EQ(day.cloud.keys().size(), 2U);
    EXPECT_EQ(day.cloud.count("upload.refused"), 1) << "the expired key, once";
    EXPECT_GE(interval_posts, 3);
    EXPECT_GE(threshold_posts, 3);
    EXPECT_GE(failures, 5) << "retries while the cloud was away";
    EXPECT_GE(dropped.size(), 10U);
    EXPECT_THAT(day.log, HasSubstr("retry 5 times, stop retry uploading data"));
    EXPECT_EQ(day.node.daemon.stop(), 0);
}

} // namespace
