// The bus daemon as its clients see it. No client of these tests uses the library: what it would refuse is
// sent, too.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>

#include "bus_daemon.h"
#include "raw_bus.h"
#include "sysroot.h"

namespace {

class UbusdTest : public SysrootTest {
  protected:
    BusDaemon bus{root.path("/var/run/ubus.sock")};
    RawPeer bystander{bus.socket()};
    uint32_t bystander_object = bystander.add_object("bystander");

    // Whatever a test did: another client is served, and its object is where it was.
    void TearDown() override {
        EXPECT_EQ(bystander.ping(), 0);
        EXPECT_EQ(lookup("bystander"), 0);
        SysrootTest::TearDown();
    }
    int lookup(const std::string &path, std::vector<bus_frame> *data = nullptr) {
        bus_builder body;
        bus_put_text(body, UBUS_ATTR_OBJPATH, path);
        bystander.send(message(UBUS_MSG_LOOKUP, 77, 0, std::move(body)));
        return bystander.status(77, data);
    }
    // The daemon handles the end of a client after what others sent before.
    void wait_until_gone(const std::string &path) {
        for (int i = 0; i < 5000 && lookup(path) == 0; i++)
            usleep(1000);
    }
};

std::string padded_ping(size_t attr_len) {
    bus_builder body;
    bus_put(body, UBUS_ATTR_DATA, std::string(attr_len, 'x').data(), attr_len);
    std::string bytes = message(UBUS_MSG_PING, 5, 0, std::move(body));
    return bytes;
}

TEST_F(UbusdTest, GreetsWithRandomIds) {
    RawPeer other(bus.socket());
    EXPECT_GE(bystander.id(), 1024u);
    EXPECT_GE(other.id(), 1024u);
    EXPECT_NE(bystander.id(), other.id());
    EXPECT_GE(bystander_object, 1024u);
}

TEST_F(UbusdTest, ServesSixtyFourClientsThatCallEachOther) {
    constexpr uint16_t count = 64;
    std::vector<RawPeer> peers;
    std::vector<uint32_t> objects;
    for (uint16_t i = 0; i < count; i++) {
        peers.emplace_back(bus.socket());
        objects.push_back(peers.back().add_object("node" + std::to_string(i)));
        ASSERT_NE(objects.back(), 0u);
    }
    for (uint16_t i = 0; i < count; i++)
        ASSERT_TRUE(
            peers[i].send(invoke_message(static_cast<uint16_t>(1000 + i), objects[(i + 1) % count], "m")));
    for (uint16_t i = 0; i < count; i++) {
        uint16_t caller = static_cast<uint16_t>((i + count - 1) % count);
        auto call = peers[i].receive();
        ASSERT_TRUE(call && call->type == UBUS_MSG_INVOKE);
        EXPECT_EQ(call->seq, 1000 + caller);
        EXPECT_EQ(call->peer, peers[caller].id());
        ASSERT_TRUE(peers[i].send(status_message(call->seq, call->peer, objects[i], i)));
    }
    for (uint16_t i = 0; i < count; i++)
        EXPECT_EQ(peers[i].status(static_cast<uint16_t>(1000 + i)), (i + 1) % count);
}

TEST_F(UbusdTest, ForwardsCallsWithTheCallersNamesAndRoutesAnswersByObject) {
    RawPeer caller(bus.socket());
    caller.send(invoke_message(7, bystander_object, "method", 12));
    auto call = bystander.receive();
    ASSERT_TRUE(call);
    EXPECT_EQ(call->type, UBUS_MSG_INVOKE);
    EXPECT_EQ(call->seq, 7);
    EXPECT_EQ(call->peer, caller.id());
    bus_attrs attrs;
    ASSERT_TRUE(bus_attrs_parse(call->attr(), attrs));
    EXPECT_EQ(attrs.u32(UBUS_ATTR_OBJID), bystander_object);
    EXPECT_STREQ(attrs.text(UBUS_ATTR_METHOD), "method");
    EXPECT_STREQ(attrs.text(UBUS_ATTR_USER), getpwuid(getuid())->pw_name);
    EXPECT_STREQ(attrs.text(UBUS_ATTR_GROUP), getgrgid(getgid())->gr_name);
    EXPECT_EQ(blob_len(attrs[UBUS_ATTR_DATA]), 12u);

    // Somebody else's answer in the name of this object goes nowhere.
    RawPeer forger(bus.socket());
    forger.send(status_message(7, caller.id(), bystander_object, 9));
    ASSERT_EQ(forger.ping(), 0);
    bystander.send(status_message(7, caller.id(), bystander_object, 3));
    auto answer = caller.receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->peer, bystander_object);
    bus_attrs_parse(answer->attr(), attrs);
    EXPECT_EQ(attrs.u32(UBUS_ATTR_STATUS), 3u);
}

TEST_F(UbusdTest, EndsConnectionsWithBrokenFrames) {
    std::string one_too_long = padded_ping(UBUS_MAX_MSGLEN - 8);
    one_too_long.replace(8, 4, std::string("\x00\x10\x00\x01", 4));
    const std::pair<const char *, std::string> cases[] = {
        {"text", "GET / HTTP/1.0\r\n\r\n"},
        {"version 1", std::string("\x01\x03\0\1\0\0\0\0\0\0\0\4", 12)},
        {"length below its own header", std::string("\0\x03\0\1\0\0\0\0\0\0\0\3", 12)},
        {"an id other than 0", std::string("\0\x03\0\1\0\0\0\0\1\0\0\4", 12)},
        {"one byte over the limit", one_too_long},
    };
    for (const auto &[name, bytes] : cases) {
        SCOPED_TRACE(name);
        RawPeer peer(bus.socket());
        peer.send(bytes);
        EXPECT_TRUE(peer.closed_by_other());
    }
}

TEST_F(UbusdTest, TakesTheLongestMessage) {
    std::string longest = padded_ping(UBUS_MAX_MSGLEN - 8);
    ASSERT_EQ(longest.size(), 8u + UBUS_MAX_MSGLEN);
    RawPeer peer(bus.socket());
    ASSERT_TRUE(peer.send(longest));
    EXPECT_EQ(peer.status(5), 0);
    // As a call it would grow beyond the limit by the caller's names, and so it does not reach the owner.
    ASSERT_TRUE(peer.send(invoke_message(6, bystander_object, "m", UBUS_MAX_MSGLEN - 24)));
    EXPECT_EQ(peer.status(6), UBUS_STATUS_INVALID_ARGUMENT);
    // One that fits arrives whole.
    ASSERT_TRUE(peer.send(invoke_message(7, bystander_object, "m", UBUS_MAX_MSGLEN - 1024)));
    auto call = bystander.receive();
    ASSERT_TRUE(call);
    bus_attrs attrs;
    ASSERT_TRUE(bus_attrs_parse(call->attr(), attrs));
    EXPECT_EQ(blob_len(attrs[UBUS_ATTR_DATA]), size_t(UBUS_MAX_MSGLEN - 1024));
}

TEST_F(UbusdTest, AnswersBadRequestsWithAStatus) {
    auto with = [](uint8_t type, auto fill) {
        bus_builder body;
        fill(body);
        return message(type, 3, 0, std::move(body));
    };
    auto nothing = [](bus_builder &) {};
    const std::tuple<const char *, std::string, int> cases[] = {
        {"hello from a client", with(UBUS_MSG_HELLO, nothing), UBUS_STATUS_INVALID_COMMAND},
        {"unknown type", with(uint8_t(200), nothing), UBUS_STATUS_INVALID_COMMAND},
        {"subscribe", with(UBUS_MSG_SUBSCRIBE, nothing), UBUS_STATUS_NOT_SUPPORTED},
        {"call without object", with(UBUS_MSG_INVOKE, nothing), UBUS_STATUS_INVALID_ARGUMENT},
        {"call of no object", invoke_message(3, 4711, "m"), UBUS_STATUS_NOT_FOUND},
        {"lookup of no object",
         with(UBUS_MSG_LOOKUP, [](bus_builder &b) { bus_put_text(b, UBUS_ATTR_OBJPATH, "none"); }),
         UBUS_STATUS_NOT_FOUND},
        {"text without its zero",
         with(UBUS_MSG_LOOKUP, [](bus_builder &b) { bus_put(b, UBUS_ATTR_OBJPATH, "bystander", 9); }),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"id of two bytes",
         with(UBUS_MSG_INVOKE, [](bus_builder &b) { bus_put(b, UBUS_ATTR_OBJID, "ab", 2); }),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"attribute beyond the message",
         with(UBUS_MSG_PING,
              [](bus_builder &b) {
                  bus_put_u32(b, UBUS_ATTR_OBJID, 1);
                  b.bytes[15] = 12;
              }),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"name that is taken",
         with(UBUS_MSG_ADD_OBJECT, [](bus_builder &b) { bus_put_text(b, UBUS_ATTR_OBJPATH, "bystander"); }),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"unknown object type",
         with(UBUS_MSG_ADD_OBJECT, [](bus_builder &b) { bus_put_u32(b, UBUS_ATTR_OBJTYPE, 4711); }),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"signature of no tables",
         with(UBUS_MSG_ADD_OBJECT,
              [](bus_builder &b) { bus_put(b, UBUS_ATTR_SIGNATURE, "\x80\0\0\x0cjunkjunk", 12); }),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"removing another's object",
         with(UBUS_MSG_REMOVE_OBJECT,
              [this](bus_builder &b) { bus_put_u32(b, UBUS_ATTR_OBJID, bystander_object); }),
         UBUS_STATUS_PERMISSION_DENIED},
    };
    RawPeer peer(bus.socket());
    for (const auto &[name, bytes, status] : cases) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(peer.send(bytes));
        EXPECT_EQ(peer.status(3), status);
    }
}

TEST_F(UbusdTest, LooksUpInPathOrderWithTypeAndSignature) {
    RawPeer peer(bus.socket());
    for (const char *path : {"net.b", "net", "net.a", "nets", "ne"})
        ASSERT_NE(peer.add_object(path), 0u);
    auto found = [this](const std::string &pattern) {
        std::vector<bus_frame> data;
        std::vector<std::string> paths;
        EXPECT_EQ(lookup(pattern, &data), 0);
        for (auto &frame : data) {
            bus_attrs attrs;
            EXPECT_TRUE(bus_attrs_parse(frame.attr(), attrs));
            EXPECT_TRUE(attrs[UBUS_ATTR_OBJID] && attrs[UBUS_ATTR_OBJTYPE] && attrs[UBUS_ATTR_SIGNATURE]);
            paths.emplace_back(attrs.text(UBUS_ATTR_OBJPATH));
        }
        return paths;
    };
    EXPECT_THAT(found("net"), testing::ElementsAre("net"));
    EXPECT_THAT(found("net.*"), testing::ElementsAre("net.a", "net.b"));
    EXPECT_THAT(found("*"), testing::ElementsAre("bystander", "ne", "net", "net.a", "net.b", "nets"));
}

TEST_F(UbusdTest, DropsAReaderThatNeverReads) {
    RawPeer deaf(bus.socket());
    std::string lookups;
    for (int i = 0; i < 1000; i++)
        lookups += message(UBUS_MSG_LOOKUP, 1, 0);
    bool dropped = false;
    for (int i = 0; i < 500 && !dropped; i++) {
        dropped = !deaf.send(lookups);
        EXPECT_EQ(bystander.ping(), 0);
    }
    EXPECT_TRUE(dropped);
}

TEST_F(UbusdTest, KeepsAnOwnerThatIsBehindAndLosesNothingBelowTheBound) {
    RawPeer caller(bus.socket());
    uint16_t sent = 0;
    std::optional<bus_frame> refusal;
    while (!refusal && sent < 1000) {
        ASSERT_TRUE(caller.send(invoke_message(++sent, bystander_object, "m", 100000)));
        ASSERT_TRUE(caller.send(message(UBUS_MSG_PING, 0xffff, 0)));
        auto answer = caller.receive();
        ASSERT_TRUE(answer);
        if (answer->seq == sent)
            refusal = std::move(answer);
    }
    ASSERT_TRUE(refusal);
    EXPECT_GT(sent, 30); // the bound is not reached by a few calls
    bus_attrs attrs;
    bus_attrs_parse(refusal->attr(), attrs);
    EXPECT_EQ(attrs.u32(UBUS_ATTR_STATUS), uint32_t(UBUS_STATUS_NO_MEMORY));
    for (uint16_t seq = 1; seq < sent; seq++) {
        auto call = bystander.receive();
        ASSERT_TRUE(call);
        ASSERT_EQ(call->seq, seq);
    }
}

TEST_F(UbusdTest, ForgetsAClientThatDiesInTheMiddleOfAFrame) {
    const std::string whole = padded_ping(5000);
    for (size_t cut : {size_t(1), size_t(8), size_t(11), size_t(13), whole.size() - 1}) {
        SCOPED_TRACE(cut);
        RawPeer peer(bus.socket());
        ASSERT_NE(peer.add_object("short.lived"), 0u);
        peer.send(whole.substr(0, cut));
        peer.end();
        wait_until_gone("short.lived");
        EXPECT_EQ(lookup("short.lived"), UBUS_STATUS_NOT_FOUND);
    }
}

TEST_F(UbusdTest, LeavesCallsUnansweredWhenTheirOwnerDies) {
    RawPeer owner(bus.socket());
    RawPeer caller(bus.socket());
    uint32_t object = owner.add_object("owner");
    ASSERT_TRUE(caller.send(invoke_message(9, object, "m")));
    ASSERT_TRUE(owner.receive());
    owner.end();
    wait_until_gone("owner");
    ASSERT_TRUE(caller.send(message(UBUS_MSG_PING, 10, 0)));
    auto answer = caller.receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->seq, 10);
    EXPECT_EQ(RawPeer(bus.socket()).add_object("owner") != 0, true);
}

TEST_F(UbusdTest, ClosesDescriptorsThatComeAlong) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    RawPeer peer(bus.socket());
    peer.send_with_descriptor(message(UBUS_MSG_PING, 2, 0), ends[1]);
    EXPECT_EQ(peer.status(2), 0);
    close(ends[1]);
    pollfd pfd = {ends[0], POLLIN, 0};
    EXPECT_EQ(poll(&pfd, 1, 10000), 1);
    EXPECT_TRUE(pfd.revents & POLLHUP);
    close(ends[0]);
}

TEST_F(UbusdTest, SendsEventsToThoseThatRegisteredForThem) {
    RawPeer listener(bus.socket());
    uint32_t object = listener.add_object("listener");
    auto ask = [&](const char *pattern) {
        BlobBuffer args;
        blobmsg_add_u32(args.get(), "object", object);
        blobmsg_add_string(args.get(), "pattern", pattern);
        bus_builder body;
        bus_put_u32(body, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_EVENT);
        bus_put_text(body, UBUS_ATTR_METHOD, "register");
        bus_put_data(body, UBUS_ATTR_DATA, args.head());
        listener.send(message(UBUS_MSG_INVOKE, 4, UBUS_SYSTEM_OBJECT_EVENT, std::move(body)));
        return listener.status(4);
    };
    ASSERT_EQ(ask("ubus.object.*"), 0);
    ASSERT_EQ(ask("ubus.object.add"), 0);
    {
        RawPeer other(bus.socket());
        other.add_object("other");
    }
    for (const char *name : {"ubus.object.add", "ubus.object.remove"}) {
        auto event = listener.receive();
        ASSERT_TRUE(event);
        bus_attrs attrs;
        ASSERT_TRUE(bus_attrs_parse(event->attr(), attrs));
        EXPECT_STREQ(attrs.text(UBUS_ATTR_METHOD), name);
        EXPECT_EQ(blob_get_u8(attrs[UBUS_ATTR_NO_REPLY]), 1);
    }
}

} // namespace
