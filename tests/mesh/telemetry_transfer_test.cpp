// Answers of the satellites: how a combined reply is taken apart, and what of an answer goes where.
#include "telemetry_pre_collect.h"
#include "telemetry_satellites.h"
#include "telemetry_snapshot.h"
#include "telemetry_transfer.h"

#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_services.h"
#include "sysroot.h"
#include "telemetry_log.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

static void take_text(const cJSON *result, void *user) {
    const TextPtr text(cJSON_PrintUnformatted(result));
    *static_cast<std::string *>(user) += text.get();
}

TEST(Transfer, RepliesAreTakenApart) {
    struct Row {
        std::string reply;
        const char *results;
        std::vector<std::string> messages;
    };
    std::string many;
    for (int i = 0; i < 300; ++i)
        many += i < 255 ? "{\"result\":{}}," : "{\"result\":" + std::to_string(i) + "},";
    many.pop_back();
    const Row rows[] = {
        {R"({"success":1,"data":{"result":{"a":1}}})", R"({"a":1})", {}},
        {R"({"success":2,"data":[{"result":{"a":1}},{"result":{"b":2}}]})", R"({"a":1}{"b":2})", {}},
        {R"({"success":1,"data":[{"result":1}]})", "", {"cJSON_GetObject filed"}},
        {R"({"success":2,"data":[{"result":1},{"no":1}]})", "1", {"cJSON_GetObject filed"}},
        {R"({"success":2,"data":[{"result":1},{"result":2},{"result":3}]})", "12", {}},
        {R"({"success":2000000000,"data":[{"result":1}]})", "1", {"2000000000 answers announced, 1 there"}},
        {R"({"success":2,"data":"text"})", "", {"2 answers announced, 0 there"}},
        {R"({"success":0,"data":{"result":1}})", "", {"cJSON_get_object success failed"}},
        {R"({"success":-1,"data":{"result":1}})", "", {"cJSON_get_object success failed"}},
        {R"({"success":"1","data":{"result":1}})", "", {"cJSON_get_object success failed"}},
        {R"({"data":{"result":1}})", "", {"cJSON_get_object success failed"}},
        {R"({"success":1})", "", {"cJSON_get_object success failed"}},
    };
    std::string results;
    const auto request = [&](const std::string &reply) {
        results.clear();
        fake_services["sync.request"] = {reply};
        return logged_messages([&] {
            EXPECT_EQ(
                telemetry_transfer_request(TELEMETRY_TRANSFER_SYSTEM, true, nullptr, take_text, &results), 0);
        });
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.reply);
        const auto messages = request(row.reply);
        EXPECT_EQ(results, row.results);
        EXPECT_EQ(messages, row.messages);
    }
    EXPECT_THAT(request(R"({"success":300,"data":[)" + many + "]}"),
                ElementsAre("more than 256 nodes answered, the rest is left out"));
    EXPECT_EQ(results.substr(results.size() - 5), "{}255");
    EXPECT_THAT(logged_messages([] { telemetry_transfer_handle_reply(nullptr, take_text, nullptr); }),
                ElementsAre("error callback"));
}

TEST(Transfer, RequestsAndFailedCalls) {
    fake_services["sync.request"] = {R"({"success":0})"};
    fake_service_calls.clear();
    telemetry_transfer_request(TELEMETRY_TRANSFER_AFC, true, nullptr, take_text, nullptr);
    telemetry_get_re_client_sta_list();
    telemetry_collect_re_backhaul_info("192.168.0.1");
    std::vector<std::string> arguments;
    for (const ServiceCall &call : fake_service_calls) {
        arguments.push_back(call.arguments);
        EXPECT_EQ(call.timeout_ms, 50000);
    }
    EXPECT_THAT(arguments,
                ElementsAre(R"({"opcode":50952,"target_type":"RE","include_myself":true,"data":{}})",
                            R"({"opcode":50947,"target_type":"RE","data":{}})",
                            R"({"opcode":50946,"target_type":"RE","include_myself":true,)"
                            R"("data":{"params":{"ip_ap_addr":"192.168.0.1"}}})"));
    EXPECT_THAT(logged_messages([] { EXPECT_EQ(telemetry_collect_re_backhaul_info(nullptr), -1); }),
                ElementsAre("invalid input"));
    for (const auto &[error, message] : {std::pair{TELEMETRY_BUS_NO_CONNECTION, "ubus connect failed"},
                                         {TELEMETRY_BUS_NO_OBJECT, "ubus invoke failed."},
                                         {TELEMETRY_BUS_CALL_FAILED, "ubus invoke failed."}}) {
        fake_services["sync.request"].error = error;
        EXPECT_THAT(logged_messages([] { EXPECT_EQ(telemetry_get_re_client_sta_list(), -1); }),
                    ElementsAre(message));
    }
}

// Three nodes, of which the last two have the same address.
class ApplyTest : public ::testing::Test {
  protected:
    ApplyTest() {
        telemetry_init_device_info_list(3);
        for (int i = 0; i < 3; ++i)
            snprintf(device(i).mac, sizeof(device(i).mac), "02-00-00-01-00-%02X", i < 2 ? i + 1 : 2);
    }
    ~ApplyTest() override {
        telemetry_free_pre_collect_info();
    }
    static MeshDeviceInfo &device(int index) {
        return telemetry_get_device_info_list()[index];
    }
    static std::vector<std::string> apply(const std::string &result) {
        const JsonPtr tree(cJSON_Parse(result.c_str()));
        return logged_messages([&] { telemetry_apply_re_backhaul_result(tree.get()); });
    }
};

TEST_F(ApplyTest, EveryMemberHasItsField) {
    EXPECT_THAT(
        apply(R"({"wired_port_used_num":3,"port_info":[{"port_num":1,"port_speed":2500},{"port_num":4},7],
        "parent_mac":"02:00:00:01:00:01","ping_delay":"1.600000","hw_version":"2.0","backhaul_info":[{},
        {"backhaul_type":"5G","backhaul_rssi":40,"backhaul_txrate":-1,"backhaul_rxrate":1441,
        "backhaul_channel":149,"backhaul_channle_util":31},"x"],"mac":"02:00:00:01:00:02","err_code":-1})"),
        IsEmpty());
    const MeshDeviceInfo &node = device(1);
    EXPECT_EQ(node.wire_port_num, 3);
    EXPECT_STREQ(node.parent_mac, "02-00-00-01-00-01");
    EXPECT_STREQ(node.ping_delay, "1.600000");
    EXPECT_STREQ(node.hw_version, "2.0");
    EXPECT_EQ(node.wired_ports[0].speed, 2500);
    EXPECT_EQ(node.wired_ports[1].port, 4);
    EXPECT_EQ(node.band_num, 3);
    const BackhaulInfo &link = node.backhaul[1];
    EXPECT_STREQ(link.backhaul_type, "5G");
    EXPECT_EQ(link.rssi, 40);
    EXPECT_EQ(link.stats->tx, 65535); // 16 bits come as a signed number
    EXPECT_EQ(link.stats->rx, 1441);
    EXPECT_EQ(link.channel, 149);
    EXPECT_EQ(link.chan_util, 31);
    // A second answer changes what it holds and keeps the rest; a correctly spelt key is none.
    apply(
        R"({"mac":"02-00-00-01-00-02","backhaul_info":[{},{"backhaul_channel_util":99}],"port_info":{"a":{}}})");
    EXPECT_EQ(node.band_num, 2);
    EXPECT_EQ(link.chan_util, 31);
    EXPECT_EQ(node.wire_port_num, 3);
}

TEST_F(ApplyTest, AnswersGoToTheFirstNodeWhoseMacBeginsWithTheirs) {
    const std::pair<const char *, int> rows[] = {
        // -1: nobody's
        {R"("02:00:00:01:00:02")", 1},
        {R"("0200.0001")", -1},
        {R"("02:00:00:01:00:02:ff:ff")", 1},
        {R"("02")", 0},
        {R"("02000001000")", 0},
        {R"("")", -1},
        {"2", -1},
        {R"("02:00:00:01:00:09")", -1},
        {"null", -1},
    };
    for (const auto &[mac, owner] : rows) {
        SCOPED_TRACE(mac);
        for (int i = 0; i < 3; ++i)
            device(i).wire_port_num = -1;
        apply(std::string(R"({"wired_port_used_num":7,"mac":)") + mac + "}");
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(device(i).wire_port_num, i == owner ? 7 : -1) << i;
    }
    for (const char *result : {"7", "[]", "\"text\"", "null", "{}", R"([{"mac":"02:00:00:01:00:02"}])"})
        EXPECT_THAT(apply(result), IsEmpty()) << result;
}

TEST_F(ApplyTest, MoreThanThereIsRoomForIsCut) {
    const std::string text(500, 'x');
    std::string ports = R"({"port_num":1,"port_speed":1e30})", links = R"({"backhaul_type":")" + text + "\"}";
    for (int i = 2; i <= 40; ++i) {
        ports += R"(,{"port_num":)" + std::to_string(i) + "}";
        links += R"(,{"backhaul_channel":)" + std::to_string(i) + "}";
    }
    EXPECT_THAT(apply(R"({"mac":"02:00:00:01:00:01","port_info":[)" + ports + R"(],"backhaul_info":[)" +
                      links + R"(],"ping_delay":")" + text + R"(","hw_version":")" + text +
                      R"(","parent_mac":")" + text + "\"}"),
                ElementsAre("ping_delay is longer than 127 characters, cut",
                            "hw_version is longer than 64 characters, cut",
                            "port_info has more than 16 ports, cut",
                            "backhaul_type is longer than 22 characters, cut",
                            "backhaul_info has more than 4 links, cut"));
    const MeshDeviceInfo &node = device(0);
    EXPECT_EQ(node.wired_ports[15].port, 16);
    EXPECT_EQ(node.band_num, 4);
    EXPECT_EQ(node.backhaul[3].channel, 4);
    EXPECT_EQ(node.backhaul[0].backhaul_type, text.substr(0, 22));
    EXPECT_EQ(node.hw_version, text.substr(0, 64));
    EXPECT_EQ(node.ping_delay, text.substr(0, 127));
    EXPECT_STREQ(node.parent_mac, "XX-XX-XX-XX-XX-XX");
    EXPECT_STREQ(device(1).mac, "02-00-00-01-00-02");
}

TEST(ClientResult, RatesGoToTheFirstClientOfTheAddress) {
    const auto parse = [](const char *result) {
        const JsonPtr tree(cJSON_Parse(result));
        return logged_messages([&] { parseClientStaInfoMsg(tree.get()); });
    };
    EXPECT_THAT(parse("{}"), ElementsAre("client info is NULL"));
    PreCollectInfo *info = &telemetry_pre_collect;
    info->clients = static_cast<PreClientInfo *>(calloc(3, sizeof(PreClientInfo)));
    info->client_num = 3;
    for (int i = 0; i < 3; ++i)
        snprintf(info->clients[i].mac, sizeof(info->clients[i].mac), "02-00-00-02-00-%02X",
                 i < 2 ? i + 1 : 2);
    EXPECT_THAT(parse(R"({"client_sta_list":[{"mac_addr":"02:00:00:02:00:02","pymode":6,"ng_rxrate":780,
        "ng_txrate":866},{}, 5, {"mac_addr":7,"pymode":1}, {"pymode":1}, {"mac_addr":"","pymode":1},
        {"mac_addr":"02:00:00:02:00:09","pymode":1}, {"mac_addr":"02:00:00:02:00:01","ng_txrate":"fast"}]})"),
                ElementsAre("pItem is NULL")); // once for all of them
    for (const char *other : {"7", "{}", R"({"client_sta_list":{"a":{"mac_addr":"02","pymode":1}}})", "null"})
        EXPECT_THAT(parse(other), IsEmpty()) << other;
    EXPECT_EQ(info->clients[1].phymode, 6u);
    EXPECT_EQ(info->clients[1].rxrate, 780u);
    EXPECT_EQ(info->clients[1].txrate, 866u);
    EXPECT_EQ(info->clients[0].phymode, 0u);
    EXPECT_EQ(info->clients[2].phymode, 0u);
    telemetry_free_pre_collect_info();
}
