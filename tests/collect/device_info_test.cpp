// The device record from a snapshot that is filled by hand.
#include <gmock/gmock.h>

#include "collect/collectors.h"
#include "sysroot.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_pre_collect.h"

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

class DeviceInfo : public testing::Test {
  protected:
    DeviceInfo() {
        telemetry_debug_level = TELEMETRY_LOG_DEBUG;
        ctx.collect_stgy2_now = 1;
        telemetry_init_device_info_list(2);
        devices = telemetry_get_device_info_list();
        copy_text(devices[0].device_id, "MAIN");
        copy_text(devices[0].mac, "02-00-00-00-00-01");
        copy_text(devices[0].device_model, "M1");
        copy_text(devices[0].fw_version, "1.2.3 Build 4");
        copy_text(devices[0].hw_version, "1.0");
        copy_text(devices[0].nickname, "Hall");
        devices[0].is_fap = 1;
        devices[0].band_num = 2;
        devices[0].wire_port_num = 2;
        devices[0].wired_ports[0] = {1, 0};
        devices[0].wired_ports[1] = {3, 1000};
        copy_text(devices[1].device_id, "SAT");
        copy_text(devices[1].mac, "02-00-00-00-00-02");
        devices[1].wire_port_num = -1;
    }
    ~DeviceInfo() override {
        telemetry_free_pre_collect_info();
    }
    std::string collect() {
        const JsonPtr payload(cJSON_CreateObject());
        count = 0;
        const int result = collect_device_list(&ctx, payload.get(), &count);
        return result == 0 && count > 0 ? telemetry_json_print(payload.get()).get() : "";
    }
    TelemetryCtx ctx = {};
    MeshDeviceInfo *devices;
    uint32_t count = 0;
};

TEST_F(DeviceInfo, ReportsEveryMember) {
    copy_text(devices[0].parent_mac, "02-00-00-00-00-09");
    copy_text(devices[0].ping_delay, "9");
    copy_text(devices[1].parent_mac, "02-00-00-00-00-01");
    copy_text(devices[1].ping_delay, "1.625");
    copy_text(devices[1].prefer_connect_device_id, "MAIN");
    devices[1].wire_port_num = 1;
    devices[1].wired_ports[15] = {16, 2500};
    devices[1].band_num = 2;
    BackhaulInfo &link = devices[1].backhaul[1];
    link.rssi = 42;
    link.channel = 149;
    link.chan_util = 51;
    link.stats->tx = 65535;
    link.stats->rx = 866;
    copy_text(link.backhaul_type, "5G");
    EXPECT_EQ(
        collect(),
        R"({"dn":2,"dl":[{"dm":"d22a15090d6d4991e3ebf3919865c088","dmodel":"M1","fw":"1.2.3 Build 4","hv":"1.0",)"
        R"("dnk":"Hall","wpn":2,"lpn":1,"lps":{"p3":1000}},)"
        R"({"dm":"88a20ac000a3f6cece666f742d788211","dmodel":"","fw":"","hv":"","dnk":"",)"
        R"("pcd":"d22a15090d6d4991e3ebf3919865c088","wpn":1,"pm":"d22a15090d6d4991e3ebf3919865c088","ddl":1.62,)"
        R"("lpn":1,"lps":{"p16":2500},"bh":[{"bt":null,"ri":0,"btx":0,"brx":0,"bc":0,"cu":0},)"
        R"({"bt":"5G","ri":42,"btx":65535,"brx":866,"bc":149,"cu":51}]}]})");
    EXPECT_EQ(count, 2U);
}

TEST_F(DeviceInfo, LeavesOutWhatIsNotKnown) {
    EXPECT_THAT(collect(), EndsWith(R"("dnk":"","wpn":-1,"pm":"","ddl":-1,"lpn":0,"bh":[]}]})"));
    copy_text(devices[1].prefer_connect_device_id, "NOBODY");
    EXPECT_THAT(collect(), Not(HasSubstr("pcd")));
    devices[0].wire_port_num = 1; // its WAN port only
    EXPECT_THAT(collect(), HasSubstr(R"("wpn":1,"lpn":0},)"));
    devices[1].band_num = 99;
    EXPECT_THAT(collect(), EndsWith(R"({"bt":null,"ri":0,"btx":0,"brx":0,"bc":0,"cu":0}]}]})"))
        << "four slots at most";
}

TEST_F(DeviceInfo, ReportsAllNodesOrNothing) {
    devices[1].mac[0] = '\0';
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(collect(), ""); }),
                testing::IsSupersetOf({"get pre device info start device num is 2",
                                       "cJSON_Add Mac Md5 failed", "add collected device info error"}));
    telemetry_free_pre_collect_info();
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(collect(), ""); }),
                ElementsAre("no device info!", "add collected device info error"));
    ctx.collect_stgy2_now = 0;
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(collect(), ""); }),
                ElementsAre("dont need to collect client info!"));
}

} // namespace
