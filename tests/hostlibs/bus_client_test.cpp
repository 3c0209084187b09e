// The bus client against the real daemon: events, and calls that arrive while another blocks.
#include <gtest/gtest.h>

#include "bus_daemon.h"
#include "sysroot.h"

namespace {

int noted = 0;

int note_call(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) {
    noted++;
    return UBUS_STATUS_OK;
}

const ubus_method methods[] = {UBUS_METHOD_NOARG("note", note_call)};

class BusClientTest : public SysrootTest {
  protected:
    BusClientTest() {
        noted = 0;
        served.name = "served";
        served.type = &type;
        served.methods = methods;
        served.n_methods = static_cast<int>(ARRAY_SIZE(methods));
        EXPECT_EQ(ubus_add_object(owner.bus(), &served), 0);
    }
    ~BusClientTest() override {
        uloop_done();
    }
    const bool loop = uloop_init() == 0;
    BusDaemon bus{root.path("/var/run/ubus.sock")};
    LoopClient owner{bus.socket()}, caller{bus.socket()};
    ubus_object_type type = UBUS_OBJECT_TYPE("test", methods);
    ubus_object served = {};
};

TEST_F(BusClientTest, EventsReachEverybodyElse) {
    static int heard;
    heard = 0;
    ubus_event_handler handlers[2] = {};
    for (int i = 0; i < 2; i++) {
        handlers[i].cb = [](ubus_context *, ubus_event_handler *, const char *, blob_attr *) { heard++; };
        ASSERT_EQ(ubus_register_event_handler((i == 0 ? owner : caller).bus(), &handlers[i], "news*"), 0);
    }
    ASSERT_EQ(ubus_send_event(owner.bus(), "news.one", BlobBuffer().head()), 0);
    for (int i = 0; i < 20; i++)
        uloop_run_timeout(10);
    EXPECT_EQ(heard, 1) << "the sender's own is not told to it";
}

// The owner is called many times while it waits for an answer of its own.
TEST_F(BusClientTest, CallsThatArriveDuringABlockingOneAreHeldUpToABound) {
    constexpr int kHeld = 1024;
    static int answered, refused;
    answered = refused = 0;
    LoopClient deaf(bus.socket());
    ubus_object silent = served;
    silent.name = "silent";
    silent.id = 0;
    ASSERT_EQ(ubus_add_object(deaf.bus(), &silent), 0);
    std::vector<ubus_request> requests(kHeld + 76);
    for (ubus_request &request : requests) {
        ASSERT_EQ(ubus_invoke_async(caller.bus(), served.id, "note", BlobBuffer().head(), &request), 0);
        request.complete_cb = [](ubus_request *, int status) {
            EXPECT_TRUE(status == UBUS_STATUS_OK || status == UBUS_STATUS_NO_MEMORY);
            (status == UBUS_STATUS_OK ? answered : refused)++;
            if (answered + refused == kHeld + 76)
                uloop_end();
        };
        ubus_complete_request_async(caller.bus(), &request);
    }
    // Whoever serves in this process is deaf while a call blocks.
    EXPECT_EQ(ubus_invoke(owner.bus(), silent.id, "note", BlobBuffer().head(), nullptr, nullptr, 1000),
              UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(noted, 0) << "a blocking call runs nothing of the loop";
    uloop_run();
    EXPECT_EQ(noted, kHeld + 1); // and the call that nobody waits for any more
    EXPECT_EQ(answered, kHeld);
    EXPECT_EQ(refused, 76);
}

} // namespace
