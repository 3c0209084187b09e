#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libubox/uloop.h>
}

struct timer : uloop_timeout {
    timer() : uloop_timeout{} {}
    std::function<void(timer &)> run;
};

struct watcher : uloop_fd {
    watcher() : uloop_fd{} {}
    std::function<void(watcher &, unsigned int)> run;
};

static void on_timer(uloop_timeout *t) {
    auto *self = static_cast<timer *>(t);
    self->run(*self);
}

static void on_fd(uloop_fd *u, unsigned int events) {
    auto *self = static_cast<watcher *>(u);
    self->run(*self, events);
}

// A pipe with one byte in it, whose read end is watched.
struct ready_pipe {
    int ends[2] = {-1, -1};
    watcher w;

    explicit ready_pipe(std::function<void(watcher &, unsigned int)> run, unsigned int flags = ULOOP_READ) {
        EXPECT_EQ(pipe(ends), 0);
        EXPECT_EQ(write(ends[1], "x", 1), 1);
        w.run = std::move(run);
        w.cb = on_fd;
        w.fd = ends[0];
        EXPECT_EQ(uloop_fd_add(&w, flags), 0);
    }
    ~ready_pipe() {
        uloop_fd_delete(&w);
        close(ends[0]);
        close_writer();
    }
    void close_writer() {
        if (ends[1] >= 0)
            close(ends[1]);
        ends[1] = -1;
    }
    void drain() {
        char c;
        EXPECT_EQ(read(ends[0], &c, 1), 1);
    }
};

class Uloop : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(uloop_init(), 0);
    }
    void TearDown() override {
        uloop_done();
    }
    // Enters a timer that has been due for `overdue_ms`.
    static void arm_overdue(timer &one, int overdue_ms) {
        one.cb = on_timer;
        ASSERT_EQ(uloop_timeout_set(&one, -overdue_ms), 0);
    }
};

TEST_F(Uloop, DueTimersRunInOrderOfDueTimeAndTiesInOrderOfSetting) {
    std::string order;
    timer timers[5];
    for (int i = 0; i < 5; i++)
        timers[i].run = [&order, i](timer &) { order += static_cast<char>('a' + i); };
    arm_overdue(timers[0], 1000);
    arm_overdue(timers[1], 3000);
    arm_overdue(timers[2], 2000);
    for (timer *tie : {&timers[3], &timers[4]}) {
        tie->cb = on_timer;
        tie->time = timers[2].time;
        ASSERT_EQ(uloop_timeout_add(tie), 0);
        EXPECT_EQ(uloop_timeout_add(tie), -1);
    }
    uloop_run_timeout(0);
    EXPECT_EQ(order, "bcdea");
}

TEST_F(Uloop, SettingAPendingTimerMovesItAndCancellingIsReported) {
    int ran = 0;
    timer one;
    one.run = [&](timer &) { ran++; };
    EXPECT_EQ(uloop_timeout_remaining64(&one), -1);
    arm_overdue(one, 5);
    EXPECT_EQ(uloop_timeout_remaining64(&one), 0) << "overdue";
    EXPECT_EQ(uloop_get_next_timeout(), 0);
    uloop_timeout_set(&one, 3000000);
    EXPECT_GT(uloop_timeout_remaining64(&one), 2900000);
    EXPECT_GT(uloop_get_next_timeout(), 2900000);
    uloop_run_timeout(0);
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(uloop_timeout_cancel(&one), 0);
    EXPECT_EQ(uloop_timeout_cancel(&one), -1);
    EXPECT_EQ(uloop_get_next_timeout(), -1);
}

TEST_F(Uloop, TimerCallbacksMayCancelFreeAndRearm) {
    int rearmed = 0, cancelled_ran = 0;
    auto doomed = std::make_unique<timer>();
    doomed->run = [&](timer &) { cancelled_ran++; };
    timer self;
    self.run = [&](timer &t) {
        EXPECT_FALSE(t.pending) << "taken off before its callback";
        if (doomed)
            uloop_timeout_cancel(doomed.get());
        doomed.reset();
        if (++rearmed == 3)
            uloop_end();
        uloop_timeout_set(&t, 0);
    };
    arm_overdue(self, 10);
    arm_overdue(*doomed, 5);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(rearmed, 3);
    EXPECT_EQ(cancelled_ran, 0);
    EXPECT_TRUE(self.pending);
}

TEST_F(Uloop, AnAlwaysDueTimerDoesNotStarveDescriptors) {
    timer busy;
    busy.run = [](timer &t) { uloop_timeout_set(&t, 0); };
    arm_overdue(busy, 0);
    ready_pipe p([](watcher &, unsigned int) { uloop_end(); });
    uloop_run();
    SUCCEED() << "the loop ended from the descriptor's callback";
}

TEST_F(Uloop, ACallbackThatRemovesAndFreesAnotherReadyDescriptorSilencesIt) {
    int ran = 0;
    std::unique_ptr<ready_pipe> pipes[2];
    for (int i = 0; i < 2; i++) {
        pipes[i] = std::make_unique<ready_pipe>([&, i](watcher &w, unsigned int) {
            ran++;
            uloop_fd_delete(&w);
            pipes[1 - i].reset();
        });
    }
    uloop_run_timeout(0);
    uloop_run_timeout(0);
    EXPECT_EQ(ran, 1);
}

// The stale event of the old registration must not reach the new one, which has nothing to read yet.
TEST_F(Uloop, RemovingAndAddingAgainInTheSameRoundWaitsForNews) {
    int ran[2] = {0, 0};
    ready_pipe *pipes[2] = {nullptr, nullptr};
    auto callback = [&](int i) {
        return [&, i](watcher &w, unsigned int) {
            ran[i]++;
            pipes[i]->drain();
            uloop_fd_delete(&w);
            ready_pipe *other = pipes[1 - i];
            other->drain();
            uloop_fd_delete(&other->w);
            EXPECT_EQ(uloop_fd_add(&other->w, ULOOP_READ), 0);
        };
    };
    ready_pipe a(callback(0)), b(callback(1));
    pipes[0] = &a;
    pipes[1] = &b;
    uloop_run_timeout(0);
    EXPECT_EQ(ran[0] + ran[1], 1);
    uloop_run_timeout(0);
    ASSERT_EQ(ran[0] + ran[1], 1);
    ready_pipe &second = ran[0] ? b : a;
    second.w.run = [&](watcher &, unsigned int) { ran[0] = 10; };
    ASSERT_EQ(write(second.ends[1], "y", 1), 1);
    uloop_run_timeout(0);
    EXPECT_EQ(ran[0], 10) << "the new registration is alive";
}

// A nested run serves the descriptor first; the outer round must not serve its old event again.
TEST_F(Uloop, ANestedRunConsumesEventsOfTheOuterRound) {
    int depth = 0, most = 0, served = 0;
    std::vector<std::unique_ptr<ready_pipe>> pipes;
    for (int i = 0; i < 2; i++) {
        pipes.push_back(std::make_unique<ready_pipe>([&, i](watcher &, unsigned int) {
            most = std::max(most, ++depth);
            served++;
            char c;
            EXPECT_EQ(read(pipes[static_cast<size_t>(i)]->ends[0], &c, 1), 1);
            uloop_run_timeout(0);
            depth--;
        }));
    }
    uloop_run_timeout(0);
    uloop_run_timeout(0);
    EXPECT_EQ(served, 2);
    EXPECT_EQ(most, 2);
}

TEST_F(Uloop, HangUpIsReportedBeforeTheCallbackAndEndsTheWatch) {
    int calls = 0;
    ready_pipe p([&](watcher &w, unsigned int events) {
        calls++;
        EXPECT_TRUE(events & ULOOP_READ);
        EXPECT_TRUE(w.eof);
        EXPECT_TRUE(w.error);
        EXPECT_FALSE(w.registered);
    });
    p.close_writer();
    uloop_run_timeout(0);
    uloop_run_timeout(0);
    EXPECT_EQ(calls, 1) << "a hang-up that nobody handles must not spin";

    int half_closed = 0;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    watcher s;
    s.cb = on_fd;
    s.fd = ends[0];
    s.run = [&](watcher &w, unsigned int) {
        half_closed++;
        EXPECT_TRUE(w.eof);
        EXPECT_FALSE(w.error);
        EXPECT_TRUE(w.registered);
    };
    ASSERT_EQ(uloop_fd_add(&s, ULOOP_READ), 0);
    shutdown(ends[1], SHUT_WR);
    uloop_run_timeout(0);
    EXPECT_EQ(half_closed, 1);
    uloop_fd_delete(&s);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Uloop, FlagsDecideBlockingEventsAndRemoval) {
    unsigned int last = 0;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    watcher s;
    s.cb = on_fd;
    s.fd = ends[0];
    s.run = [&](watcher &, unsigned int events) { last = events; };
    ASSERT_EQ(uloop_fd_add(&s, ULOOP_READ | ULOOP_BLOCKING), 0);
    EXPECT_FALSE(fcntl(ends[0], F_GETFL) & O_NONBLOCK);
    uloop_run_timeout(0);
    EXPECT_EQ(last, 0u);
    ASSERT_EQ(uloop_fd_add(&s, ULOOP_READ | ULOOP_WRITE | ULOOP_BLOCKING), 0);
    uloop_run_timeout(0);
    EXPECT_EQ(last, static_cast<unsigned int>(ULOOP_WRITE));
    ASSERT_EQ(uloop_fd_add(&s, 0), 0);
    EXPECT_FALSE(s.registered);
    ASSERT_EQ(uloop_fd_add(&s, ULOOP_READ), 0);
    EXPECT_TRUE(fcntl(ends[0], F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(uloop_fd_delete(&s), 0);
    EXPECT_EQ(uloop_fd_delete(&s), 0);
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(uloop_fd_add(&s, ULOOP_READ), -1) << "closed descriptor";
    EXPECT_FALSE(s.registered);
}

TEST_F(Uloop, EdgeTriggeredDescriptorsReportOnlyNews) {
    int calls = 0;
    ready_pipe p([&](watcher &, unsigned int) { calls++; }, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    uloop_run_timeout(0);
    uloop_run_timeout(0);
    EXPECT_EQ(calls, 1);
    ASSERT_EQ(write(p.ends[1], "y", 1), 1);
    uloop_run_timeout(0);
    EXPECT_EQ(calls, 2);
}

static int open_descriptors(bool only_inherited) {
    int count = 0;
    for (int fd = 0; fd < 256; fd++) {
        int flags = fcntl(fd, F_GETFD);
        count += flags >= 0 && !(only_inherited && (flags & FD_CLOEXEC));
    }
    return count;
}

TEST(UloopSetup, DescriptorsAreCloseOnExecAndReleasedAndInitIsRepeatable) {
    int before = open_descriptors(false), inherited = open_descriptors(true);
    ASSERT_EQ(uloop_init(), 0);
    int during = open_descriptors(false);
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(open_descriptors(false), during);
    EXPECT_EQ(open_descriptors(true), inherited);
    timer left;
    left.cb = on_timer;
    uloop_timeout_set(&left, 1000);
    uloop_done();
    EXPECT_FALSE(left.pending);
    EXPECT_EQ(open_descriptors(false), before);
    EXPECT_EQ(uloop_run(), 0) << "without descriptors the loop returns at once";
    ASSERT_EQ(uloop_init(), 0);
    uloop_done();
}

static void foreign_handler(int) {}

static void (*handler_of(int number))(int) {
    struct sigaction now = {};
    sigaction(number, nullptr, &now);
    return now.sa_handler;
}

TEST(UloopSetup, SignalHandlersAreInstalledOverDefaultsOnlyAndPutBack) {
    signal(SIGINT, foreign_handler);
    ASSERT_EQ(uloop_init(), 0);
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(handler_of(SIGINT), foreign_handler);
    EXPECT_NE(handler_of(SIGTERM), SIG_DFL);
    EXPECT_EQ(handler_of(SIGPIPE), SIG_IGN);
    uloop_done();
    EXPECT_EQ(handler_of(SIGINT), foreign_handler);
    EXPECT_EQ(handler_of(SIGTERM), SIG_DFL);
    EXPECT_EQ(handler_of(SIGPIPE), SIG_DFL);
    signal(SIGINT, SIG_DFL);
}

TEST_F(Uloop, SignalsEndTheLoopWheneverTheyCome) {
    raise(SIGTERM);
    EXPECT_EQ(uloop_run(), SIGTERM) << "before the loop started";
    EXPECT_EQ(uloop_run_timeout(0), 0) << "a signal ends one run";

    timer one;
    int later = 0;
    timer behind;
    behind.run = [&](timer &) { later++; };
    one.run = [&](timer &) {
        raise(SIGINT);
        EXPECT_TRUE(uloop_cancelling());
    };
    arm_overdue(one, 5);
    arm_overdue(behind, 1);
    EXPECT_EQ(uloop_run(), SIGINT);
    EXPECT_EQ(later, 0) << "nothing runs after the end";
    uloop_timeout_cancel(&behind);

    // At any moment of the wait, the gap just before it included. The handler runs in the other thread, so
    // that no interrupted system call helps.
    for (int i = 0; i < 50; i++) {
        std::thread sender([] { raise(SIGTERM); });
        EXPECT_EQ(uloop_run(), SIGTERM);
        sender.join();
    }
}
