// The bus object over a real bus: every command's effect, hostile arguments, the state dump, and the
// connection's loss and return.
#include "telemetry_ubus.h"

#include <cstring>
#include <ctime>
#include <filesystem>

#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bus_daemon.h"
#include "sysroot.h"
#include "telemetry_bus_call.h"
#include "telemetry_bus_limit.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_post.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;

using Messages = std::vector<std::string>;

static constexpr char kDone[] = "{\"err_code\":0}";

// The monotonic clock, which tests put forward instead of waiting.
static long clock_ahead_s;

extern "C" int clock_gettime(clockid_t id, timespec *now) noexcept {
    const long result = syscall(SYS_clock_gettime, id, now);
    if (result == 0 && id == CLOCK_MONOTONIC)
        now->tv_sec += clock_ahead_s;
    return static_cast<int>(result);
}

static bool watch_fails;

extern "C" int epoll_ctl(int loop, int operation, int fd, epoll_event *event) noexcept {
    if (!watch_fails || operation != EPOLL_CTL_ADD)
        return static_cast<int>(syscall(SYS_epoll_ctl, loop, operation, fd, event));
    errno = ENOSPC;
    return -1;
}

class TelemetryUbusTest : public SysrootTest {
  protected:
    TelemetryUbusTest() : bus(root.path(kBusSocketPath)) {
        uloop_init();
        telemetry_debug_enable = 1;
        telemetry_debug_level = TELEMETRY_LOG_INFO;
        EXPECT_EQ(telemetry_init_ubus(&ctx), 0);
    }
    ~TelemetryUbusTest() override {
        cJSON_Delete(ctx.collect_list);
        uloop_done();
        telemetry_free_ubus();
        TelemetryBusLimit::wait_ms = 10000;
    }
    BusReply call(const char *method, const std::string &arguments = "{}") {
        return LoopClient(bus.socket()).call("telemetry", method, arguments);
    }
    // A bus that is gone and back before anyone looks.
    void restart_bus() {
        bus.kill();
        bus.start();
    }

    BusDaemon bus;
    TelemetryCtx ctx = {};
};

TEST_F(TelemetryUbusTest, CommandsSetFlagsAndArmTimersOnly) {
    const std::tuple<const char *, bool, bool, uint32_t, uint32_t> cases[] = {
        {"collect_now", true, false, 0, 0},
        {"post_now", false, true, 0, 0},
        {"collect_all_next_time", false, false, 1, 1},
        {"collect_stgy2_and_post_now", true, true, 1, 0},
        {"clear", false, false, 0, 0}};
    ctx.collect_list = cJSON_Parse(R"([{"eid":"a","cnt":3}])");
    ctx.data_collect_count = 3;
    ctx.collect_timer.cb = ctx.post_timer.cb = [](uloop_timeout *) { FAIL() << "fired at once"; };
    for (const auto &[method, collect_timer, post_timer, stgy2, periodic] : cases) {
        SCOPED_TRACE(method);
        EXPECT_EQ(ctx.data_collect_count, 3u);
        ctx.collect_stgy2_now = ctx.collect_periodic_now = 0;
        EXPECT_EQ(call(method).json, kDone);
        EXPECT_EQ(ctx.collect_stgy2_now, stgy2);
        EXPECT_EQ(ctx.collect_periodic_now, periodic);
        EXPECT_EQ(ctx.collect_timer.pending, collect_timer);
        EXPECT_EQ(ctx.post_timer.pending, post_timer);
        for (uloop_timeout *timer : {&ctx.collect_timer, &ctx.post_timer}) {
            EXPECT_LE(uloop_timeout_remaining64(timer), 100);
            uloop_timeout_cancel(timer);
        }
    }
    EXPECT_EQ(ctx.collect_list, nullptr); // "clear"
    EXPECT_EQ(ctx.data_collect_count, 0u);
}

TEST_F(TelemetryUbusTest, LogLevelFollowsTheNameAndIgnoresOtherTexts) {
    const Messages bad = {"param error! debug/info/error"};
    const std::tuple<const char *, int, uint32_t, Messages> cases[] = {
        // with the level after, from 1
        {R"({"level":"debug"})", UBUS_STATUS_OK, 0, {}},
        {R"({"level":"info"})", UBUS_STATUS_OK, 1, {}},
        {R"({"other":1,"level":"error","level2":[]})", UBUS_STATUS_OK, 2, {}},
        {R"({"level":"Debug"})", UBUS_STATUS_OK, 1, bad},
        {R"({"level":{"level":"debug"}})", UBUS_STATUS_INVALID_ARGUMENT, 1, {}},
    };
    for (const char *method : {"debug", "set_debug"}) {
        for (const auto &[arguments, status, level, log] : cases) {
            SCOPED_TRACE(std::string(method) + arguments);
            telemetry_debug_level = TELEMETRY_LOG_INFO;
            BusReply reply;
            EXPECT_EQ(logged_messages([&, a = arguments] { reply = call(method, a); }), log);
            EXPECT_EQ(reply.status, status);
            EXPECT_EQ(reply.json, status == UBUS_STATUS_OK ? kDone : "");
            EXPECT_EQ(telemetry_debug_level, level);
        }
    }
    // Silent until it is toggled back.
    const auto loud = [&] { call("debug", R"({"level":"loud"})"); };
    call("toggle_debug");
    EXPECT_THAT(logged_messages(loud), IsEmpty());
    EXPECT_THAT(logged_messages([&] { call("print"); }), IsEmpty());
    call("toggle_debug");
    EXPECT_EQ(logged_messages(loud), bad);
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
    const auto messages = logged_messages([&] { EXPECT_EQ(call("print").json, kDone); });
    EXPECT_THAT(messages, IsSupersetOf(Messages{"dev id: " + std::string(65, 'd'), "access secret: %s%n",
                                                "post_interval: 60000", "backup data total str len: 21",
                                                "\t\t\"eid\":\t\"x\","}));
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

TEST_F(TelemetryUbusTest, StartFailsWithoutBusOrFreePath) {
    EXPECT_EQ(telemetry_bus_call(bus.socket().c_str(), "nobody", "m", nullptr, 1000, nullptr, nullptr),
              TELEMETRY_BUS_NO_OBJECT);
    const auto start = [&] { return telemetry_init_ubus(&ctx); };
    telemetry_free_ubus();
    {
        const Squatter other(bus.socket());
        const auto [result, log] = logged_result(start);
        EXPECT_EQ(result, -1);
        EXPECT_THAT(log, ElementsAre(::testing::HasSubstr("registration")));
    }
    watch_fails = true;
    expect_logged(-1, {"the loop cannot watch the ubus connection"}, start);
    watch_fails = false;
    bus.kill();
    expect_logged(-1, {"param error"}, start);
}

// --- Loss and return ---

static ptrdiff_t open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// One pass of the loop: what is due and what is readable.
static void run_loop_once() {
    uloop_run_timeout(0);
}

// Several: one pass may take the end of a child in the place of the socket.
static void run_loop_shortly() {
    for (int pass = 0; pass < 5; ++pass)
        run_loop_once();
}

// Every other bus is back before the loss is seen, so that the try "at once" succeeds; the rest need the
// timer, and two of its ticks pass without a bus.
TEST_F(TelemetryUbusTest, ComesBackAfterEachLossWithoutLosingTimersOrDescriptors) {
    ctx.collect_timer.cb = [](uloop_timeout *) { FAIL() << "the collect timer ran early"; };
    uloop_timeout_set(&ctx.collect_timer, 1000 * 3600 * 24);
    ptrdiff_t descriptors = 0;
    const OutputCapture quiet;
    for (int round = 0; round < 100; ++round) {
        clock_ahead_s += 1; // the last connection is not a fresh one
        bus.kill();
        for (int tick = 0; round % 2 != 0 && tick < 3; ++tick) {
            run_loop_once();
            clock_ahead_s += 2;
        }
        bus.start();
        run_loop_once();
        ASSERT_EQ(call("clear").json, kDone) << "round " << round;
        if (round == 1)
            descriptors = open_descriptors();
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_TRUE(ctx.collect_timer.pending);
    uloop_timeout_cancel(&ctx.collect_timer);
}

TEST_F(TelemetryUbusTest, ALossRightAfterTheConnectionWaitsForTheTimer) {
    restart_bus();
    const long before = clock_ahead_s;
    clock_ahead_s += 1;
    EXPECT_THAT(logged_messages(run_loop_shortly),
                ElementsAre("ubus connection is lost", "ubus connection is back"));
    clock_ahead_s = before; // the clock stands still between the return and the next loss
    restart_bus();
    EXPECT_THAT(logged_messages(run_loop_shortly), ElementsAre("ubus connection is lost"));
    EXPECT_GT(uloop_get_next_timeout(), 1000);
    clock_ahead_s += 4;
    EXPECT_THAT(logged_messages(run_loop_shortly), ElementsAre("ubus connection is back"));
    EXPECT_EQ(call("clear").json, kDone);
}

// What stands in the place of the bus: a process that hands each connection to `serve`.
class StandIn {
  public:
    StandIn(const std::string &path, void (*serve)(int connection, int number)) {
        sockaddr_un address = {AF_UNIX, {}};
        copy_text(address.sun_path, path.c_str());
        unlink(address.sun_path);
        const FdHandle listener(socket(AF_UNIX, SOCK_STREAM, 0));
        EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listener.get(), 8), 0);
        process_ = fork();
        if (process_ == 0)
            prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (int number = 0; process_ == 0; ++number) {
            const FdHandle connection(accept(listener.get(), nullptr, nullptr));
            serve(connection.get(), number);
        }
    }
    ~StandIn() {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
    StandIn(const StandIn &) = delete;
    StandIn &operator=(const StandIn &) = delete;

  private:
    pid_t process_;
};

// Neither a call nor the connection that is made anew, whose objects the library registers itself.
TEST_F(TelemetryUbusTest, ABusThatSaysNothingHoldsNobodyLongerThanTheLimit) {
    TelemetryBusLimit::wait_ms = 1000;
    bus.kill();
    clock_ahead_s += 1;
    {
        const StandIn silent(bus.socket(), [](int connection, int number) {
            if (number > 0)
                send(connection, "\0\0\0\0\0\1\2\3\0\0\0\4", 12, MSG_NOSIGNAL);
            char request[64];
            while (recv(connection, request, sizeof(request), 0) > 0) {
            }
        });
        const auto call_it = [this] {
            return telemetry_bus_call(bus.socket().c_str(), "o", "m", nullptr, 1000, nullptr, nullptr);
        };
        EXPECT_EQ(call_it(), TELEMETRY_BUS_NO_CONNECTION);
        EXPECT_EQ(call_it(), TELEMETRY_BUS_NO_OBJECT);
        EXPECT_THAT(logged_messages(run_loop_shortly), Contains("ubus connection is lost"));
    }
    bus.start();
    clock_ahead_s += 4;
    EXPECT_THAT(logged_messages(run_loop_shortly), Contains("ubus connection is back"));
    EXPECT_EQ(call("clear").json, kDone);
}

// The number that the lost connection had is another's.
TEST_F(TelemetryUbusTest, AFailedGreetingCostsNobodyADescriptor) {
    const OutputCapture quiet;
    bus.kill();
    clock_ahead_s += 1;
    {
        const StandIn rude(bus.socket(), [](int, int) {});
        run_loop_shortly();
    }
    int others[2]; // an upload's, say
    ASSERT_EQ(pipe(others), 0);
    bus.start();
    clock_ahead_s += 4;
    run_loop_shortly();
    EXPECT_EQ(call("clear").json, kDone);
    for (const int fd : others) {
        struct stat state = {};
        EXPECT_TRUE(fstat(fd, &state) == 0 && S_ISFIFO(state.st_mode));
        close(fd);
    }
}

static void run_loop_for_a_while() {
    for (int tick = 0; tick < 4; ++tick) {
        clock_ahead_s += 3;
        run_loop_shortly();
    }
}

TEST_F(TelemetryUbusTest, ATakenNameAndALoopThatIsFullAreToldOnce) {
    const auto told = ElementsAre("ubus connection is lost", HasSubstr("reconnect failed"));
    const auto back = ElementsAre("ubus connection is back");
    restart_bus();
    {
        const Squatter other(bus.socket());
        EXPECT_THAT(logged_messages(run_loop_for_a_while), told);
    }
    clock_ahead_s += 3;
    EXPECT_THAT(logged_messages(run_loop_shortly), back);
    const ptrdiff_t descriptors = open_descriptors();
    restart_bus();
    watch_fails = true;
    EXPECT_THAT(logged_messages(run_loop_for_a_while), told);
    watch_fails = false;
    clock_ahead_s += 3;
    EXPECT_THAT(logged_messages(run_loop_shortly), back);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(call("clear").json, kDone);
}

TEST_F(TelemetryUbusTest, TheStatusIsThereOnceItsNameIsFree) {
    for (const bool at_start : {true, false}) {
        SCOPED_TRACE(at_start);
        if (at_start)
            telemetry_free_ubus();
        else
            restart_bus();
        {
            const Squatter other(bus.socket(), "telemetry.status");
            EXPECT_THAT(logged_messages([&] {
                            EXPECT_EQ(at_start ? telemetry_init_ubus(&ctx) : 0, 0);
                            run_loop_for_a_while();
                        }),
                        Contains(HasSubstr("registration of telemetry.status failed")).Times(1));
            EXPECT_EQ(call("clear").json, kDone);
        }
        // The bus may not have seen yet that the holder is gone.
        BusReply status;
        for (int tries = 0; tries < 50 && status.json.empty(); ++tries) {
            run_loop_for_a_while();
            status = LoopClient(bus.socket()).call("telemetry.status", "get", "{}");
        }
        EXPECT_THAT(status.json, HasSubstr("version"));
    }
}
