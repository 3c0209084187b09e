// The bus client against the real daemon: calls and how they end, and what happens meanwhile.
#include <algorithm>
#include <cstring>
#include <thread>

#include <gtest/gtest.h>

#include "bus_daemon.h"
#include "sysroot.h"

namespace {

int noted = 0;

int note_call(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method, blob_attr *msg) {
    noted++;
    if (strcmp(method, "echo") == 0)
        ubus_send_reply(ctx, req, msg);
    return strcmp(method, "fail") == 0 ? UBUS_STATUS_NOT_SUPPORTED : UBUS_STATUS_OK;
}

int defer_call(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *) {
    static ubus_request_data deferred;
    static uloop_timeout later;
    static ubus_context *bus;
    bus = ctx;
    ubus_defer_request(ctx, req, &deferred);
    later.cb = [](uloop_timeout *) {
        ubus_complete_deferred_request(bus, &deferred, UBUS_STATUS_PERMISSION_DENIED);
    };
    uloop_timeout_set(&later, 1);
    return UBUS_STATUS_OK;
}

const ubus_method methods[] = {
    UBUS_METHOD_NOARG("echo", note_call),
    UBUS_METHOD_NOARG("fail", note_call),
    UBUS_METHOD_NOARG("note", note_call),
    UBUS_METHOD_NOARG("defer", defer_call),
};

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
    // A call that blocks: whoever serves in this process is deaf meanwhile.
    static int invoke(LoopClient &client, uint32_t object, int timeout_ms) {
        return ubus_invoke(client.bus(), object, "note", BlobBuffer().head(), nullptr, nullptr, timeout_ms);
    }
    const bool loop = uloop_init() == 0;
    BusDaemon bus{root.path("/var/run/ubus.sock")};
    LoopClient owner{bus.socket()}, caller{bus.socket()};
    ubus_object_type type = UBUS_OBJECT_TYPE("test", methods);
    ubus_object served = {};
};

TEST_F(BusClientTest, CallsMethodsAndTellsHowTheyEnded) {
    EXPECT_EQ(ubus_add_object(owner.bus(), &served), UBUS_STATUS_INVALID_ARGUMENT);
    const std::string long_text = R"({"text":")" + std::string(900000, 'x') + R"("})";
    const struct {
        const char *object, *method;
        std::string arguments;
        int status;
    } cases[] = {
        {"served", "echo", R"({"text":"a","number":1})", UBUS_STATUS_OK},
        {"served", "echo", long_text, UBUS_STATUS_OK},
        {"served", "fail", "{}", UBUS_STATUS_NOT_SUPPORTED},
        {"served", "defer", "{}", UBUS_STATUS_PERMISSION_DENIED},
        {"served", "nothing", "{}", UBUS_STATUS_METHOD_NOT_FOUND},
        {"missing", "echo", "{}", UBUS_STATUS_NOT_FOUND},
    };
    for (const auto &[object, method, arguments, status] : cases) {
        SCOPED_TRACE(method);
        const BusReply reply = caller.call(object, method, arguments);
        EXPECT_EQ(reply.status, status);
        EXPECT_EQ(reply.json, status == UBUS_STATUS_OK ? arguments : "");
    }
    ASSERT_EQ(ubus_remove_object(owner.bus(), &served), 0);
    EXPECT_EQ(caller.call("served", "note").status, UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(ubus_add_object(owner.bus(), &served), 0);
    EXPECT_EQ(caller.call("served", "note").status, UBUS_STATUS_OK);
}

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

TEST_F(BusClientTest, ABlockingCallEndsByTimeoutAndByEndOfBus) {
    EXPECT_EQ(invoke(caller, served.id, 20), UBUS_STATUS_TIMEOUT);
    // The late answer belongs to nobody and disturbs nobody.
    uloop_run_timeout(0);
    EXPECT_EQ(noted, 1);
    EXPECT_EQ(invoke(caller, served.id, 20), UBUS_STATUS_TIMEOUT);
    std::thread killer([&] { bus.kill(); });
    EXPECT_EQ(invoke(caller, served.id, 0), UBUS_STATUS_CONNECTION_FAILED);
    killer.join();
    EXPECT_EQ(invoke(caller, served.id, 0), UBUS_STATUS_CONNECTION_FAILED);
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
    EXPECT_EQ(invoke(owner, silent.id, 1000), UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(noted, 0) << "a blocking call runs nothing of the loop";
    uloop_run();
    EXPECT_EQ(noted, kHeld + 1); // and the call that nobody waits for any more
    EXPECT_EQ(answered, kHeld);
    EXPECT_EQ(refused, 76);
}

} // namespace
