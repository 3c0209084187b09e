// The client record from a snapshot that is filled by hand.
#include <functional>

#include <gmock/gmock.h>

#include "collectors.h"
#include "sysroot.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_snapshot.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class ClientInfo : public testing::Test {
  protected:
    ClientInfo() {
        telemetry_debug_level = TELEMETRY_LOG_DEBUG;
        ctx.collect_periodic_now = 1;
        copy_text(known.mac, "02-00-00-00-00-01");
        copy_text(known.ap_mac, "02-00-00-00-00-02");
        copy_text(known.wire_type, "wired");
        known.is_exist = 1;
    }
    ~ClientInfo() override {
        telemetry_pre_collect = {};
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
    PreClientInfo known = {};
    uint32_t count = 0;
};

TEST_F(ClientInfo, ReportsWhatTheHomeDoesNotHave) {
    const struct {
        std::function<void(PreClientInfo &)> set;
        const char *expected;
    } cases[] = {
        {[](auto &one) { one.mac[0] = '\0'; }, R"("cl":[{"am":"88a20ac000a3f6cece666f742d788211","type")"},
        {[](auto &one) { one.ap_mac[0] = '\0'; }, R"("mk":"d22a15090d6d4991e3ebf3919865c088","type")"},
        {[](auto &one) { one.client_type = 0; }, R"("type":"other")"},
        {[](auto &one) { one.client_type = 8; }, R"("type":"other")"},
        {[](auto &one) { one.client_type = UINT32_MAX; }, R"("type":"other")"},
        {[](auto &one) { one.signal_level_2g = 40, one.signal_level_5g = 55; }, R"("sl":55)"},
        {[](auto &one) { one.signal_level_2g = 56, one.signal_level_5g = 55; }, R"("sl":56)"},
        {[](auto &one) { one.txrate = one.rxrate = UINT32_MAX; }, R"("ngtx":-1,"ngrx":-1)"},
        {[](auto &one) { one.network_type = 3; }, R"("in":0)"},
        {[](auto &one) { copy_text(one.wire_type, "wired_wireless"); }, R"("wn":1,"wln":0,)"},
        {[](auto &one) { copy_text(one.wire_type, "wireless5"); }, R"("wn":0,"wln":1,)"},
        {[](auto &one) { copy_text(one.wire_type, "wire"); }, R"("wn":0,"wln":0,)"},
    };
    for (const auto &one : cases) {
        PreClientInfo client = known;
        one.set(client);
        EXPECT_THAT(collect({client}), HasSubstr(one.expected));
    }
}

TEST_F(ClientInfo, ReportsNothingWithoutItsTurnOrClients) {
    PreClientInfo gone = known;
    gone.is_exist = 0;
    EXPECT_EQ(collect({gone}), "");
    EXPECT_THAT(collect({gone, known, gone, known}), testing::StartsWith(R"({"wn":2,)"));
    EXPECT_EQ(count, 2U);
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(collect({}), ""); }), ElementsAre("no clients info!"));
    ctx.collect_periodic_now = 0;
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(collect({known}), ""); }),
                ElementsAre("dont need to collect client info!"));
}

} // namespace
