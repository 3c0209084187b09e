#include <csignal>

#include <gtest/gtest.h>

extern "C" {
#include <libubox/uloop.h>
}

TEST(Uloop, SignalsEndTheRunTheyComeIn) {
    ASSERT_EQ(uloop_init(), 0);
    raise(SIGTERM);
    EXPECT_EQ(uloop_run_timeout(0), 0) << "one that came before is forgotten";
    uloop_timeout first = {}, behind = {};
    first.cb = [](uloop_timeout *) { raise(SIGINT); };
    behind.cb = [](uloop_timeout *) { ADD_FAILURE() << "nothing runs after the end"; };
    uloop_timeout_set(&behind, -1);
    uloop_timeout_set(&first, -5); // due before
    EXPECT_EQ(uloop_run(), SIGINT);
    uloop_timeout_cancel(&behind);
    EXPECT_EQ(uloop_run_timeout(0), 0);
    uloop_done();
}
