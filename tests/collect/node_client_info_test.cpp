// The client and the device record from a snapshot that is filled by hand: what those of a sound home do not
// have.
#include <functional>

#include "collector_test.h"

using testing::ElementsAre;
using testing::HasSubstr;
using Matcher = testing::Matcher<std::string>;

namespace {

// A main node and a wired client; a satellite of which nothing but its address is known.
class NodeClientInfo : public CollectorTest {
  protected:
    NodeClientInfo() {
        telemetry_debug_level = TELEMETRY_LOG_DEBUG;
        fill();
    }
    void fill() {
        telemetry_free_pre_collect_info();
        telemetry_init_device_info_list(2);
        main = telemetry_get_device_info_list();
        satellite = main + 1;
        copy_text(main->device_id, "MAIN");
        copy_text(main->mac, "02-00-00-00-00-01");
        main->is_fap = 1;
        main->band_num = main->wire_port_num = 2;
        main->wired_ports[1] = {3, 1000};
        copy_text(satellite->mac, "02-00-00-00-00-02");
        satellite->wire_port_num = -1;
        client = static_cast<PreClientInfo *>(calloc(4, sizeof(PreClientInfo)));
        telemetry_pre_collect.clients = client;
        telemetry_pre_collect.client_num = 1;
        copy_text(client->mac, "02-00-00-00-00-01");
        copy_text(client->ap_mac, "02-00-00-00-00-02");
        copy_text(client->wire_type, "wired");
        client->is_exist = 1;
    }
    MeshDeviceInfo *main, *satellite;
    PreClientInfo *client;
};

TEST_F(NodeClientInfo, WhatIsUnusualIsToldAndWhatIsNotKnownLeftOut) {
    const std::pair<std::function<void()>, Matcher> cases[] = {
        {[&] { client->mac[0] = '\0'; },
         HasSubstr(R"("cl":[{"am":"88a20ac000a3f6cece666f742d788211","type")")},
        {[&] { client->ap_mac[0] = '\0'; }, HasSubstr(R"("mk":"d22a15090d6d4991e3ebf3919865c088","type")")},
        {[&] { client->client_type = 8; }, HasSubstr(R"("type":"other")")},
        {[&] { client->signal_level_2g = 40, client->signal_level_5g = 55; }, HasSubstr(R"("sl":55)")},
        {[&] { client->txrate = client->rxrate = UINT32_MAX; }, HasSubstr(R"("ngtx":-1,"ngrx":-1)")},
        {[&] { copy_text(client->wire_type, "wired_wireless"); }, HasSubstr(R"("wn":1,"wln":0,)")},
        {[&] {
             client[2] = client[3] = client[0];
             telemetry_pre_collect.client_num = 4;
         },
         testing::StartsWith(R"({"wn":3,)")},
        {[] {}, HasSubstr(R"("dnk":"","wpn":-1,"pm":"","ddl":-1,"lpn":0,"bh":[]}]})")},
        {[&] { copy_text(satellite->prefer_connect_device_id, "NOBODY"); }, testing::Not(HasSubstr("pcd"))},
        {[&] { copy_text(satellite->ping_delay, "inf"); }, HasSubstr(R"("ddl":-1,)")},
        {[] {}, HasSubstr(R"("wpn":2,"lpn":1,"lps":{"p3":1000}},)")},
        {[&] { main->wire_port_num = 1; }, HasSubstr(R"("wpn":1,"lpn":0},)")}, // its WAN port only
        {[&] { main->wire_port_num = INT32_MIN; }, HasSubstr(R"("wpn":-2147483648,"lpn":0},)")},
        {[&] {
             satellite->wire_port_num = 1;
             satellite->wired_ports[15] = {16, 2500};
         },
         HasSubstr(R"("lpn":1,"lps":{"p16":2500},"bh")")},
        {[&] { satellite->band_num = 99; }, // four slots at most
         testing::ContainsRegex(R"("bh":\[(\{"bt":null,"ri":0,"btx":0,"brx":0,"bc":0,"cu":0\},?){4}\])")},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        fill();
        cases[i].first();
        const std::string clients = collect(collect_client_list);
        EXPECT_THAT(clients + collect(collect_device_list), cases[i].second) << i;
        EXPECT_EQ(count, 2U);
    }
}

TEST_F(NodeClientInfo, NothingWithoutTurnNodesOrClients) {
    const auto said_by = [&](TelemetryCollector collector) {
        collect(collector);
        EXPECT_EQ(count, 0U);
        return said;
    };
    satellite->mac[0] = '\0'; // all nodes or none
    EXPECT_THAT(said_by(collect_device_list),
                testing::IsSupersetOf({"get pre device info start device num is 2",
                                       "cJSON_Add Mac Md5 failed", "add collected device info error"}));
    telemetry_free_pre_collect_info();
    EXPECT_THAT(said_by(collect_device_list),
                ElementsAre("no device info!", "add collected device info error"));
    EXPECT_THAT(said_by(collect_client_list), ElementsAre("no clients info!"));
    fill();
    client->is_exist = 0;
    said_by(collect_client_list);
    fill();
    ctx.collect_stgy2_now = ctx.collect_periodic_now = 0;
    for (const TelemetryCollector collector : {collect_client_list, collect_device_list})
        EXPECT_THAT(said_by(collector), ElementsAre("dont need to collect client info!"));
}

} // namespace
