#include <csignal>
#include <functional>
#include <string>

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
