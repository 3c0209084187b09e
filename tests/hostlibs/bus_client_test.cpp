// The bus client against the real daemon, and against buses that do everything wrong. What a bus may send
// after its greeting is the fuzz target's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bus_daemon.h"
#include "raw_bus.h"
#include "sysroot.h"

namespace {

std::vector<std::string> journal;

int note_call(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method, blob_attr *msg) {
    journal.push_back(method);
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

// A type and an object of it.
struct TestObject {
    ubus_object_type type = UBUS_OBJECT_TYPE("test", methods);
    ubus_object object = {};
    explicit TestObject(const char *name) {
        object.name = name;
        object.type = &type;
        object.methods = methods;
        object.n_methods = static_cast<int>(ARRAY_SIZE(methods));
    }
};

class BusClientTest : public SysrootTest {
  protected:
    BusClientTest() {
        journal.clear();
        uloop_init();
    }
    ~BusClientTest() override {
        uloop_done();
    }
    // A call that blocks.
    static int invoke(LoopClient &client, uint32_t object, int timeout_ms = 10000) {
        return ubus_invoke(client.bus(), object, "m", BlobBuffer().head(), nullptr, nullptr, timeout_ms);
    }
    const std::string socket = root.path("/var/run/ubus.sock");
    const std::string hello = message(UBUS_MSG_HELLO, 0, 5000);
    TestObject served{"served"};
};

TEST_F(BusClientTest, RefusesBusesThatDoNotGreetProperly) {
    std::string too_long = message(UBUS_MSG_HELLO, 0, 5000);
    too_long.replace(8, 4, std::string("\x00\x10\x00\x01", 4));
    const std::pair<const char *, std::string> cases[] = {
        {"another message first", message(UBUS_MSG_STATUS, 0, 5000)},
        {"without an id", message(UBUS_MSG_HELLO, 0, 0)},
        {"longer than allowed", too_long},
    };
    EXPECT_EQ(ubus_connect(std::string(200, 'x').c_str()), nullptr);
    const size_t before = open_descriptors();
    for (const auto &[name, bytes] : cases) {
        SCOPED_TRACE(name);
        FakeBus bus(socket, [&bytes = bytes](RawPeer &peer) {
            peer.send(bytes);
            peer.closed_by_other(); // only the client closes: it does not wait for more
        });
        EXPECT_EQ(ubus_connect(socket.c_str()), nullptr);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(BusClientTest, CallsMethodsAndTellsHowTheyEnded) {
    BusDaemon bus(socket);
    LoopClient owner(socket), caller(socket);
    ASSERT_EQ(ubus_add_object(owner.bus(), &served.object), 0);
    EXPECT_EQ(ubus_add_object(owner.bus(), &served.object), UBUS_STATUS_INVALID_ARGUMENT);
    TestObject twin("served");
    EXPECT_EQ(ubus_add_object(caller.bus(), &twin.object), UBUS_STATUS_INVALID_ARGUMENT);
    const std::string long_text = R"({"text":")" + std::string(900000, 'x') + R"("})";
    const struct {
        const char *object, *method;
        std::string arguments;
        int status;
    } cases[] = {
        {"served", "echo", R"({"text":"a","number":1})", UBUS_STATUS_OK},
        {"served", "echo", long_text, UBUS_STATUS_OK},
        {"served", "note", "{}", UBUS_STATUS_OK},
        {"served", "fail", "{}", UBUS_STATUS_NOT_SUPPORTED},
        {"served", "defer", "{}", UBUS_STATUS_PERMISSION_DENIED},
        {"served", "nothing", "{}", UBUS_STATUS_METHOD_NOT_FOUND},
        {"missing", "echo", "{}", UBUS_STATUS_NOT_FOUND},
    };
    for (const auto &[object, method, arguments, status] : cases) {
        SCOPED_TRACE(method);
        const BusReply reply = caller.call(object, method, arguments);
        EXPECT_EQ(reply.status, status);
        EXPECT_EQ(reply.json, status == UBUS_STATUS_OK && strcmp(method, "echo") == 0 ? arguments : "");
    }
    BlobBuffer more_than_the_bus_takes;
    blobmsg_add_string(more_than_the_bus_takes.get(), "text", std::string(UBUS_MAX_MSGLEN, 'x').c_str());
    EXPECT_EQ(ubus_invoke(caller.bus(), served.object.id, "echo", more_than_the_bus_takes.head(), nullptr,
                          nullptr, 1000),
              UBUS_STATUS_INVALID_ARGUMENT);
    ASSERT_EQ(ubus_remove_object(owner.bus(), &served.object), 0);
    EXPECT_EQ(caller.call("served", "note").status, UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(ubus_add_object(owner.bus(), &served.object), 0);
    EXPECT_EQ(caller.call("served", "note").status, UBUS_STATUS_OK);
}

TEST_F(BusClientTest, NotifiesSubscribersAndHearsWhetherThereAreAny) {
    BusDaemon bus(socket);
    LoopClient owner(socket), other(socket);
    served.object.subscribe_cb = [](ubus_context *, ubus_object *obj) {
        journal.push_back(obj->has_subscribers ? "somebody" : "nobody");
    };
    ubus_subscriber subscriber = {};
    subscriber.cb = note_call;
    subscriber.remove_cb = [](ubus_context *, ubus_subscriber *, uint32_t) { journal.push_back("gone"); };
    ASSERT_EQ(ubus_add_object(owner.bus(), &served.object), 0);
    ASSERT_EQ(ubus_register_subscriber(other.bus(), &subscriber), 0);
    EXPECT_EQ(ubus_subscribe(other.bus(), &subscriber, 4711), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(ubus_subscribe(other.bus(), &subscriber, served.object.id), 0);
    BlobBuffer news;
    // Without a wish for answers nothing is waited for; with one, the subscriber's own status counts.
    EXPECT_EQ(ubus_notify(owner.bus(), &served.object, "note", news.head(), -1), 0);
    ubus_notify_request request;
    ASSERT_EQ(ubus_notify_async(owner.bus(), &served.object, "fail", news.head(), &request), 0);
    request.status_cb = [](ubus_notify_request *, int place, int status) {
        journal.push_back("answer " + std::to_string(place) + " " + std::to_string(status));
    };
    request.complete_cb = [](ubus_notify_request *, int, int) { journal.push_back("complete"); };
    ubus_complete_request_async(owner.bus(), &request.req);
    for (int i = 0; i < 100 && (journal.empty() || journal.back() != "complete"); i++)
        uloop_run_timeout(100);
    EXPECT_THAT(journal, testing::ElementsAre("somebody", "note", "fail", "answer 0 8", "complete"));
    journal.clear();
    EXPECT_EQ(ubus_unsubscribe(other.bus(), &subscriber, served.object.id), 0);
    EXPECT_EQ(ubus_notify(owner.bus(), &served.object, "note", news.head(), 1000), 0);
    EXPECT_EQ(ubus_subscribe(other.bus(), &subscriber, served.object.id), 0);
    EXPECT_EQ(ubus_remove_object(owner.bus(), &served.object), 0);
    for (int i = 0; i < 100 && (journal.empty() || journal.back() != "gone"); i++)
        uloop_run_timeout(100);
    EXPECT_THAT(journal, testing::Contains("gone"));
}

TEST_F(BusClientTest, EndsABlockingCallByTimeoutAndByEndOfBus) {
    BusDaemon bus(socket);
    LoopClient client(socket);
    RawPeer deaf(socket);
    const uint32_t object = deaf.add_object("deaf");
    EXPECT_EQ(invoke(client, object, 20), UBUS_STATUS_TIMEOUT);
    // The late answer belongs to nobody and disturbs nobody.
    auto call = deaf.receive();
    ASSERT_TRUE(call);
    deaf.send(status_message(call->seq, call->peer, object, 0));
    EXPECT_EQ(invoke(client, object, 20), UBUS_STATUS_TIMEOUT);
    std::thread killer([&] {
        deaf.receive();
        deaf.receive();
        bus.kill();
    });
    EXPECT_EQ(invoke(client, object, 0), UBUS_STATUS_CONNECTION_FAILED);
    killer.join();
    EXPECT_EQ(invoke(client, object, 0), UBUS_STATUS_CONNECTION_FAILED);
}

TEST_F(BusClientTest, EndsWaitingRequestsAndReportsTheLossOnce) {
    BusDaemon bus(socket);
    LoopClient client(socket);
    RawPeer deaf(socket);
    const uint32_t object = deaf.add_object("deaf");
    client.bus()->connection_lost = [](ubus_context *) { journal.push_back("lost"); };
    ubus_request req;
    ASSERT_EQ(ubus_invoke_async(client.bus(), object, "m", BlobBuffer().head(), &req), 0);
    req.complete_cb = [](ubus_request *, int status) { journal.push_back(std::to_string(status)); };
    ubus_complete_request_async(client.bus(), &req);
    bus.kill();
    EXPECT_EQ(invoke(client, object), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_THAT(journal, testing::IsEmpty()) << "a blocking call runs no callbacks of the loop";
    for (int i = 0; i < 20; i++)
        uloop_run_timeout(1);
    EXPECT_THAT(journal, testing::ElementsAre("7", "lost"));
}

// Our object is called many times before our own request is answered, in one burst.
TEST_F(BusClientTest, HoldsCallsThatArriveDuringABlockingOneUpToABound) {
    constexpr uint32_t object = 7000;
    constexpr uint16_t calls = 1100, held = 1024;
    std::vector<uint16_t> answered, refused;
    {
        FakeBus bus(socket, [&](RawPeer &peer) {
            peer.send(hello);
            auto add = peer.receive();
            bus_builder ids;
            bus_put_u32(ids, UBUS_ATTR_OBJID, object);
            bus_put_u32(ids, UBUS_ATTR_OBJTYPE, 7001);
            peer.send(message(UBUS_MSG_DATA, add->seq, 0, std::move(ids)) +
                      status_message(add->seq, 0, object, 0));
            auto call = peer.receive();
            std::string burst;
            for (uint16_t i = 0; i < calls; i++)
                burst += invoke_message(i, object, "note");
            peer.send(burst + status_message(call->seq, call->peer, 6000, 0));
            for (int i = 0; i < calls; i++) {
                auto answer = peer.receive();
                bus_attrs attrs;
                bus_attrs_parse(answer->attr(), attrs);
                const bool ok = attrs.u32(UBUS_ATTR_STATUS) == UBUS_STATUS_OK;
                EXPECT_TRUE(ok || attrs.u32(UBUS_ATTR_STATUS) == UBUS_STATUS_NO_MEMORY);
                (ok ? answered : refused).push_back(answer->seq);
            }
        });
        LoopClient client(socket);
        client.bus()->connection_lost = [](ubus_context *) { uloop_end(); };
        ASSERT_EQ(ubus_add_object(client.bus(), &served.object), 0);
        EXPECT_EQ(invoke(client, 6000), 0);
        EXPECT_THAT(journal, testing::IsEmpty());
        uloop_run();
    }
    EXPECT_EQ(journal.size(), held);
    ASSERT_EQ(answered.size(), held);
    EXPECT_TRUE(std::is_sorted(answered.begin(), answered.end()));
    EXPECT_EQ(answered.back(), held - 1);
    EXPECT_EQ(refused.size(), size_t(calls - held));
}

TEST_F(BusClientTest, BringsItsObjectsBackAndLeavesANameThatWasTaken) {
    BusDaemon bus(socket);
    LoopClient owner(socket);
    TestObject second("second");
    ASSERT_EQ(ubus_add_object(owner.bus(), &served.object), 0);
    ASSERT_EQ(ubus_add_object(owner.bus(), &second.object), 0);
    for (const bool stolen : {false, true, false}) {
        SCOPED_TRACE(stolen);
        bus.kill();
        EXPECT_EQ(ubus_reconnect(owner.bus(), root.path("/nobody").c_str()), UBUS_STATUS_CONNECTION_FAILED);
        bus.start();
        RawPeer thief(socket);
        thief.add_object(stolen ? "served" : "other");
        ASSERT_EQ(ubus_reconnect(owner.bus(), socket.c_str()), 0);
        ubus_add_uloop(owner.bus());
        EXPECT_EQ(served.object.id == 0, stolen);
        EXPECT_EQ(LoopClient(socket).call("second", "note").status, 0);
        if (!stolen) {
            EXPECT_EQ(LoopClient(socket).call("served", "note").status, 0);
        }
    }
}

} // namespace
