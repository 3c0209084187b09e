#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

extern "C" {
#include <libubox/uloop.h>
}

struct timer : uloop_timeout {
    std::function<void(timer &)> run;

    explicit timer(std::function<void(timer &)> action) : uloop_timeout{}, run(std::move(action)) {
        cb = [](uloop_timeout *t) { static_cast<timer *>(t)->run(*static_cast<timer *>(t)); };
    }
    ~timer() {
        uloop_timeout_cancel(this);
    }
    timer(const timer &) = delete;
    timer &operator=(const timer &) = delete;
};

// A socket that the loop watches; the test writes at the other end.
struct watched : uloop_fd {
    int ends[2] = {-1, -1};
    std::function<void(watched &, unsigned int)> run;

    explicit watched(std::function<void(watched &, unsigned int)> action, const char *ready = "")
        : uloop_fd{}, run(std::move(action)) {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        cb = [](uloop_fd *u, unsigned int events) {
            static_cast<watched *>(u)->run(*static_cast<watched *>(u), events);
        };
        fd = ends[0];
        EXPECT_EQ(uloop_fd_add(this, ULOOP_READ), 0);
        put(ready);
    }
    ~watched() {
        uloop_fd_delete(this);
        close(ends[0]);
        close_other();
    }
    watched(const watched &) = delete;
    watched &operator=(const watched &) = delete;
    void put(const std::string &bytes) const {
        EXPECT_EQ(write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void take() const {
        char byte;
        EXPECT_EQ(read(ends[0], &byte, 1), 1);
    }
    void close_other() {
        if (ends[1] >= 0)
            close(ends[1]);
        ends[1] = -1;
    }
};

class Uloop : public testing::Test {
  protected:
    Uloop() {
        EXPECT_EQ(uloop_init(), 0);
    }
    ~Uloop() override {
        uloop_done();
    }
};

TEST_F(Uloop, DueTimersRunInOrderOfDueTimeAndTiesInOrderOfSetting) {
    std::string order;
    auto note = [&](char name) { return [&order, name](timer &) { order += name; }; };
    timer a(note('a')), b(note('b')), c(note('c')), d(note('d')), later(note('e'));
    uloop_timeout_set(&a, -1000);
    uloop_timeout_set(&b, -3000);
    uloop_timeout_set(&c, -2000);
    d.time = c.time;
    ASSERT_EQ(uloop_timeout_add(&d), 0);
    EXPECT_EQ(uloop_timeout_add(&d), -1);
    EXPECT_EQ(uloop_timeout_remaining64(&later), -1);
    uloop_timeout_set(&later, -5);
    EXPECT_EQ(uloop_get_next_timeout(), 0);
    uloop_timeout_set(&later, 3000000); // moves it
    uloop_run_timeout(0);
    EXPECT_EQ(order, "bcda");
    EXPECT_GT(uloop_timeout_remaining64(&later), 2900000);
    EXPECT_GT(uloop_get_next_timeout(), 2900000);
    EXPECT_EQ(uloop_timeout_cancel(&later), 0);
    EXPECT_EQ(uloop_timeout_cancel(&later), -1);
    EXPECT_EQ(uloop_get_next_timeout(), -1);
}

// Two descriptors are ready in one round; what the first callback does to the other decides whether its event
// still counts.
TEST_F(Uloop, CallbacksChangeWhatElseIsReadyInTheRound) {
    const struct {
        const char *what;
        void (*act)(std::unique_ptr<watched> &other);
        int calls;
    } cases[] = {
        {"removes and frees", [](std::unique_ptr<watched> &other) { other.reset(); }, 1},
        {"removes and adds again, with nothing to read any more",
         [](std::unique_ptr<watched> &other) {
             other->take();
             uloop_fd_delete(other.get());
             EXPECT_EQ(uloop_fd_add(other.get(), ULOOP_READ), 0);
         },
         1},
        {"serves it in a nested run", [](std::unique_ptr<watched> &) { uloop_run_timeout(0); }, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        int calls = 0;
        std::unique_ptr<watched> pipes[2];
        for (auto &own : pipes) {
            auto &other = pipes[&own == pipes];
            own = std::make_unique<watched>(
                [&](watched &w, unsigned int) {
                    w.take();
                    if (calls++ == 0)
                        c.act(other);
                },
                "x");
        }
        uloop_run_timeout(0);
        uloop_run_timeout(0);
        EXPECT_EQ(calls, c.calls);
        for (auto &one : pipes) {
            if (one)
                one->put("y");
        }
        uloop_run_timeout(0);
        EXPECT_EQ(calls, c.calls + (pipes[0] != nullptr) + (pipes[1] != nullptr)) << "registrations live on";
    }
}

TEST_F(Uloop, SignalsEndTheRunTheyComeIn) {
    raise(SIGTERM);
    EXPECT_EQ(uloop_run_timeout(0), 0) << "one that came before is forgotten";
    timer behind([](timer &) { ADD_FAILURE() << "nothing runs after the end"; });
    timer first([](timer &) { raise(SIGINT); });
    uloop_timeout_set(&first, -5);
    uloop_timeout_set(&behind, -1);
    EXPECT_EQ(uloop_run(), SIGINT);
    uloop_timeout_cancel(&behind);
    EXPECT_EQ(uloop_run_timeout(0), 0);
}
