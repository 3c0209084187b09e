// A day in the life of the home scenario at the default intervals. Beside the daemon runs a model of what it
// must hold and when it must upload; at the end the cloud has every record that was collected and not shrunk
// away, once.
#include <set>

#include <gmock/gmock.h>

#include "stepped_lab.h"

using ::testing::HasSubstr;

namespace {

constexpr int64_t kPostIntervalMs = 4 * 3600000;
constexpr size_t kThreshold = 32768, kMaxLength = 65536;

// Cycle k runs at k quarters of an hour past midnight (and k seconds).
constexpr long kWifiCycle = 41;                   // 10:15, the first after a change of the channel
constexpr long kNoonCycle = 49;                   // 12:15, the key has expired at 12:00
constexpr long kBusCycle = 57;                    // 14:15, the bus was restarted
constexpr long kNoiseFirst = 69, kNoiseLast = 80; // a program fills options with nonsense
constexpr long kCloudDown = 72, kCloudUp = 80;    // 18:00 and 20:00
constexpr long kLastCycle = 97;                   // the daily one

// Options that take any text, for a program that goes mad.
constexpr const char *kNoisyOptions[][3] = {
    {"eco_mode", "settings", "mode"}, {"iptv", "iptv", "mode"},
    {"qos", "settings", "mode"},      {"system", "basic", "timezone"},
    {"system", "basic", "language"},  {"quicksetup", "quicksetup", "wan_detection"},
};

class DayTest : public ::testing::Test {
  protected:
    DayTest() {
        // Answers take a moment: what is uploaded is still held when the daemon is asked after the cycle.
        day.cloud.script("upload", R"([{"kind":"ok","delay_ms":1000,"times":-1}])");
        day.boot();
        post_due_ms = day.elapsed_ms() + kPostIntervalMs;
    }

    // What happens in the quarter of an hour before a cycle.
    void happen_before(long cycle) {
        if (cycle == kWifiCycle)
            day.node.set_config("wifi", "radio_5g", "channel", "149");
        if (cycle == kNoonCycle)
            day.cloud.expire_keys();
        if (cycle == kBusCycle)
            restart_bus();
        if (cycle >= kNoiseFirst && cycle <= kNoiseLast)
            for (const auto &[package, section, option] : kNoisyOptions)
                day.node.set_config(package, section, option,
                                    std::string(1900, static_cast<char>('a' + cycle % 26)));
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

    // The cycle adds records of its own time to those that were held; when the list gets too long, the oldest
    // go.
    void take_over(long cycle, const DaemonState &state) {
        std::vector<HeldRecord> kept;
        std::set<std::string> fresh;
        long items = 0;
        for (const HeldRecord &record : state.list) {
            items += record.count;
            if (record.ct == day.now())
                EXPECT_TRUE(fresh.insert(record.eid).second) << record.eid << " twice";
            else
                kept.push_back(record);
        }
        EXPECT_EQ(state.item_count, items);
        EXPECT_TRUE(fresh.contains("internet_info"));
        EXPECT_EQ(fresh.contains("wireless_host_info"), cycle == 1 || cycle == kWifiCycle);
        const bool noisy = cycle >= kNoiseFirst && cycle <= kNoiseLast;
        EXPECT_EQ(fresh.contains("quicksetup_info"), cycle == 1 || noisy);

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
            day.advance(state.retry_interval_ms);
            state = outcome(state.retries, state.post_state);
        }
        post_due_ms = day.elapsed_ms() + kPostIntervalMs;
    }
    // Of the attempt that changes these.
    DaemonState outcome(long retries, long post_state) {
        day.wait(
            [&](const DaemonState &state) {
                return state.cycles >= 0 && (state.retries != retries || state.post_state != post_state ||
                                             day.cloud.count("posts") > posts);
            },
            "upload");
        const DaemonState state = day.wait_until_idle();
        if (day.cloud.count("posts") > posts)
            note_upload();
        return state;
    }
    // What the cloud accepted is what was held, in that order, whole.
    void note_upload() {
        EXPECT_EQ(day.cloud.count("posts"), ++posts);
        size_t at = 0;
        for (const lab::CloudRecord &record : day.cloud.records()) {
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
    std::vector<HeldRecord> held; // what the daemon must hold
    size_t collected = 0, sent = 0, shrunk = 0;
    long posts = 0, failures = 0, interval_posts = 0, threshold_posts = 0;
    int64_t post_due_ms = 0;
};

TEST_F(DayTest, TheCloudHasEveryRecordOnce) {
    for (long cycle = 1; cycle <= kLastCycle && !HasFailure(); ++cycle)
        ASSERT_NO_FATAL_FAILURE(run_quarter(cycle));
    ASSERT_EQ(day.node.call("post_now").status, 0);
    day.advance(200);
    expect_attempt();
    EXPECT_EQ(collected, sent + shrunk);
    EXPECT_TRUE(held.empty());

    // Everything once, in the order of collection.
    std::set<std::pair<std::string, std::string>> known;
    long latest = 0;
    for (const lab::CloudRecord &record : day.cloud.records()) {
        EXPECT_TRUE(known.insert({record.eid, record.ct}).second)
            << record.eid << " of " << record.ct << " twice";
        EXPECT_GE(atol(record.ct.c_str()), latest);
        latest = atol(record.ct.c_str());
    }
    EXPECT_EQ(known.size(), sent);

    // The day was as it is told above.
    EXPECT_EQ(day.cloud.count("invalid_signatures"), 0);
    EXPECT_EQ(day.cloud.keys().size(), 2U);
    EXPECT_EQ(day.cloud.count("upload.refused"), 1) << "the expired key, once";
    EXPECT_GE(interval_posts, 3);
    EXPECT_GE(threshold_posts, 3);
    EXPECT_GE(failures, 5) << "retries while the cloud was away";
    EXPECT_GE(shrunk, 10U);
    EXPECT_THAT(day.log, HasSubstr("retry 5 times, stop retry uploading data"));
    EXPECT_EQ(day.node.daemon.stop(), 0);
}

} // namespace
