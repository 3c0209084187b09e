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

// What a reply of the synchronisation service gives: results, a bar, messages.
static std::string take_apart(const std::string &reply) {
    std::string text;
    fake_services["sync.request"] = {reply};
    const auto said = logged_messages([&] {
        EXPECT_EQ(telemetry_transfer_request(TELEMETRY_TRANSFER_SYSTEM, true, nullptr, take_text, &text), 0);
    });
    for (const std::string &line : said)
        text += "|" + line;
    return text;
}

TEST(Transfer, RepliesAreTakenApart) {
    const char kNone[] = "|cJSON_get_object success failed", kNoResult[] = "|cJSON_GetObject filed";
    const std::pair<const char *, std::string> rows[] = {
        {R"({"success":1,"data":{"result":{"a":1}}})", R"({"a":1})"},
        {R"({"success":2,"data":[{"result":{"a":1}},{"result":{"b":2}}]})", R"({"a":1}{"b":2})"},
        {R"({"success":1,"data":[{"result":1}]})", kNoResult},
        {R"({"success":2,"data":[{"result":1},{"no":1}]})", std::string("1") + kNoResult},
        {R"({"success":2000000000,"data":[{"result":1}]})",
         std::string("1") + kNoResult + "|2000000000 answers announced, 1 there"},
        {R"({"success":2,"data":"text"})", kNoResult + std::string("|2 answers announced, 0 there")},
        {R"({"success":0,"data":{"result":1}})", kNone},
        {R"({"success":"1","data":{"result":1}})", kNone},
        {R"({"success":1})", kNone},
    };
    for (const auto &[reply, expected] : rows)
        EXPECT_EQ(take_apart(reply), expected) << reply;
    std::string many, first;
    for (int i = 0; i < 300; ++i) {
        many += (i > 0 ? ",{\"result\":" : "{\"result\":") + std::to_string(i) + "}";
        first += i < 256 ? std::to_string(i) : "";
    }
    EXPECT_EQ(take_apart(R"({"success":300,"data":[)" + many + "]}"),
              first + "|more than 256 nodes answered, the rest is left out");
    EXPECT_THAT(logged_messages([] { telemetry_transfer_handle_reply(nullptr, take_text, nullptr); }),
                ElementsAre("error callback"));
}

TEST(Transfer, RequestsAndFailedCalls) {
    fake_services["sync.request"] = {R"({"success":0})"};
    fake_service_calls.clear();
    telemetry_transfer_request(TELEMETRY_TRANSFER_AFC, true, nullptr, take_text, nullptr);
    telemetry_get_re_client_sta_list();
    telemetry_collect_re_backhaul_info("192.168.0.1");
    std::string arguments;
    for (const ServiceCall &call : fake_service_calls)
        arguments += std::to_string(call.timeout_ms) + call.arguments;
    EXPECT_EQ(arguments, R"(50000{"opcode":50952,"target_type":"RE","include_myself":true,"data":{}})"
                         R"(50000{"opcode":50947,"target_type":"RE","data":{}})"
                         R"(50000{"opcode":50946,"target_type":"RE","include_myself":true,)"
                         R"("data":{"params":{"ip_ap_addr":"192.168.0.1"}}})");
    EXPECT_EQ(logged_result([] { return telemetry_collect_re_backhaul_info(nullptr); }),
              LoggedResult(-1, {"invalid input"}));
    for (const auto &[error, message] : {std::pair{TELEMETRY_BUS_NO_CONNECTION, "ubus connect failed"},
                                         {TELEMETRY_BUS_NO_OBJECT, "ubus invoke failed."},
                                         {TELEMETRY_BUS_CALL_FAILED, "ubus invoke failed."}}) {
        fake_services["sync.request"].error = error;
        EXPECT_EQ(logged_result(telemetry_get_re_client_sta_list), LoggedResult(-1, {message}));
    }
}

// Three nodes and three clients, of which the last two have the same address.
class ApplyTest : public ::testing::Test {
  protected:
    ApplyTest() {
        telemetry_init_device_info_list(3);
        telemetry_pre_collect.clients = clients =
            static_cast<PreClientInfo *>(calloc(3, sizeof(PreClientInfo)));
        telemetry_pre_collect.client_num = 3;
        nodes = telemetry_get_device_info_list();
        for (int i = 0; i < 3; ++i) {
            snprintf(nodes[i].mac, sizeof(nodes[i].mac), "02-00-00-01-00-%02X", i < 2 ? i + 1 : 2);
            snprintf(clients[i].mac, sizeof(clients[i].mac), "02-00-00-02-00-%02X", i < 2 ? i + 1 : 2);
        }
    }
    ~ApplyTest() override {
        telemetry_free_pre_collect_info();
    }
    static std::vector<std::string> apply(const std::string &result,
                                          void (*take)(const cJSON *) = telemetry_apply_re_backhaul_result) {
        const JsonPtr tree(cJSON_Parse(result.c_str()));
        return logged_messages([&] { take(tree.get()); });
    }
    MeshDeviceInfo *nodes;
    PreClientInfo *clients;
};

TEST_F(ApplyTest, AnswersGoToTheFirstNodeWhoseMacBeginsWithTheirs) {
    const std::pair<const char *, int> rows[] = {
        // -1: nobody's
        {R"("02:00:00:01:00:02")", 1},  {R"("0200.0001")", -1}, {R"("02:00:00:01:00:02:ff:ff")", -1},
        {R"("02000001000")", 0},        {R"("")", -1},          {"null", -1},
        {R"("02:00:00:01:00:09")", -1},
    };
    for (const auto &[mac, owner] : rows) {
        for (int i = 0; i < 3; ++i)
            nodes[i].wire_port_num = -1;
        apply(std::string(R"({"wired_port_used_num":7,"mac":)") + mac + "}");
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(nodes[i].wire_port_num, i == owner ? 7 : -1) << mac << i;
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
    EXPECT_TRUE(nodes->wired_ports[15].port == 16 && nodes->band_num == 4 && nodes->backhaul[3].channel == 4);
    EXPECT_EQ(nodes->backhaul[0].backhaul_type, text.substr(0, 22));
    EXPECT_EQ(nodes->hw_version, text.substr(0, 64));
    EXPECT_EQ(nodes->ping_delay, text.substr(0, 127));
    EXPECT_STREQ(nodes->parent_mac, "XX-XX-XX-XX-XX-XX");
    EXPECT_STREQ(nodes[1].mac, "02-00-00-01-00-02");
}

TEST_F(ApplyTest, RatesGoToTheFirstClientOfTheAddress) {
    EXPECT_THAT(apply(R"({"client_sta_list":[{"mac_addr":"02:00:00:02:00:02","pymode":6,"ng_rxrate":780,
        "ng_txrate":866},{}, 5, {"mac_addr":7,"pymode":1}, {"pymode":1}, {"mac_addr":"","pymode":1},
        {"mac_addr":"02:00:00:02:00:09","pymode":1}, {"mac_addr":"02:00:00:02:00:01","ng_txrate":"fast"}]})",
                      parseClientStaInfoMsg),
                ElementsAre("pItem is NULL", "pItem is NULL"));
    std::string empty = "{}";
    for (int i = 1; i < 5000; ++i)
        empty += ",{}";
    EXPECT_EQ(apply(R"({"client_sta_list":[)" + empty + "]}", parseClientStaInfoMsg).size(),
              17u); // the last is their number
    for (const char *other : {"7", "{}", R"({"client_sta_list":{"a":{"mac_addr":"02","pymode":1}}})", "null"})
        EXPECT_THAT(apply(other, parseClientStaInfoMsg), IsEmpty()) << other;
    const PreClientInfo &client = clients[1];
    EXPECT_TRUE(client.phymode == 6 && client.rxrate == 780 && client.txrate == 866);
    EXPECT_EQ(clients[0].phymode + clients[2].phymode, 0u);
    telemetry_free_pre_collect_info();
    EXPECT_THAT(apply("{}", parseClientStaInfoMsg), ElementsAre("client info is NULL"));
}
