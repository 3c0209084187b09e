// Answers of the satellites: how a combined reply is taken apart, and what of an answer goes where.
#include "telemetry_pre_collect.h"

#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_services.h"
#include "sysroot.h"
#include "telemetry_log.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

static void take_text(const cJSON *result, void *user) {
    const TextPtr text(cJSON_PrintUnformatted(result));
    static_cast<std::vector<std::string> *>(user)->push_back(text.get());
}

TEST(Transfer, RepliesAreTakenApart) {
    struct Row {
        const char *reply;
        std::vector<std::string> results, messages;
    };
    const Row rows[] = {
        {R"({"success":1,"data":{"result":{"a":1}}})", {R"({"a":1})"}, {}},
        {R"({"success":2,"data":[{"result":{"a":1}},{"result":{"b":2}}]})", {R"({"a":1})", R"({"b":2})"}, {}},
        {R"({"success":1,"data":[{"result":{"a":1}}]})", {}, {"cJSON_GetObject filed"}},
        {R"({"success":2,"data":[{"result":{"a":1}},{"no":1}]})", {R"({"a":1})"}, {"cJSON_GetObject filed"}},
        {R"({"success":2,"data":[{"result":{"a":1}},{"result":{"b":1}},{"result":{"c":1}}]})",
         {R"({"a":1})", R"({"b":1})"},
         {}},
        {R"({"success":2000000000,"data":[{"result":{"a":1}}]})",
         {R"({"a":1})"},
         {"2000000000 answers announced, 1 there"}},
        {R"({"success":2,"data":"text"})", {}, {"2 answers announced, 0 there"}},
        {R"({"success":0,"data":{"result":{"a":1}}})", {}, {"cJSON_get_object success failed"}},
        {R"({"success":-1,"data":{"result":{"a":1}}})", {}, {"cJSON_get_object success failed"}},
        {R"({"success":"1","data":{"result":{"a":1}}})", {}, {"cJSON_get_object success failed"}},
        {R"({"data":{"result":{"a":1}}})", {}, {"cJSON_get_object success failed"}},
        {R"({"success":1})", {}, {"cJSON_get_object success failed"}},
        {R"({})", {}, {"cJSON_get_object success failed"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.reply);
        std::vector<std::string> results;
        fake_services["sync.request"] = {row.reply};
        const auto messages = logged_messages([&] {
            EXPECT_EQ(
                telemetry_transfer_request(TELEMETRY_TRANSFER_SYSTEM, true, nullptr, take_text, &results), 0);
        });
        EXPECT_EQ(results, row.results);
        EXPECT_EQ(messages, row.messages);
    }
    EXPECT_THAT(logged_messages([] { telemetry_transfer_handle_reply(nullptr, take_text, nullptr); }),
                ElementsAre("error callback"));
}

TEST(Transfer, RequestsAndFailedCalls) {
    fake_services["sync.request"] = {R"({"success":0})"};
    fake_service_calls.clear();
    std::vector<std::string> results;
    telemetry_transfer_request(TELEMETRY_TRANSFER_AFC, true, nullptr, take_text, &results);
    telemetry_get_re_client_sta_list();
    telemetry_collect_re_backhaul_info("192.168.0.1");
    std::vector<std::string> arguments;
    for (const ServiceCall &call : fake_service_calls)
        arguments.push_back(call.arguments);
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

static JsonPtr parse(const std::string &text) {
    return JsonPtr(cJSON_Parse(text.c_str()));
}

class ApplyTest : public ::testing::Test {
  protected:
    ApplyTest() {
        telemetry_init_device_info_list(3);
        for (int i = 0; i < 3; ++i) {
            snprintf(device(i).mac, sizeof(device(i).mac), "02-00-00-01-00-%02X", i < 2 ? i + 1 : 2);
            device(i).wire_port_num = -1;
        }
    }
    ~ApplyTest() override {
        telemetry_free_pre_collect_info();
    }
    static MeshDeviceInfo &device(int index) {
        return telemetry_get_device_info_list()[index];
    }
    static std::vector<std::string> apply(const std::string &result) {
        return logged_messages([&] { telemetry_apply_re_backhaul_result(parse(result).get()); });
    }
};

static constexpr char kLink[] =
    R"({"backhaul_type":"5G","backhaul_rssi":40,"backhaul_txrate":1729,)"
    R"("backhaul_rxrate":1441,"backhaul_channel":149,"backhaul_channle_util":31})";

TEST_F(ApplyTest, EveryMemberHasItsField) {
    EXPECT_THAT(
        apply(std::string(
                  R"({"wired_port_used_num":3,"port_info":[{"port_num":1,"port_speed":2500},{"port_num":4},
        7],"parent_mac":"02:00:00:01:00:01","ping_delay":"1.600000","hw_version":"2.0","backhaul_info":[{},)") +
              kLink + R"(,"x"],"mac":"02:00:00:01:00:02","err_code":-1})"),
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
    EXPECT_EQ(link.stats->tx, 1729);
    EXPECT_EQ(link.stats->rx, 1441);
    EXPECT_EQ(link.channel, 149);
    EXPECT_EQ(link.chan_util, 31);
    EXPECT_EQ(device(2).wire_port_num, -1); // the same address: the first record has it
    // A second answer changes what it holds and keeps the rest; a correctly spelt key is none.
    apply(R"({"mac":"02-00-00-01-00-02","backhaul_info":[{},{"backhaul_channel_util":99}]})");
    EXPECT_EQ(node.band_num, 2);
    EXPECT_EQ(link.chan_util, 31);
    EXPECT_EQ(node.wire_port_num, 3);
}

TEST_F(ApplyTest, WhoseAnswer) {
    struct Row {
        const char *mac;
        int device; // -1: nobody's
    };
    const Row rows[] = {
        {R"("02:00:00:01:00:02")", 1},
        {R"("0200.0001")", -1},
        {R"("020000010002")", 1},
        {R"("02:00:00:01:00:02:ff:ff")", 1},
        {R"("02")", 0},
        {R"("02000001000")", 0},
        {R"("")", -1},
        {R"("02:00:00:01:00:09")", -1},
        {"2", -1},
        {"null", -1},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.mac);
        for (int i = 0; i < 3; ++i)
            device(i).wire_port_num = -1;
        apply(std::string(R"({"wired_port_used_num":7,"mac":)") + row.mac + "}");
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(device(i).wire_port_num, i == row.device ? 7 : -1) << i;
    }
    for (const char *result : {"7", "[]", "\"text\"", "null", "{}", R"([{"mac":"02:00:00:01:00:02"}])"})
        EXPECT_THAT(apply(result), IsEmpty()) << result;
}

TEST_F(ApplyTest, MoreThanThereIsRoomForIsCut) {
    std::string ports, links;
    for (int i = 0; i < 40; ++i) {
        ports += R"({"port_num":)" + std::to_string(i + 1) + R"(,"port_speed":1e30},)";
        links += std::string(kLink) + ",";
    }
    ports.pop_back();
    links.pop_back();
    const std::string text(500, 'x');
    const auto messages = apply(R"({"mac":"02:00:00:01:00:01","port_info":[)" + ports +
                                R"(],"backhaul_info":[)" + links + R"(],"ping_delay":")" + text +
                                R"(","hw_version":")" + text + R"(","parent_mac":")" + text + "\"}");
    EXPECT_THAT(messages, Contains("port_info has more than 16 ports, cut"));
    EXPECT_THAT(messages, Contains("backhaul_info has more than 4 links, cut"));
    EXPECT_THAT(messages, Contains("hw_version is longer than 64 characters, cut"));
    EXPECT_EQ(device(0).wired_ports[15].port, 16);
    EXPECT_EQ(device(0).band_num, 4);
    EXPECT_EQ(device(0).hw_version, text.substr(0, 64));
    EXPECT_EQ(device(0).ping_delay, text.substr(0, 127));
    EXPECT_STREQ(device(0).parent_mac, "XX-XX-XX-XX-XX-XX");
    EXPECT_STREQ(device(1).mac, "02-00-00-01-00-02");
    apply(R"({"mac":"02:00:00:01:00:01","backhaul_info":[{"backhaul_type":")" + text + "\"}]}");
    EXPECT_EQ(device(0).backhaul[0].backhaul_type, text.substr(0, 22));
}

TEST(ClientResult, RatesGoToTheFirstClientOfTheAddress) {
    PreCollectInfo *info = &telemetry_pre_collect;
    EXPECT_THAT(logged_messages([] { parseClientStaInfoMsg(parse("{}").get()); }),
                ElementsAre("client info is NULL"));
    info->clients = static_cast<PreClientInfo *>(calloc(3, sizeof(PreClientInfo)));
    info->client_num = 3;
    for (int i = 0; i < 3; ++i)
        snprintf(info->clients[i].mac, sizeof(info->clients[i].mac), "02-00-00-02-00-%02X",
                 i < 2 ? i + 1 : 2);
    const auto messages = logged_messages([] {
        parseClientStaInfoMsg(parse(R"({"client_sta_list":[
            {"mac_addr":"02:00:00:02:00:02","pymode":6,"ng_rxrate":780,"ng_txrate":866},
            {}, 5, {"mac_addr":7,"pymode":1}, {"pymode":1}, {"mac_addr":"","pymode":1},
            {"mac_addr":"02:00:00:02:00:09","pymode":1}, {"mac_addr":"02:00:00:02:00:01","ng_txrate":"fast"}]})")
                                  .get());
        for (const char *other :
             {"7", "{}", R"({"client_sta_list":{"mac_addr":"02:00:00:02:00:01"}})", "null"})
            parseClientStaInfoMsg(parse(other).get());
    });
    EXPECT_THAT(messages, ElementsAre("pItem is NULL", "pItem is NULL"));
    EXPECT_EQ(info->clients[1].phymode, 6u);
    EXPECT_EQ(info->clients[1].rxrate, 780u);
    EXPECT_EQ(info->clients[1].txrate, 866u);
    EXPECT_EQ(info->clients[0].phymode, 0u);
    EXPECT_EQ(info->clients[2].phymode, 0u);
    telemetry_free_pre_collect_info();
}
