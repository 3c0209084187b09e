// The bus object over a real bus: its methods and policies, every command's effect, hostile arguments, the
// state dump, and the connection's loss and return.
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

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

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

TEST_F(TelemetryUbusTest, PublishesFourteenMethodsInOrderWithTheirArguments) {
    ASSERT_EQ(telemetry_init_ubus(&ctx), 0);
    LoopClient client(bus.socket());
    std::string signature;
    const auto take = [](ubus_context *, ubus_object_data *found, void *text) {
        blob_attr *method = nullptr;
        size_t rem = blob_len(found->signature);
        __blob_for_each_attr(method, blob_data(found->signature), rem) {
            const TextPtr json(blobmsg_format_json(method, false));
            *static_cast<std::string *>(text) += std::string(json.get()) + "\n";
        }
    };
    ASSERT_EQ(ubus_lookup(client.bus(), "telemetry", take, &signature), UBUS_STATUS_OK);
    EXPECT_EQ(signature,
              "\"collect_now\":{}\n\"post_now\":{}\n\"clear\":{}\n\"toggle_debug\":{}\n\"set_debug\":{}\n"
              "\"print\":{}\n\"collect_all_next_time\":{}\n\"collect_stgy2_and_post_now\":{}\n"
              "\"collect_client_info\":{}\n\"collect_system_info\":{}\n\"collect_usb_info\":{}\n"
              "\"collect_afc_info\":{}\n\"debug\":{\"level\":3}\n"
              "\"collect_device_info\":{\"ip_ap_addr\":3}\n");
    EXPECT_STREQ(telemetry_ubus_object()->type->name, "telemetry");
}

TEST_F(TelemetryUbusTest, CommandsSetFlagsAndArmTimersOnly) {
    struct Case {
        const char *method;
        bool collect_timer, post_timer;
        uint32_t stgy2, periodic;
    };
    const Case cases[] = {
        {"collect_now", true, false, 0, 0},
        {"post_now", false, true, 0, 0},
        {"collect_all_next_time", false, false, 1, 1},
        {"collect_stgy2_and_post_now", true, true, 1, 0},
        {"clear", false, false, 0, 0},
    };
    static int fired;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.method);
        ctx.collect_stgy2_now = ctx.collect_periodic_now = 0;
        ctx.collect_timer.cb = ctx.post_timer.cb = [](uloop_timeout *) { ++fired; };
        const BusReply reply = call(c.method);
        EXPECT_EQ(reply.status, UBUS_STATUS_OK);
        EXPECT_EQ(reply.json, "{\"err_code\":0}");
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
}

TEST_F(TelemetryUbusTest, ClearDropsTheListAndItsCount) {
    ctx.collect_list = cJSON_Parse(R"([{"eid":"a","cnt":3}])");
    ctx.data_collect_count = 3;
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(call("clear").json, "{\"err_code\":0}");
        EXPECT_EQ(ctx.collect_list, nullptr);
        EXPECT_EQ(ctx.data_collect_count, 0u);
    }
}

TEST_F(TelemetryUbusTest, LogLevelFollowsTheNameAndIgnoresOtherTexts) {
    struct Case {
        const char *arguments;
        int status;
        uint32_t level_after; // from level 1
        bool complains;
    };
    const Case cases[] = {
        {R"({"level":"debug"})", UBUS_STATUS_OK, 0, false},
        {R"({"level":"info"})", UBUS_STATUS_OK, 1, false},
        {R"({"level":"error"})", UBUS_STATUS_OK, 2, false},
        {R"({"level":"Debug"})", UBUS_STATUS_OK, 1, true},
        {R"({"level":"debugger"})", UBUS_STATUS_OK, 1, true},
        {R"({"level":""})", UBUS_STATUS_OK, 1, true},
        {R"({"other":1,"level":"error","level2":[]})", UBUS_STATUS_OK, 2, false},
        {R"({"level":1})", UBUS_STATUS_INVALID_ARGUMENT, 1, false},
        {R"({"level":["debug"]})", UBUS_STATUS_INVALID_ARGUMENT, 1, false},
        {R"({"level":{"level":"debug"}})", UBUS_STATUS_INVALID_ARGUMENT, 1, false},
        {R"({"other":"debug"})", UBUS_STATUS_INVALID_ARGUMENT, 1, false},
        {R"({})", UBUS_STATUS_INVALID_ARGUMENT, 1, false},
    };
    for (const char *method : {"debug", "set_debug"}) {
        for (const Case &c : cases) {
            SCOPED_TRACE(std::string(method) + c.arguments);
            telemetry_debug_level = TELEMETRY_LOG_INFO;
            BusReply reply;
            const auto messages = logged_messages([&] { reply = call(method, c.arguments); });
            EXPECT_EQ(reply.status, c.status);
            EXPECT_EQ(reply.json, c.status == UBUS_STATUS_OK ? "{\"err_code\":0}" : "");
            EXPECT_EQ(telemetry_debug_level, c.level_after);
            if (c.complains)
                EXPECT_THAT(messages, ElementsAre("param error! debug/info/error"));
            else
                EXPECT_THAT(messages, IsEmpty());
        }
    }
}

TEST_F(TelemetryUbusTest, ToggleSilencesEverythingAndBringsItBack) {
    call("toggle_debug");
    EXPECT_THAT(logged_messages([&] {
                    call("debug", R"({"level":"loud"})");
                    EXPECT_EQ(call("print").json, "{\"err_code\":0}");
                }),
                IsEmpty());
    call("toggle_debug");
    EXPECT_THAT(logged_messages([&] { call("debug", R"({"level":"loud"})"); }),
                ElementsAre(HasSubstr("param error")));
}

TEST_F(TelemetryUbusTest, PrintShowsContextListAndSlotsUnderItsOwnPrefix) {
    memset(ctx.dev_id, 'd', sizeof(ctx.dev_id)); // as the firmware tool leaves it when its answer is too long
    copy_text(ctx.hw_id, "HW");
    copy_text(ctx.dev_mac, "AABBCCDDEEFF");
    copy_text(ctx.strategy_id, "s-1");
    copy_text(ctx.access_secret, "%s%n");
    ctx.post_state = 3;
    ctx.post_interval = 60000;
    ctx.data_collect_count = 2;
    ctx.collect_list = cJSON_Parse(R"([{"eid":"x","cnt":2}])");
    PostRequest slot = {};
    char body[] = "body";
    slot.in_use = 1;
    slot.request_status = 2;
    slot.body = {body, 4, 1024};
    copy_text(slot.url, "https://host/path");
    ctx.post_requests[0] = &slot;
    PostRequest idle = {};
    for (int i = 1; i < kPostRequestCount; ++i)
        ctx.post_requests[i] = &idle;

    std::string text;
    {
        const OutputCapture capture;
        EXPECT_EQ(call("print").json, "{\"err_code\":0}");
        text = capture.text();
    }
    std::string messages;
    size_t prefixed = 0;
    for (size_t from = 0, end; (end = text.find('\n', from)) != std::string::npos; from = end + 1) {
        const std::string line = text.substr(from, end - from);
        const size_t message = line.find("): ");
        prefixed += line.rfind("[telemetry][telemetry_ubus.cpp][", 0) == 0 ? 1 : 0;
        messages += (message == std::string::npos ? line : line.substr(message + 3)) + "\n";
    }
    std::string slots;
    for (int i = 1; i < kPostRequestCount; ++i)
        slots +=
            "[post request " + std::to_string(i) +
            "]\nused: 0\nurl: \nrequest status: 0\nfinished: 0\nrequest buffer: \nrequest buffer len: 0\n"
            "request data len: 0\nreceive buffer: \nreceive buffer len: 0\nreceive data len: 0\n";
    EXPECT_EQ(messages,
              "-----------telemetry ctx start-----------\ndev id: " + std::string(65, 'd') +
                  "\nhw id: HW\ndev mac: AABBCCDDEEFF\nhw version: \nfirmware: \nmodel: \nstrategyId: s-1\n"
                  "post api: \naccess key: \naccess secret: %s%n\npost state: 3\ndata_collect_count: 2\n"
                  "collect_count: 0\ncollect_interval_strategy1: 0\ncollect_interval_strategy2: 0\n"
                  "post_interval: 60000\npost retry count: 0\npost_retry_interval: 0\n"
                  "-----------telemetry ctx end-----------\n-----------telemetry data start-----------\n"
                  "backup data total str len: 21\n[{\n\t\t\"eid\":\t\"x\",\n\t\t\"cnt\":\t2\n\t}]\n"
                  "-----------telemetry data end-----------\n-----------telemetry post start-----------\n"
                  "[post request 0]\nused: 1\nurl: https://host/path\nrequest status: 2\nfinished: 0\n"
                  "request buffer: body\nrequest buffer len: 1024\nrequest data len: 4\nreceive buffer: \n"
                  "receive buffer len: 0\nreceive data len: 0\n" +
                  slots + "-----------telemetry post end-----------\n");
    EXPECT_EQ(prefixed, 20u + 4u + 2u + 8u * 11u); // all but the further lines of the list's text

    telemetry_debug_level = TELEMETRY_LOG_ERROR;
    EXPECT_THAT(logged_messages([&] { call("print"); }), IsEmpty());
}

TEST_F(TelemetryUbusTest, HostileArgumentsGetAStatusAndNothingElse) {
    ASSERT_EQ(telemetry_init_ubus(&ctx), 0);
    const auto text_without_end = [](blob_buf *arguments, const char *name) {
        blobmsg_add_field(arguments, BLOBMSG_TYPE_STRING, name, "abc", 3);
    };
    const auto nested = [](blob_buf *arguments, const char *name) {
        std::vector<void *> tables;
        for (int depth = 0; depth < 1000; ++depth)
            tables.push_back(blobmsg_open_table(arguments, name));
        while (!tables.empty()) {
            blobmsg_close_table(arguments, tables.back());
            tables.pop_back();
        }
    };
    struct Case {
        const char *method, *member;
        int with_open_text, with_nesting, with_long_text;
    };
    const int invalid = UBUS_STATUS_INVALID_ARGUMENT;
    const Case cases[] = {
        {"debug", "level", invalid, invalid, 0},
        {"set_debug", "level", invalid, invalid, 0},
        {"clear", "level", 0, 0, 0},
        {"post_now", "ip_ap_addr", 0, 0, 0},
        {"collect_now", "level", 0, 0, 0},
        {"collect_device_info", "ip_ap_addr", invalid, invalid, invalid},
        {"print", "level", 0, 0, 0},
        {"collect_all_next_time", "a", 0, 0, 0},
    };
    const OutputCapture quiet;
    LoopClient client(bus.socket());
    for (const Case &c : cases) {
        SCOPED_TRACE(c.method);
        BlobBuffer open_text, deep, huge;
        text_without_end(open_text.get(), c.member);
        nested(deep.get(), c.member);
        blobmsg_add_string(huge.get(), c.member, std::string(500000, '9').c_str());
        EXPECT_EQ(client.call("telemetry", c.method, open_text.head()).status, c.with_open_text);
        EXPECT_EQ(client.call("telemetry", c.method, deep.head()).status, c.with_nesting);
        EXPECT_EQ(client.call("telemetry", c.method, huge.head()).status, c.with_long_text);
    }
    EXPECT_EQ(client.call("telemetry", "no_such_method").status, UBUS_STATUS_METHOD_NOT_FOUND);
    uloop_timeout_cancel(&ctx.collect_timer);
    uloop_timeout_cancel(&ctx.post_timer);
}

TEST_F(TelemetryUbusTest, StartFailsWithoutBusContextOrFreePath) {
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(telemetry_init_ubus(nullptr), -1); }),
                ElementsAre("param error"));
    ubus_object other = {};
    other.name = "telemetry";
    ubus_object_type type = {"telemetry", 0, nullptr, 0};
    other.type = &type;
    {
        LoopClient client(bus.socket());
        ASSERT_EQ(ubus_add_object(client.bus(), &other), UBUS_STATUS_OK);
        EXPECT_THAT(logged_messages([&] { EXPECT_EQ(telemetry_init_ubus(&ctx), -1); }),
                    ElementsAre(HasSubstr("registration")));
    }
    bus.kill();
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(telemetry_init_ubus(&ctx), -1); }),
                ElementsAre("param error"));
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
        if (round % 2 == 0) {
            bus.start();
            run_loop_once();
        } else {
            run_loop_once();
            for (int tick = 0; tick < 2; ++tick) {
                clock_ahead_s += 2;
                run_loop_once();
            }
            bus.start();
            clock_ahead_s += 2;
            run_loop_once();
        }
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
