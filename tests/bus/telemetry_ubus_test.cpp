// The bus object over a real bus: every command's effect, hostile arguments, the state dump, and the
// connection's loss and return.
#include "telemetry_ubus.h"

#include <cstring>
#include <ctime>
#include <filesystem>

#include <sys/syscall.h>

#ifdef __SANITIZE_ADDRESS__
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bus_daemon.h"
#include "sysroot.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_post.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Pair;
using ::testing::SizeIs;

using Messages = std::vector<std::string>;

// The monotonic clock, which tests put forward instead of waiting.
static long clock_ahead_s;

extern "C" int clock_gettime(clockid_t id, timespec *now) noexcept {
    const long result = syscall(SYS_clock_gettime, id, now);
    if (result == 0 && id == CLOCK_MONOTONIC)
        now->tv_sec += clock_ahead_s;
    return static_cast<int>(result);
}

// The 3 seconds between two samples of the CPU counters.
extern "C" unsigned sleep(unsigned) {
    return 0;
}

class TelemetryUbusTest : public SysrootTest {
  protected:
    TelemetryUbusTest() : bus(root.path(kBusSocketPath)) {
        uloop_init();
        telemetry_debug_enable = 1;
        telemetry_debug_level = TELEMETRY_LOG_INFO;
    }
    ~TelemetryUbusTest() override {
        cJSON_Delete(ctx.collect_list);
        uloop_done();
        telemetry_free_ubus();
        telemetry_debug_enable = 1;
        telemetry_debug_level = TELEMETRY_LOG_INFO;
    }
    // Status and reply of a call of the object, which is put on the bus first.
    BusReply call(const char *method, const std::string &arguments = "{}") {
        const bool ready = telemetry_ubus_ctx() != nullptr || telemetry_init_ubus(&ctx) == 0;
        EXPECT_TRUE(ready);
        return LoopClient(bus.socket()).call("telemetry", method, arguments);
    }

    BusDaemon bus;
    TelemetryCtx ctx = {};
};

TEST_F(TelemetryUbusTest, CommandsSetFlagsAndArmTimersOnly) {
    const struct {
        const char *method;
        bool collect_timer, post_timer;
        uint32_t stgy2, periodic;
    } cases[] = {
        {"collect_now", true, false, 0, 0},
        {"post_now", false, true, 0, 0},
        {"collect_all_next_time", false, false, 1, 1},
        {"collect_stgy2_and_post_now", true, true, 1, 0},
        {"clear", false, false, 0, 0},
    };
    static int fired;
    ctx.collect_list = cJSON_Parse(R"([{"eid":"a","cnt":3}])");
    ctx.data_collect_count = 3;
    ctx.collect_timer.cb = ctx.post_timer.cb = [](uloop_timeout *) { ++fired; };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.method);
        EXPECT_EQ(ctx.data_collect_count, 3u);
        ctx.collect_stgy2_now = ctx.collect_periodic_now = 0;
        EXPECT_EQ(call(c.method).json, "{\"err_code\":0}");
        EXPECT_EQ(ctx.collect_stgy2_now, c.stgy2);
        EXPECT_EQ(ctx.collect_periodic_now, c.periodic);
        EXPECT_EQ(ctx.collect_timer.pending, c.collect_timer);
        EXPECT_EQ(ctx.post_timer.pending, c.post_timer);
        EXPECT_LE(uloop_timeout_remaining64(&ctx.collect_timer), 100);
        EXPECT_LE(uloop_timeout_remaining64(&ctx.post_timer), 100);
        uloop_timeout_cancel(&ctx.collect_timer);
        uloop_timeout_cancel(&ctx.post_timer);
    }
    EXPECT_EQ(fired, 0);
    EXPECT_EQ(ctx.collect_list, nullptr); // "clear"
    EXPECT_EQ(ctx.data_collect_count, 0u);
}

TEST_F(TelemetryUbusTest, LogLevelFollowsTheNameAndIgnoresOtherTexts) {
    const struct {
        const char *arguments;
        int status;
        uint32_t level_after; // from level 1
        bool complains;
    } cases[] = {
        {R"({"level":"debug"})", UBUS_STATUS_OK, 0, false},
        {R"({"level":"info"})", UBUS_STATUS_OK, 1, false},
        {R"({"other":1,"level":"error","level2":[]})", UBUS_STATUS_OK, 2, false},
        {R"({"level":"Debug"})", UBUS_STATUS_OK, 1, true},
        {R"({"level":""})", UBUS_STATUS_OK, 1, true},
        {R"({"level":1})", UBUS_STATUS_INVALID_ARGUMENT, 1, false},
        {R"({"level":{"level":"debug"}})", UBUS_STATUS_INVALID_ARGUMENT, 1, false},
    };
    for (const char *method : {"debug", "set_debug"}) {
        for (const auto &c : cases) {
            SCOPED_TRACE(std::string(method) + c.arguments);
            telemetry_debug_level = TELEMETRY_LOG_INFO;
            BusReply reply;
            const auto messages = logged_messages([&] { reply = call(method, c.arguments); });
            EXPECT_EQ(reply.status, c.status);
            EXPECT_EQ(reply.json, c.status == UBUS_STATUS_OK ? "{\"err_code\":0}" : "");
            EXPECT_EQ(telemetry_debug_level, c.level_after);
            EXPECT_EQ(messages, c.complains ? Messages{"param error! debug/info/error"} : Messages{});
        }
    }
    // Silent until it is toggled back.
    const auto loud = [&] { call("debug", R"({"level":"loud"})"); };
    call("toggle_debug");
    EXPECT_THAT(logged_messages(loud), IsEmpty());
    EXPECT_THAT(logged_messages([&] { call("print"); }), IsEmpty());
    call("toggle_debug");
    EXPECT_THAT(logged_messages(loud), SizeIs(1));
}

TEST_F(TelemetryUbusTest, PrintShowsContextListAndSlots) {
    memset(ctx.dev_id, 'd', sizeof(ctx.dev_id)); // as the firmware tool leaves it when its answer is too long
    copy_text(ctx.access_secret, "%s%n");
    ctx.post_interval = 60000;
    ctx.collect_list = cJSON_Parse(R"([{"eid":"x","cnt":2}])");
    PostRequest idle = {}, slot = {};
    char body[] = "body";
    slot.request_status = 2;
    slot.body = {body, 4, 1024};
    for (PostRequest *&request : ctx.post_requests)
        request = &idle;
    ctx.post_requests[7] = &slot;
    const auto messages = logged_messages([&] { EXPECT_EQ(call("print").json, "{\"err_code\":0}"); });
    EXPECT_THAT(messages, IsSupersetOf({"dev id: " + std::string(65, 'd'), std::string("access secret: %s%n"),
                                        std::string("post_interval: 60000"),
                                        std::string("backup data total str len: 21"),
                                        std::string("\t\t\"eid\":\t\"x\",")}));
    const Messages last = {"[post request 7]",
                           "used: 0",
                           "url: ",
                           "request status: 2",
                           "finished: 0",
                           "request buffer: body",
                           "request buffer len: 1024",
                           "request data len: 4",
                           "receive buffer: ",
                           "receive buffer len: 0",
                           "receive data len: 0",
                           "-----------telemetry post end-----------"};
    EXPECT_EQ(Messages(messages.end() - 12, messages.end()), last);

    telemetry_debug_level = TELEMETRY_LOG_ERROR;
    EXPECT_THAT(logged_messages([&] { call("print"); }), IsEmpty());
}

TEST_F(TelemetryUbusTest, HostileArgumentsGetAStatusAndNothingElse) {
    ASSERT_EQ(telemetry_init_ubus(&ctx), 0);
    const int invalid = UBUS_STATUS_INVALID_ARGUMENT;
    const struct {
        const char *method, *member;
        int with_open_text, with_nesting, with_long_text;
    } cases[] = {
        {"debug", "level", invalid, invalid, 0},
        {"clear", "level", 0, 0, 0},
        {"collect_device_info", "ip_ap_addr", invalid, invalid, invalid},
        {"print", "level", 0, 0, 0},
    };
    const OutputCapture quiet;
    LoopClient client(bus.socket());
    for (const auto &c : cases) {
        SCOPED_TRACE(c.method);
        BlobBuffer open_text, deep, huge;
        blobmsg_add_field(open_text.get(), BLOBMSG_TYPE_STRING, c.member, "abc", 3);
        std::vector<void *> tables;
        for (int depth = 0; depth < 1000; ++depth)
            tables.push_back(blobmsg_open_table(deep.get(), c.member));
        for (; !tables.empty(); tables.pop_back())
            blobmsg_close_table(deep.get(), tables.back());
        blobmsg_add_string(huge.get(), c.member, std::string(500000, '9').c_str());
        EXPECT_EQ(client.call("telemetry", c.method, open_text.head()).status, c.with_open_text);
        EXPECT_EQ(client.call("telemetry", c.method, deep.head()).status, c.with_nesting);
        EXPECT_EQ(client.call("telemetry", c.method, huge.head()).status, c.with_long_text);
    }
    EXPECT_EQ(client.call("telemetry", "no_such_method").status, UBUS_STATUS_METHOD_NOT_FOUND);
    uloop_timeout_cancel(&ctx.post_timer);
}

TEST_F(TelemetryUbusTest, StartFailsWithoutBusOrFreePath) {
    const auto start = [&] { return logged_result([&] { return telemetry_init_ubus(&ctx); }); };
    ubus_object_type type = {"telemetry", 0, nullptr, 0};
    ubus_object other = {};
    other.name = "telemetry";
    other.type = &type;
    {
        LoopClient client(bus.socket());
        ASSERT_EQ(ubus_add_object(client.bus(), &other), UBUS_STATUS_OK);
        EXPECT_THAT(start(), Pair(-1, ElementsAre(HasSubstr("registration"))));
    }
    bus.kill();
    EXPECT_EQ(start(), LoggedResult(-1, {"param error"}));
}

static size_t open_descriptors() {
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

// Bytes in use on the heap, 0 where nobody counts them.
static size_t heap_bytes() {
#ifdef __SANITIZE_ADDRESS__
    return __sanitizer_get_current_allocated_bytes();
#else
    return 0;
#endif
}

// One pass of the loop: what is due and what is readable.
static void run_loop_once() {
    uloop_run_timeout(0);
}

// Every other bus is back before the loss is seen, so that the try "at once" succeeds; the rest need the
// timer, and two of its ticks pass without a bus.
TEST_F(TelemetryUbusTest, ComesBackAfterEachLossWithoutLosingTimersOrDescriptors) {
    ASSERT_EQ(telemetry_init_ubus(&ctx), 0);
    ctx.collect_timer.cb = [](uloop_timeout *) { FAIL() << "the collect timer ran early"; };
    uloop_timeout_set(&ctx.collect_timer, 1000 * 3600 * 24);
    size_t descriptors = 0;
    size_t bytes = 0;
    const OutputCapture quiet;
    for (int round = 0; round < 200; ++round) {
        clock_ahead_s += 1; // the last connection is not a fresh one
        bus.kill();
        for (int tick = 0; round % 2 != 0 && tick < 3; ++tick) {
            run_loop_once();
            clock_ahead_s += 2;
        }
        bus.start();
        run_loop_once();
        ASSERT_EQ(call("clear").json, "{\"err_code\":0}") << "round " << round;
        if (round == 1) {
            descriptors = open_descriptors();
            bytes = heap_bytes();
        }
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_LE(heap_bytes(), bytes + 2048); // 10 bytes a round would show
    EXPECT_TRUE(ctx.collect_timer.pending);
    uloop_timeout_cancel(&ctx.collect_timer);
}

TEST_F(TelemetryUbusTest, ALossRightAfterTheConnectionWaitsForTheTimer) {
    ASSERT_EQ(telemetry_init_ubus(&ctx), 0);
    bus.kill();
    bus.start();
    const long before = clock_ahead_s;
    clock_ahead_s += 1;
    EXPECT_THAT(logged_messages(run_loop_once),
                ElementsAre("ubus connection is lost", "ubus connection is back"));
    clock_ahead_s = before; // the clock stands still between the return and the next loss
    bus.kill();
    bus.start();
    EXPECT_THAT(logged_messages(run_loop_once), ElementsAre("ubus connection is lost"));
    EXPECT_GT(uloop_get_next_timeout(), 1000);
    clock_ahead_s += 4;
    EXPECT_THAT(logged_messages(run_loop_once), ElementsAre("ubus connection is back"));
    EXPECT_EQ(call("clear").json, "{\"err_code\":0}");
}
