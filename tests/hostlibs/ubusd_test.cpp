// The bus daemon without sockets: what clients send that the library would refuse, and what becomes of it.
#include <cstring>
#include <optional>

#include <gtest/gtest.h>

#include "../../hostlibs/ubusd/ubusd.h"

namespace {

std::string message(uint8_t type, uint16_t seq, uint32_t peer, bus_builder body = {}) {
    bus_finish(body, type, seq, peer);
    return std::string(body.bytes.begin(), body.bytes.end());
}

// A request with one attribute.
std::string request(uint8_t type, uint16_t seq, int id, const std::string &data) {
    bus_builder body;
    bus_put(body, id, data.data(), data.size());
    return message(type, seq, 0, body);
}

std::string call_of(uint16_t seq, uint32_t object) {
    bus_builder body;
    bus_put_u32(body, UBUS_ATTR_OBJID, object);
    bus_put_text(body, UBUS_ATTR_METHOD, "method");
    bus_put(body, UBUS_ATTR_DATA, "", 0);
    return message(UBUS_MSG_INVOKE, seq, object, body);
}

std::string answer_to(uint16_t seq, uint32_t peer, uint32_t object, uint32_t status) {
    bus_builder body;
    bus_put_u32(body, UBUS_ATTR_STATUS, status);
    bus_put_u32(body, UBUS_ATTR_OBJID, object);
    return message(UBUS_MSG_STATUS, seq, peer, body);
}

class UbusdTest : public testing::Test {
  protected:
    UbusdTest() {
        ubusd_client_input(owner,
                           request(UBUS_MSG_ADD_OBJECT, 1, UBUS_ATTR_OBJPATH, std::string("owned", 6)));
        object = owner.objects.at(0);
        owner.queue.clear();
        peer.queue.clear();
    }
    // Whatever a test did, the owner and its object are where they were.
    ~UbusdTest() override {
        EXPECT_FALSE(owner.doomed);
        EXPECT_EQ(server.paths.count("owned"), 1u);
        ubusd_stop(server);
    }
    // The last message to a client: its status, -1 when it is none.
    static int last_status(ubusd_client &client) {
        if (client.queue.empty())
            return -1;
        bus_reader reader;
        bus_frame frame;
        bus_attrs attrs;
        std::string_view in(client.queue.back().data(), client.queue.back().size());
        EXPECT_EQ(bus_reader_take(reader, in, frame), bus_read::message);
        EXPECT_TRUE(bus_attrs_parse(frame.attr(), attrs));
        return frame.type == UBUS_MSG_STATUS ? static_cast<int>(attrs.u32(UBUS_ATTR_STATUS)) : -1;
    }
    ubusd_server server;
    ubusd_client &owner = *ubusd_client_add(server, -1), &peer = *ubusd_client_add(server, -1);
    uint32_t object = 0;
};

TEST_F(UbusdTest, OnlyTheOwnersAnswerReachesTheCaller) {
    ubusd_client_input(peer, call_of(7, object));
    ASSERT_EQ(owner.queue.size(), 1u);
    EXPECT_NE(std::string(owner.queue[0].begin(), owner.queue[0].end()).find("method"), std::string::npos);
    ubusd_client &forger = *ubusd_client_add(server, -1);
    ubusd_client_input(forger, answer_to(7, peer.id, object, 9));
    EXPECT_TRUE(peer.queue.empty());
    ubusd_client_input(owner, answer_to(7, peer.id, object, 3));
    EXPECT_EQ(last_status(peer), 3);
}

TEST_F(UbusdTest, BadRequestsGetAStatus) {
    const std::string unknown_id("\0\0\x12\x67", 4);
    const uint32_t id = htobe32(object);
    std::string beyond = request(UBUS_MSG_PING, 3, UBUS_ATTR_OBJID, unknown_id);
    beyond[15] = 12;
    const std::tuple<const char *, std::string, int> cases[] = {
        {"call without object", message(UBUS_MSG_INVOKE, 3, 0), UBUS_STATUS_INVALID_ARGUMENT},
        {"call of no object", call_of(3, 4711), UBUS_STATUS_NOT_FOUND},
        {"text without its zero", request(UBUS_MSG_LOOKUP, 3, UBUS_ATTR_OBJPATH, "owned"),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"text of two", request(UBUS_MSG_LOOKUP, 3, UBUS_ATTR_OBJPATH, std::string("owned\0x", 8)),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"id of two bytes", request(UBUS_MSG_INVOKE, 3, UBUS_ATTR_OBJID, "ab"), UBUS_STATUS_INVALID_ARGUMENT},
        {"attribute beyond the message", beyond, UBUS_STATUS_INVALID_ARGUMENT},
        {"name that is taken", request(UBUS_MSG_ADD_OBJECT, 3, UBUS_ATTR_OBJPATH, std::string("owned", 6)),
         UBUS_STATUS_INVALID_ARGUMENT},
        {"removing another's object",
         request(UBUS_MSG_REMOVE_OBJECT, 3, UBUS_ATTR_OBJID,
                 std::string(reinterpret_cast<const char *>(&id), 4)),
         UBUS_STATUS_PERMISSION_DENIED},
    };
    for (const auto &[name, bytes, status] : cases) {
        ubusd_client_input(peer, bytes);
        EXPECT_EQ(last_status(peer), status) << name;
    }
}

TEST_F(UbusdTest, AReaderThatNeverReadsIsDroppedAtItsBound) {
    for (int i = 0; i < 1000000 && !peer.doomed; i++)
        ubusd_client_input(peer, message(UBUS_MSG_LOOKUP, 1, 0));
    EXPECT_TRUE(peer.doomed);
    EXPECT_LE(peer.queue_bytes, ubusd_max_queue + UBUS_MAX_MSGLEN);
}

} // namespace
