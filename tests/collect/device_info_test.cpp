// The device record from a snapshot that is filled by hand: what the nodes of a sound home do not have.
#include <functional>

#include <gmock/gmock.h>

#include "collectors.h"
#include "sysroot.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_pre_collect.h"
#include "telemetry_snapshot.h"

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
        set_nodes();
    }
    ~DeviceInfo() override {
        telemetry_free_pre_collect_info();
    }
    // A main node, and a satellite of which nothing but its address is known.
    void set_nodes() {
        telemetry_free_pre_collect_info();
        telemetry_init_device_info_list(2);
        devices = telemetry_get_device_info_list();
        copy_text(devices[0].device_id, "MAIN");
        copy_text(devices[0].mac, "02-00-00-00-00-01");
        devices[0].is_fap = 1;
        devices[0].band_num = 2;
        devices[0].wire_port_num = 2;
        devices[0].wired_ports[1] = {3, 1000};
        copy_text(devices[1].mac, "02-00-00-00-00-02");
        devices[1].wire_port_num = -1;
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

TEST_F(DeviceInfo, LeavesOutWhatIsNotKnown) {
    const auto satellite = [](const std::string &text) {
        return EndsWith(R"("dnk":"","wpn":-1,"pm":"",)" + text + "}]}");
    };
    const struct {
        std::function<void(MeshDeviceInfo *)> set;
        testing::Matcher<std::string> expected;
    } cases[] = {
        {[](auto) {}, satellite(R"("ddl":-1,"lpn":0,"bh":[])")},
        {[](auto all) { copy_text(all[1].prefer_connect_device_id, "NOBODY"); }, Not(HasSubstr("pcd"))},
        {[](auto all) { copy_text(all[1].ping_delay, "inf"); }, HasSubstr(R"("ddl":-1,)")},
        {[](auto all) { copy_text(all[1].ping_delay, "soon"); }, HasSubstr(R"("ddl":0,)")},
        {[](auto) {}, HasSubstr(R"("wpn":2,"lpn":1,"lps":{"p3":1000}},)")},
        {[](auto all) { all[0].wire_port_num = 1; }, HasSubstr(R"("wpn":1,"lpn":0},)")}, // its WAN port only
        {[](auto all) {
             all[1].wire_port_num = 1;
             all[1].wired_ports[15] = {16, 2500};
         },
         HasSubstr(R"("lpn":1,"lps":{"p16":2500},"bh")")},
        {[](auto all) { all[1].band_num = 99; }, // four slots at most
         testing::ContainsRegex(R"("bh":\[(\{"bt":null,"ri":0,"btx":0,"brx":0,"bc":0,"cu":0\},?){4}\])")},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        set_nodes();
        cases[i].set(devices);
        EXPECT_THAT(collect(), cases[i].expected) << i;
        EXPECT_EQ(count, 2U);
    }
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
