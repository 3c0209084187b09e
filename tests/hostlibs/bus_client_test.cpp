// The bus client against the real daemon, and against buses that do everything wrong.
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

int never_answer(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *) {
    ubus_request_data forgotten;
    ubus_defer_request(ctx, req, &forgotten);
    return UBUS_STATUS_OK;
}

const blobmsg_policy echo_policy[] = {{"text", BLOBMSG_TYPE_STRING}, {"number", BLOBMSG_TYPE_INT32}};
const ubus_method methods[] = {
    UBUS_METHOD("echo", note_call, echo_policy), UBUS_METHOD_NOARG("fail", note_call),
    UBUS_METHOD_NOARG("note", note_call),        UBUS_METHOD_NOARG("defer", defer_call),
    UBUS_METHOD_NOARG("never", never_answer),
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
    void run_loop(int turns = 20) {
        for (int i = 0; i < turns; i++)
            uloop_run_timeout(1);
    }
    const std::string socket = root.path("/var/run/ubus.sock");
    TestObject served{"served"};
};

TEST_F(BusClientTest, RefusesBusesThatDoNotGreetProperly) {
    bus_builder oversized;
    bus_put(oversized, UBUS_ATTR_DATA, std::string(100, 'x').data(), 100);
    std::string too_long = message(UBUS_MSG_HELLO, 0, 5000, std::move(oversized));
    too_long.replace(8, 4, std::string("\x00\x10\x00\x01", 4));
    const std::pair<const char *, std::string> cases[] = {
        {"closed at once", ""},
        {"garbage", "HTTP/1.0 400 Bad Request\r\n\r\n"},
        {"zero bytes", std::string(64, '\0')},
        {"another message first", message(UBUS_MSG_STATUS, 0, 5000)},
        {"without an id", message(UBUS_MSG_HELLO, 0, 0)},
        {"longer than allowed", too_long},
    };
    EXPECT_EQ(ubus_connect(socket.c_str()), nullptr) << "nobody there";
    EXPECT_EQ(ubus_connect(std::string(200, 'x').c_str()), nullptr);
    const size_t before = open_descriptors();
    for (const auto &[name, bytes] : cases) {
        SCOPED_TRACE(name);
        FakeBus bus(socket, 1, [&bytes = bytes](RawPeer &peer) {
            if (bytes.empty())
                return;
            peer.send(bytes);
            // Only the client closes: it does not wait for more.
            peer.closed_by_other();
        });
        EXPECT_EQ(ubus_connect(socket.c_str()), nullptr);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(BusClientTest, GivesUpOnABusThatNeverGreets) {
    // Part of a greeting and nothing more; ends only because the client goes away.
    FakeBus bus(socket, 1, [](RawPeer &peer) {
        peer.send(message(UBUS_MSG_HELLO, 0, 5000).substr(0, 11));
        peer.closed_by_other();
    });
    EXPECT_EQ(ubus_connect(socket.c_str()), nullptr);
}

TEST_F(BusClientTest, CallsMethodsAndTellsHowTheyEnded) {
    BusDaemon bus(socket);
    LoopClient owner(socket);
    LoopClient caller(socket);
    ASSERT_EQ(ubus_add_object(owner.bus(), &served.object), 0);
    EXPECT_EQ(ubus_add_object(owner.bus(), &served.object), UBUS_STATUS_INVALID_ARGUMENT);
    TestObject twin("served");
    EXPECT_EQ(ubus_add_object(caller.bus(), &twin.object), UBUS_STATUS_INVALID_ARGUMENT);

    BusReply reply = caller.call("served", "echo", R"({"text":"a","number":1})");
    EXPECT_EQ(reply.status, 0);
    EXPECT_EQ(reply.json, R"({"text":"a","number":1})");
    EXPECT_EQ(caller.call("served", "note").status, 0);
    EXPECT_EQ(caller.call("served", "fail").status, UBUS_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(caller.call("served", "defer").status, UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(caller.call("served", "nothing").status, UBUS_STATUS_METHOD_NOT_FOUND);
    EXPECT_EQ(caller.call("missing", "echo").status, UBUS_STATUS_NOT_FOUND);

    std::string long_text = R"({"text":")" + std::string(900000, 'x') + R"("})";
    reply = caller.call("served", "echo", long_text);
    EXPECT_EQ(reply.status, 0);
    EXPECT_EQ(reply.json, long_text);

    // A call without any data attribute cannot come from the library.
    RawPeer raw(socket);
    bus_builder body;
    bus_put_u32(body, UBUS_ATTR_OBJID, served.object.id);
    bus_put_text(body, UBUS_ATTR_METHOD, "echo");
    raw.send(message(UBUS_MSG_INVOKE, 3, 0, std::move(body)));
    run_loop();
    EXPECT_EQ(raw.status(3), UBUS_STATUS_INVALID_ARGUMENT);

    ASSERT_EQ(ubus_remove_object(owner.bus(), &served.object), 0);
    EXPECT_EQ(caller.call("served", "note").status, UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(ubus_add_object(owner.bus(), &served.object), 0);
    EXPECT_EQ(caller.call("served", "note").status, 0);
}

TEST_F(BusClientTest, RefusesToSendWhatTheBusWouldNotTake) {
    BusDaemon bus(socket);
    LoopClient client(socket);
    BlobBuffer big;
    blobmsg_add_string(big.get(), "text", std::string(UBUS_MAX_MSGLEN, 'x').c_str());
    EXPECT_EQ(ubus_invoke(client.bus(), 5000, "m", big.head(), nullptr, nullptr, 1000),
              UBUS_STATUS_INVALID_ARGUMENT);
    uint32_t id;
    EXPECT_EQ(ubus_lookup_id(client.bus(), "none", &id), UBUS_STATUS_NOT_FOUND);
}

TEST_F(BusClientTest, EndsABlockingCallByTimeoutAndByEndOfBus) {
    BusDaemon bus(socket);
    LoopClient client(socket);
    RawPeer deaf(socket);
    uint32_t object = deaf.add_object("deaf");
    BlobBuffer none;
    EXPECT_EQ(ubus_invoke(client.bus(), object, "m", none.head(), nullptr, nullptr, 20), UBUS_STATUS_TIMEOUT);
    // The late answer belongs to nobody and disturbs nobody.
    auto call = deaf.receive();
    ASSERT_TRUE(call);
    deaf.send(status_message(call->seq, call->peer, object, 0));
    EXPECT_EQ(ubus_invoke(client.bus(), object, "m", none.head(), nullptr, nullptr, 20), UBUS_STATUS_TIMEOUT);

    std::thread killer([&] {
        deaf.receive();
        deaf.receive();
        bus.kill();
    });
    EXPECT_EQ(ubus_invoke(client.bus(), object, "m", none.head(), nullptr, nullptr, 0),
              UBUS_STATUS_CONNECTION_FAILED);
    killer.join();
    EXPECT_EQ(ubus_invoke(client.bus(), object, "m", none.head(), nullptr, nullptr, 0),
              UBUS_STATUS_CONNECTION_FAILED);
}

TEST_F(BusClientTest, EndsWaitingRequestsAndReportsTheLossOnce) {
    BusDaemon bus(socket);
    LoopClient client(socket);
    RawPeer deaf(socket);
    uint32_t object = deaf.add_object("deaf");
    client.bus()->connection_lost = [](ubus_context *) { journal.push_back("lost"); };
    ubus_request req;
    BlobBuffer none;
    ASSERT_EQ(ubus_invoke_async(client.bus(), object, "m", none.head(), &req), 0);
    req.complete_cb = [](ubus_request *, int status) { journal.push_back(std::to_string(status)); };
    ubus_complete_request_async(client.bus(), &req);
    bus.kill();
    uint32_t id;
    EXPECT_EQ(ubus_lookup_id(client.bus(), "x", &id), UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_THAT(journal, testing::IsEmpty()) << "a blocking call runs no callbacks of the loop";
    run_loop();
    EXPECT_THAT(journal, testing::ElementsAre("7", "lost"));
}

TEST_F(BusClientTest, HoldsCallsThatArriveDuringABlockingOne) {
    // Our object is called twice before our own request is answered, in one burst.
    constexpr uint32_t object = 7000;
    std::vector<bus_frame> answers;
    FakeBus bus(socket, 1, [&](RawPeer &peer) {
        peer.send(message(UBUS_MSG_HELLO, 0, 5000));
        auto add = peer.receive();
        bus_builder ids;
        bus_put_u32(ids, UBUS_ATTR_OBJID, object);
        bus_put_u32(ids, UBUS_ATTR_OBJTYPE, 7001);
        peer.send(message(UBUS_MSG_DATA, add->seq, 0, std::move(ids)) +
                  status_message(add->seq, 0, object, 0));
        auto call = peer.receive();
        peer.send(invoke_message(1, object, "note") + invoke_message(2, object, "fail") +
                  status_message(call->seq, call->peer, 6000, 0));
        for (int i = 0; i < 2; i++)
            answers.push_back(*peer.receive());
    });
    {
        LoopClient client(socket);
        client.bus()->connection_lost = [](ubus_context *) {};
        ASSERT_EQ(ubus_add_object(client.bus(), &served.object), 0);
        BlobBuffer none;
        EXPECT_EQ(ubus_invoke(client.bus(), 6000, "m", none.head(), nullptr, nullptr, 10000), 0);
        EXPECT_THAT(journal, testing::IsEmpty());
        run_loop();
        EXPECT_THAT(journal, testing::ElementsAre("note", "fail"));
    }
    while (answers.size() < 2)
        usleep(1000);
    EXPECT_EQ(answers[0].seq, 1);
    EXPECT_EQ(answers[1].seq, 2);
    EXPECT_EQ(answers[1].type, UBUS_MSG_STATUS);
}

TEST_F(BusClientTest, RefusesCallsBeyondWhatItCanHold) {
    constexpr uint32_t object = 7000;
    constexpr uint16_t calls = 1100;
    int served_calls = 0, refused = 0;
    {
        FakeBus bus(socket, 1, [&](RawPeer &peer) {
            peer.send(message(UBUS_MSG_HELLO, 0, 5000));
            auto call = peer.receive();
            std::string burst;
            for (uint16_t i = 0; i < calls; i++)
                burst += invoke_message(i, object, "note");
            peer.send(burst + status_message(call->seq, call->peer, 6000, 0));
            for (int i = 0; i < calls; i++) {
                auto answer = peer.receive();
                bus_attrs attrs;
                bus_attrs_parse(answer->attr(), attrs);
                (attrs.u32(UBUS_ATTR_STATUS) == UBUS_STATUS_NO_MEMORY ? refused : served_calls)++;
            }
        });
        LoopClient client(socket);
        client.bus()->connection_lost = [](ubus_context *) { uloop_end(); };
        BlobBuffer none;
        EXPECT_EQ(ubus_invoke(client.bus(), 6000, "m", none.head(), nullptr, nullptr, 10000), 0);
        uloop_run();
    }
    EXPECT_EQ(served_calls, 1024);
    EXPECT_EQ(refused, calls - 1024);
}

TEST_F(BusClientTest, EndsTheConnectionOfABusThatTurnsToGarbage) {
    bus_builder bad_status;
    bus_put(bad_status, UBUS_ATTR_STATUS, "ab", 2);
    bus_builder cut_data;
    bus_put_u32(cut_data, UBUS_ATTR_OBJID, 1);
    cut_data.bytes[15] = 100;
    const std::tuple<const char *, std::string, int> cases[] = {
        {"text", "garbage garbage garbage", UBUS_STATUS_CONNECTION_FAILED},
        {"status of two bytes", message(UBUS_MSG_STATUS, 1, 6000, std::move(bad_status)),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"attribute beyond the message, then the end", message(UBUS_MSG_DATA, 1, 6000, std::move(cut_data)),
         UBUS_STATUS_CONNECTION_FAILED},
        {"half a message, then the end", message(UBUS_MSG_STATUS, 1, 6000).substr(0, 10),
         UBUS_STATUS_CONNECTION_FAILED},
    };
    for (const auto &[name, bytes, status] : cases) {
        SCOPED_TRACE(name);
        FakeBus bus(socket, 1, [&bytes = bytes](RawPeer &peer) {
            peer.send(message(UBUS_MSG_HELLO, 0, 5000));
            peer.receive();
            peer.send(bytes);
        });
        LoopClient client(socket);
        client.bus()->request_seq = 0;
        BlobBuffer none;
        EXPECT_EQ(ubus_invoke(client.bus(), 6000, "m", none.head(), nullptr, nullptr, 10000), status);
    }
}

TEST_F(BusClientTest, ClosesDescriptorsThatComeAlong) {
    const size_t before = open_descriptors();
    {
        FakeBus bus(socket, 1, [](RawPeer &peer) {
            peer.send_with_descriptor(message(UBUS_MSG_HELLO, 0, 5000), 0);
            auto request = peer.receive();
            peer.send_with_descriptor(status_message(request->seq, request->peer, 6000, 0), 0);
            peer.closed_by_other();
        });
        LoopClient client(socket);
        BlobBuffer none;
        const size_t connected = open_descriptors();
        EXPECT_EQ(ubus_invoke(client.bus(), 6000, "m", none.head(), nullptr, nullptr, 10000), 0);
        EXPECT_EQ(open_descriptors(), connected);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(BusClientTest, KeepsItsObjectsOverTwoHundredReconnects) {
    BusDaemon bus(socket);
    LoopClient owner(socket);
    owner.bus()->connection_lost = [](ubus_context *ctx) {
        journal.push_back("lost");
        EXPECT_EQ(ubus_reconnect(ctx, test_sysroot().path("/nobody").c_str()), UBUS_STATUS_CONNECTION_FAILED);
    };
    TestObject second("second");
    ASSERT_EQ(ubus_add_object(owner.bus(), &served.object), 0);
    ASSERT_EQ(ubus_add_object(owner.bus(), &second.object), 0);
    const size_t before = open_descriptors();
    for (int round = 0; round < 200; round++) {
        bus.kill();
        journal.clear();
        while (journal.empty())
            uloop_run_timeout(10);
        bus.start();
        ASSERT_EQ(ubus_reconnect(owner.bus(), socket.c_str()), 0);
        ubus_add_uloop(owner.bus());
        LoopClient caller(socket);
        ASSERT_EQ(caller.call("served", "note").status, 0);
        ASSERT_EQ(caller.call("second", "note").status, 0);
    }
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_THAT(journal, testing::ElementsAre("lost", "note", "note"));

    // A name that somebody else took meanwhile stays away; the rest is served, and the next time it comes
    // back.
    bus.kill();
    bus.start();
    {
        RawPeer thief(socket);
        thief.add_object("served");
        ASSERT_EQ(ubus_reconnect(owner.bus(), socket.c_str()), 0);
        ubus_add_uloop(owner.bus());
        EXPECT_EQ(served.object.id, 0u);
        EXPECT_EQ(LoopClient(socket).call("second", "note").status, 0);
    }
    while (RawPeer(socket).add_object("served") == 0)
        usleep(1000);
    ASSERT_EQ(ubus_reconnect(owner.bus(), socket.c_str()), 0);
    EXPECT_NE(served.object.id, 0u);
}

} // namespace
