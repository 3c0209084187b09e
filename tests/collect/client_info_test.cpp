// The client record from a snapshot that is filled by hand.
#include <gmock/gmock.h>

#include "collect/collectors.h"
#include "sysroot.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_pre_collect.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

class ClientInfo : public testing::Test {
  protected:
    ClientInfo() {
        telemetry_debug_level = TELEMETRY_LOG_DEBUG;
        ctx.collect_periodic_now = 1;
    }
    ~ClientInfo() override {
        telemetry_pre_collect = {};
    }
    // A wired client of which nothing more is known.
    static PreClientInfo client() {
        PreClientInfo one = {};
        copy_text(one.mac, "02-00-00-00-00-01");
        copy_text(one.ap_mac, "02-00-00-00-00-02");
        copy_text(one.wire_type, "wired");
        copy_text(one.connection_type, "wired");
        one.phymode = one.txrate = one.rxrate = UINT32_MAX;
        one.is_exist = 1;
        return one;
    }
    std::string collect(std::vector<PreClientInfo> clients) {
        telemetry_pre_collect.clients = clients.data();
        telemetry_pre_collect.client_num = static_cast<int32_t>(clients.size());
        const JsonPtr payload(cJSON_CreateObject());
        count = 0;
        const int result = collect_client_list(&ctx, payload.get(), &count);
        return result == 0 && count > 0 ? telemetry_json_print(payload.get()).get() : "";
    }
    TelemetryCtx ctx = {};
    uint32_t count = 0;
};

TEST_F(ClientInfo, ReportsEveryMember) {
    PreClientInfo known = client();
    copy_text(known.wire_type, "wireless");
    copy_text(known.connection_type, "5G");
    copy_text(known.hostname, "hush");
    known.client_type = 7;
    known.iot_module = "matter";
    known.iot_category = "lock";
    known.txrate = 1201;
    known.rxrate = 960;
    known.retx_byte = 74474463206;
    known.rerx_byte = 5;
    known.signal_level_2g = 40;
    known.signal_level_5g = 55;
    known.phymode = 2;
    known.network_type = 2;
    known.is_guest = known.is_mlo = 1;
    PreClientInfo gone = known;
    gone.is_exist = 0;
    PreClientInfo nameless = client();
    nameless.mac[0] = nameless.ap_mac[0] = '\0';
    nameless.signal_level_2g = 33;
    nameless.network_type = 3;
    EXPECT_EQ(
        collect({client(), gone, known, nameless}),
        R"({"wn":2,"wln":1,"in":1,"gn":1,"mn":1,"cl":[)"
        R"({"mk":"d22a15090d6d4991e3ebf3919865c088","am":"88a20ac000a3f6cece666f742d788211","type":"other",)"
        R"("iname":null,"itype":null,"ctype":"wired","ngtx":-1,"ngrx":-1,"retx":0,"rerx":0,"sl":0,"sm":-1},)"
        R"({"mk":"d22a15090d6d4991e3ebf3919865c088","am":"88a20ac000a3f6cece666f742d788211","type":"iot_device",)"
        R"("iname":"matter","itype":"lock","ctype":"5G","ngtx":1201,"ngrx":960,"retx":74474463206.00,"rerx":5,)"
        R"("sl":55,"sm":2},)"
        R"({"type":"other","iname":null,"itype":null,"ctype":"wired","ngtx":-1,"ngrx":-1,"retx":0,"rerx":0,)"
        R"("sl":33,"sm":-1}]})");
    EXPECT_EQ(count, 3U);
}

TEST_F(ClientInfo, NamesEveryDeviceType) {
    const std::pair<uint32_t, const char *> cases[] = {
        {0, "other"},         {1, "pc"},      {2, "phone"},      {3, "laptop"}, {4, "tablet"},
        {5, "entertainment"}, {6, "printer"}, {7, "iot_device"}, {8, "other"},  {UINT32_MAX, "other"},
    };
    for (const auto &[code, name] : cases) {
        PreClientInfo one = client();
        one.client_type = code;
        EXPECT_THAT(collect({one}), HasSubstr(std::string("\"type\":\"") + name + "\"")) << code;
    }
}

TEST_F(ClientInfo, CountsByTheWordsBeginning) {
    const std::pair<const char *, const char *> cases[] = {
        {"wired", R"({"wn":1,"wln":0,)"},          {"wireless", R"({"wn":0,"wln":1,)"},
        {"wired_wireless", R"({"wn":1,"wln":0,)"}, {"wireless5", R"({"wn":0,"wln":1,)"},
        {"wire", R"({"wn":0,"wln":0,)"},           {"", R"({"wn":0,"wln":0,)"},
    };
    for (const auto &[wire_type, counters] : cases) {
        PreClientInfo one = client();
        copy_text(one.wire_type, wire_type);
        EXPECT_THAT(collect({one}), HasSubstr(counters)) << wire_type;
    }
}

TEST_F(ClientInfo, ReportsNothingWithoutItsTurnOrClients) {
    PreClientInfo gone = client();
    gone.is_exist = 0;
    EXPECT_EQ(collect({gone}), "");
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(collect({}), ""); }), ElementsAre("no clients info!"));
    ctx.collect_periodic_now = 0;
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(collect({client()}), ""); }),
                ElementsAre("dont need to collect client info!"));
}

} // namespace
