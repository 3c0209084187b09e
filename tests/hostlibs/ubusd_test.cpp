// The bus daemon as its clients see it. No client of these tests uses the library: what it would refuse is
// sent, too.
#include <deque>

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
    RawPeer peer{bus.socket()};

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
    void expect_gone(const std::string &path) {
        for (int i = 0; i < 5000 && lookup(path) == 0; i++)
            usleep(1000);
        EXPECT_EQ(lookup(path), UBUS_STATUS_NOT_FOUND);
    }
};

// A request with one attribute.
std::string request(uint8_t type, uint16_t seq, int id, const std::string &data) {
    bus_builder body;
    bus_put(body, id, data.data(), data.size());
    return message(type, seq, 0, std::move(body));
}

std::string padded_ping(size_t attr_len) {
    return request(UBUS_MSG_PING, 5, UBUS_ATTR_DATA, std::string(attr_len, 'x'));
}

TEST_F(UbusdTest, ForwardsCallsWithTheCallersNamesAndRoutesAnswersByObject) {
    peer.send(invoke_message(7, bystander_object, "method", 12));
    auto call = bystander.receive();
    ASSERT_TRUE(call);
    bus_attrs attrs;
    ASSERT_TRUE(bus_attrs_parse(call->attr(), attrs));
    EXPECT_EQ(attrs.u32(UBUS_ATTR_OBJID), bystander_object);
    EXPECT_STREQ(attrs.text(UBUS_ATTR_METHOD), "method");
    EXPECT_STREQ(attrs.text(UBUS_ATTR_USER), getpwuid(getuid())->pw_name);
    EXPECT_STREQ(attrs.text(UBUS_ATTR_GROUP), getgrgid(getgid())->gr_name);
    EXPECT_EQ(blob_len(attrs[UBUS_ATTR_DATA]), 12u);

    // Somebody else's answer in the name of this object goes nowhere.
    RawPeer forger(bus.socket());
    forger.send(status_message(7, peer.id(), bystander_object, 9));
    ASSERT_EQ(forger.ping(), 0);
    bystander.send(status_message(7, peer.id(), bystander_object, 3));
    auto answer = peer.receive();
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
        RawPeer broken(bus.socket());
        broken.send(bytes);
        EXPECT_TRUE(broken.closed_by_other());
    }
}

TEST_F(UbusdTest, TakesTheLongestMessage) {
    const std::string longest = padded_ping(UBUS_MAX_MSGLEN - 8);
    ASSERT_EQ(longest.size(), 8u + UBUS_MAX_MSGLEN);
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
    const std::string unknown_id("\0\0\x12\x67", 4);
    const uint32_t id = htobe32(bystander_object);
    const std::string bystander_id(reinterpret_cast<const char *>(&id), 4);
    std::string beyond = request(UBUS_MSG_PING, 3, UBUS_ATTR_OBJID, unknown_id);
    beyond[15] = 12;
    const std::tuple<const char *, std::string, int> cases[] = {
        {"hello from a client", message(UBUS_MSG_HELLO, 3, 0), UBUS_STATUS_INVALID_COMMAND},
        {"unknown type", message(200, 3, 0), UBUS_STATUS_INVALID_COMMAND},
        {"subscription without objects", message(UBUS_MSG_SUBSCRIBE, 3, 0), UBUS_STATUS_INVALID_ARGUMENT},
        {"call without object", message(UBUS_MSG_INVOKE, 3, 0), UBUS_STATUS_INVALID_ARGUMENT},
        {"call of no object", invoke_message(3, 4711, "m"), UBUS_STATUS_NOT_FOUND},
        {"text without its zero", request(UBUS_MSG_LOOKUP, 3, UBUS_ATTR_OBJPATH, "bystander"),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"id of two bytes", request(UBUS_MSG_INVOKE, 3, UBUS_ATTR_OBJID, "ab"), UBUS_STATUS_INVALID_ARGUMENT},
        {"attribute beyond the message", beyond, UBUS_STATUS_INVALID_ARGUMENT},
        {"name that is taken",
         request(UBUS_MSG_ADD_OBJECT, 3, UBUS_ATTR_OBJPATH, std::string("bystander", 10)),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"unknown object type", request(UBUS_MSG_ADD_OBJECT, 3, UBUS_ATTR_OBJTYPE, unknown_id),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"signature of no tables",
         request(UBUS_MSG_ADD_OBJECT, 3, UBUS_ATTR_SIGNATURE, std::string("\x80\0\0\x0cjunkjunk", 12)),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"removing another's object", request(UBUS_MSG_REMOVE_OBJECT, 3, UBUS_ATTR_OBJID, bystander_id),
         UBUS_STATUS_PERMISSION_DENIED},
    };
    for (const auto &[name, bytes, status] : cases) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(peer.send(bytes));
        EXPECT_EQ(peer.status(3), status);
    }
}

TEST_F(UbusdTest, DropsAReaderThatNeverReads) {
    std::string lookups;
    for (int i = 0; i < 1000; i++)
        lookups += message(UBUS_MSG_LOOKUP, 1, 0);
    bool dropped = false;
    for (int i = 0; i < 500 && !dropped; i++) {
        dropped = !peer.send(lookups);
        EXPECT_EQ(bystander.ping(), 0);
    }
    EXPECT_TRUE(dropped);
}

TEST_F(UbusdTest, KeepsAnOwnerThatIsBehindAndLosesNothingBelowTheBound) {
    uint16_t sent = 0;
    std::optional<bus_frame> refusal;
    while (!refusal && sent < 1000) {
        ASSERT_TRUE(peer.send(invoke_message(++sent, bystander_object, "m", 100000)));
        ASSERT_TRUE(peer.send(message(UBUS_MSG_PING, 0xffff, 0)));
        auto answer = peer.receive();
        ASSERT_TRUE(answer);
        if (answer->seq == sent)
            refusal = std::move(answer);
        else
            ASSERT_EQ(peer.status(0xffff), 0);
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
    for (const size_t cut : {size_t(1), size_t(8), size_t(11), size_t(13), whole.size() - 1}) {
        SCOPED_TRACE(cut);
        {
            RawPeer mortal(bus.socket());
            ASSERT_NE(mortal.add_object("short.lived"), 0u);
            mortal.send(whole.substr(0, cut));
        }
        expect_gone("short.lived");
    }
}

} // namespace
