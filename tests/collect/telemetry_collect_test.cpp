#include "telemetry_collect.h"

#include <climits>
#include <new>

#include <gmock/gmock.h>

#include "sysroot.h"

#include "collectors.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_pre_collect.h"
#include "telemetry_uci_backup.h"
#include "telemetry_uci_package.h"
#include "telemetry_utils.h"

using Messages = std::vector<std::string>;

// --- Collectors and snapshot of the test's own, in the place of the daemon's ---

static int stub_result;
static uint32_t stub_count;
static std::vector<std::string> calls;
static int post_done_of_snapshot;

#define STUB(name)                                                        \
    int collect_##name(TelemetryCtx *, cJSON *payload, uint32_t *count) { \
        calls.push_back(#name);                                           \
        cJSON_AddStringToObject(payload, "from", #name);                  \
        *count += stub_count;                                             \
        return stub_result;                                               \
    }
// clang-format off
STUB(system_info) STUB(client_list) STUB(device_list) STUB(wireless_host_info) STUB(wireless_guest_info)
STUB(wireless_iot_info) STUB(cloud_info) STUB(internet_info) STUB(ecomode_info) STUB(iptv_info) STUB(qos_info)
STUB(quicksetup_info) STUB(advanced_info) STUB(restart_info) STUB(usb_info) STUB(afc_info)
STUB(havenguard_v2_info)
    // clang-format on

    int telemetry_pre_collect_info(TelemetryCtx *) {
    calls.push_back("snapshot");
    post_done_of_snapshot = telemetry_post_done;
    return -1; // the modules run all the same
}

void telemetry_free_pre_collect_info() {
    calls.push_back("release");
}

class TelemetryCollect : public SysrootTest {
  protected:
    TelemetryCollect() {
        uloop_init();
        ctx.collect_interval_strategy1 = kDefaultCollectInterval1Ms;
        ctx.collect_interval_strategy2 = kDefaultCollectInterval2Ms;
        ctx.collect_interval_periodic = kPeriodicCollectIntervalMs;
        calls.clear();
        stub_result = 0;
        stub_count = 0;
        root.write_config("telemetry", "config basic 'basic'\n\toption enable 'on'\n");
        root.write("/tmp/run/ntpd.uptime", "");
        root.write("/tmp/work_mode", "{\"work_mode\":\"FAP\"}");
        root.write("/tmp/telemetry/post_done", "");
    }
    ~TelemetryCollect() override {
        telemetry_clear_collect_list(&ctx);
        uloop_done();
        telemetry_debug_level = TELEMETRY_LOG_INFO;
    }
    void run_timer() {
        uloop_timeout_cancel(&ctx.collect_timer);
        telemetry_collect_data(&ctx.collect_timer);
    }
    // A record whose payload brings the list to exactly `length` characters; 0: as short as can be.
    void add_record(int items, size_t length = 0) {
        if (ctx.collect_list == nullptr)
            ctx.collect_list = cJSON_CreateArray();
        cJSON *record = cJSON_Parse(R"({"eid":"x","ct":1,"ep":{}})");
        cJSON_AddNumberToObject(record, "cnt", items);
        cJSON_AddItemToArray(ctx.collect_list, record);
        ctx.data_collect_count += static_cast<uint32_t>(items);
        if (length == 0)
            return;
        const size_t filler = length - static_cast<size_t>(telemetry_json_length(ctx.collect_list)) - 6;
        cJSON_AddStringToObject(cJSON_GetObjectItem(record, "ep"), "f", std::string(filler, 'x').c_str());
        ASSERT_EQ(telemetry_json_length(ctx.collect_list), static_cast<long>(length));
    }
    size_t records() const {
        return static_cast<size_t>(cJSON_GetArraySize(ctx.collect_list));
    }
    static double remaining(uloop_timeout &timer) {
        return static_cast<double>(uloop_timeout_remaining64(&timer));
    }
    TelemetryCtx ctx = {};
};

TEST_F(TelemetryCollect, ShrinkKeepsTwoThirdsOfTheItems) {
    const struct {
        std::vector<int> items;
        uint32_t announced, count; // 0 announced: as many as there are
        size_t records;
    } cases[] = {
        {{5, 3, 4}, 0, 7, 2},  {{1}, 0, 0, 0},
        {{1, 1, 1}, 0, 2, 2},  {{1, 1}, 0, 1, 1},
        {{10, 1, 1}, 0, 2, 2}, {{1, 1, 10}, 0, 0, 0}, // aims at 8: only the last record matters
        {{0, 0, 3}, 0, 0, 0},                         // records without items go on the way
        {{}, 0, 0, 0},         {{2}, UINT32_MAX, UINT32_MAX - 2, 0}}; // a count that does not fit the list
    for (const auto &c : cases) {
        telemetry_clear_collect_list(&ctx);
        ctx.collect_list = cJSON_CreateArray();
        for (const int items : c.items)
            add_record(items);
        ctx.data_collect_count = c.announced != 0 ? c.announced : ctx.data_collect_count;
        shrink_collect_data_list(&ctx);
        EXPECT_EQ(ctx.data_collect_count, c.count);
        EXPECT_EQ(records(), c.records);
    }
    telemetry_clear_collect_list(&ctx);
    ctx.data_collect_count = 5;
    shrink_collect_data_list(&ctx); // no list at all
    EXPECT_EQ(ctx.data_collect_count, 5u);
    add_record(9);
    add_record(4);
    ctx.data_collect_count = 3;
    EXPECT_EQ(delect_oldest_data_list(&ctx), 9); // the oldest first
    EXPECT_EQ(ctx.data_collect_count, 0u);
}

TEST_F(TelemetryCollect, ARecordNeedsSuccessAndItems) {
    const struct {
        int result;
        uint32_t count;
        bool kept;
    } cases[] = {{0, 0, false}, {-1, 5, false}, {1, 1, false}, {0, 7, true}};
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    for (const auto &c : cases) {
        telemetry_clear_collect_list(&ctx);
        ctx.collect_list = cJSON_CreateArray();
        stub_result = c.result;
        stub_count = c.count;
        const Messages messages = logged_messages(
            [&] { telemetry_collect_data_by_module(&ctx, ctx.collect_list, "qos_info", collect_qos_info); });
        EXPECT_EQ(messages.back(), c.kept ? "start to collect qos_info!" : "collect nothing of qos_info!");
        EXPECT_EQ(records(), c.kept ? 1u : 0u);
        EXPECT_EQ(ctx.data_collect_count, c.kept ? c.count : 0u);
    }
}

static enum { kEnough, kRefused, kThrown, kCommitted, kNoRecord } memory;
static int undone;

// What changed waits to be recorded when memory runs out; a record that nobody gets has reported nothing.
static int collect_change(TelemetryCtx *, cJSON *payload, uint32_t *count) {
    cJSON_AddStringToObject(payload, "setting", "new");
    *count = static_cast<uint32_t>(telemetry_update_tmp_backup_config_md5("package", "name", payload));
    TelemetryUciScope::on_put_back([] { ++undone; });
    if (memory == kCommitted)
        TelemetryUciScope::commit();
    if (memory == kRefused || memory == kCommitted)
        telemetry_memory_refused();
    cJSON_Hooks none = {[](size_t) -> void * { return nullptr; }, free};
    if (memory == kNoRecord)
        cJSON_InitHooks(&none);
    if (memory == kThrown)
        throw std::bad_alloc();
    return 0;
}

TEST_F(TelemetryCollect, WhatMemoryWasShortForIsReportedNextTime) {
    root.write_backup("");
    ctx.collect_list = cJSON_CreateArray();
    for (const auto state : {kRefused, kThrown, kCommitted, kNoRecord, kEnough, kEnough}) {
        memory = state;
        telemetry_collect_data_by_module(&ctx, ctx.collect_list, "qos_info", collect_change);
        cJSON_InitHooks(nullptr);
        EXPECT_EQ(records(), state == kEnough ? 1u : 0u) << state;
    }
    EXPECT_EQ(ctx.data_collect_count, 1u);
    EXPECT_EQ(undone, 4);
}

TEST_F(TelemetryCollect, ACycleRunsEveryModule) {
    root.remove("/tmp/run/ntpd.uptime"); // a cycle that is skipped arms the timer only
    telemetry_debug_level = TELEMETRY_LOG_INFO;
    ctx.post_state = TELEMETRY_POST_STATE_READY_FOR_UPLOAD;
    EXPECT_THAT(logged_messages([this] { run_timer(); }),
                testing::ElementsAre("the clock is not set: nothing is collected or uploaded until it is"));
    EXPECT_THAT(logged_messages([this] { run_timer(); }), testing::IsEmpty());
    EXPECT_TRUE(calls.empty() && ctx.collect_list == nullptr && ctx.collect_count == 0);
    EXPECT_TRUE(ctx.collect_timer.pending);

    root.write("/tmp/run/ntpd.uptime", "");
    stub_count = 2;
    telemetry_post_done = 1;
    run_timer();
    EXPECT_EQ(post_done_of_snapshot, 0); // the marker speaks before the collection does
    EXPECT_EQ(records(), 17u);
    EXPECT_EQ(calls.front() + calls.back(), "snapshotrelease");
    EXPECT_EQ(calls.size(), 19u);
    EXPECT_EQ(ctx.data_collect_count, 34u);
    EXPECT_NEAR(remaining(ctx.collect_timer), 895000, 5000);
    EXPECT_FALSE(ctx.post_timer.pending);
    stub_result = -1; // failing modules do not stop the cycle
    run_timer();
    EXPECT_EQ(calls.size(), 38u);
    EXPECT_EQ(records(), 17u);
    EXPECT_EQ(ctx.collect_count, 2u);
}

TEST_F(TelemetryCollect, ALongListAsksForAnUploadAndShrinks) {
    const struct {
        size_t length;
        bool long_last; // else the first of the three records is the long one
        size_t records;
        bool post;
    } cases[] = {
        {kUploadThreshold - 1, true, 3, false}, {kUploadThreshold, true, 3, true},
        {kMaxBackUpLength - 1, true, 3, true},  {kMaxBackUpLength, true, 2, true},
        {kMaxBackUpLength, false, 2, false}, // short after it has shrunk
    };
    static_assert(kUploadThreshold == 32768 && kMaxBackUpLength == 65536);
    for (const auto &c : cases) {
        telemetry_clear_collect_list(&ctx);
        uloop_timeout_cancel(&ctx.post_timer);
        add_record(1, c.long_last ? 0 : c.length);
        add_record(1);
        add_record(1, c.long_last ? c.length : 0);
        EXPECT_EQ(collect_list_exceeds(&ctx, kMaxBackUpLength), c.length >= kMaxBackUpLength);
        run_timer();
        EXPECT_EQ(records(), c.records);
        EXPECT_EQ(ctx.post_timer.pending, c.post);
        EXPECT_LE(remaining(ctx.post_timer), 100);
    }
}

TEST_F(TelemetryCollect, CadencesOfIntervals) {
    const struct {
        uint32_t interval1, interval2, count, next_stgy2;
    } cases[] = {
        {900000, 86400000, 95, 1}, {900000, 86400000, 96, 0},
        {900000, 60000, 1, 0},                                     // shorter than a cycle: never
        {0, 86400000, 1, 0},                                       // no cycle length: never
        {900000, 1800000, 4, 0},   {0xffffffff, 0x80000000, 3, 0}, // -1 and the smallest number
        {0xffffffff, 2, 3, 1},                                     // a ratio of -2: every second cycle
    };
    for (const auto &c : cases) {
        ctx.collect_interval_strategy1 = c.interval1;
        ctx.collect_interval_strategy2 = c.interval2;
        ctx.collect_count = c.count;
        telemetry_increase_collect_count_and_update_next_collect_strategy(&ctx);
        EXPECT_EQ(ctx.collect_stgy2_now, c.next_stgy2) << c.interval1 << " " << c.interval2 << " " << c.count;
    }
    ctx.collect_count = INT_MAX - 1; // the count wraps
    telemetry_increase_collect_count_and_update_next_collect_strategy(&ctx);
    EXPECT_EQ(ctx.collect_count, 0u);
    EXPECT_EQ(ctx.collect_periodic_now, 0u); // worked out before that
}

TEST_F(TelemetryCollect, ABadIntervalNeitherSpinsNorStops) {
    for (const uint32_t bad : {0u, 0x80000000u, 0xffff15a0u}) {
        telemetry_arm_collect_timer(&ctx, bad);
        telemetry_arm_post_timer(&ctx, bad);
        EXPECT_NEAR(remaining(ctx.collect_timer), 895000, 5000);
        EXPECT_NEAR(remaining(ctx.post_timer), 14395000, 5000);
    }
    // A pending timer is moved.
    telemetry_arm_collect_timer(&ctx, INT_MAX);
    EXPECT_GT(remaining(ctx.collect_timer), 2147000000);
    telemetry_post_soon(&ctx);
    EXPECT_LE(remaining(ctx.post_timer), 100);
}
