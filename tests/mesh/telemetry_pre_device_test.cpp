// The snapshot's device side: mesh device list, configuration, main node's ports, and what happens when one
// is bad.
#include "telemetry_pre_collect.h"
#include "telemetry_pre_device.h"
#include "telemetry_snapshot.h"

#include <cstring>
#include <memory>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_services.h"
#include "sysroot.h"
#include "telemetry_log.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;

static constexpr char kListPath[] = "/tmp/sync-server/mesh_dev_list";
static constexpr char kTwoNodes[] = R"({
    "MAIN": {"ip":"192.168.0.1","mac":"02:00:00:01:00:0a","device_model":"M1","fw_version":"1.0","role":"AP"},
    "SAT1": {"ip":"192.168.0.2","mac":"020000010002","device_model":"M2","fw_version":"1.1","role":"RE"}})";

class PreDeviceTest : public SysrootTest {
  protected:
    PreDeviceTest() : ctx(new TelemetryCtx()) {
        fake_service_calls.clear();
        fake_services = {{"sync.request", {R"({"success":0,"data":[]})"}}};
        snprintf(ctx->hw_version, sizeof(ctx->hw_version), "hw-1");
        root.write(kListPath, kTwoNodes);
        root.write_config("bind_device_list", "config d 'MAIN'\n\toption nickname 'Hall'\n");
        root.write_config("device_prefer", "config d 'SAT1'\n\toption prefer_connect_device 'MAIN'\n");
        root.write("/etc/profile.d/interfaces", "config i 'a'\n\toption type 'eth'\n\toption port '1'\n");
        root.write("/lib/telemetry/wire_port_info.sh", "#!/bin/sh\necho 1\n");
        std::filesystem::permissions(root.path("/lib/telemetry/wire_port_info.sh"),
                                     std::filesystem::perms::owner_all);
    }
    ~PreDeviceTest() override {
        telemetry_free_pre_collect_info();
        telemetry_debug_level = TELEMETRY_LOG_INFO;
    }
    std::vector<std::string> build(int expected) {
        return logged_messages([&] { EXPECT_EQ(telemetry_pre_device_info(ctx.get()), expected); });
    }
    static std::vector<std::string> dump() {
        telemetry_debug_level = TELEMETRY_LOG_DEBUG;
        return logged_messages([] { telemetry_print_device_info(); });
    }
    static const MeshDeviceInfo &device(int index) {
        return telemetry_get_device_info_list()[index];
    }
    // The texts and figures of a node.
    static std::string fields(int index) {
        const MeshDeviceInfo &node = device(index);
        std::ostringstream text;
        for (const char *field :
             {node.device_id, node.ipaddr, node.mac, node.device_model, node.fw_version, node.nickname,
              node.prefer_connect_device_id, node.hw_version, node.parent_mac})
            text << field << ' ';
        text << int{node.is_fap} << ' ' << node.band_num << ' ' << node.wire_port_num;
        return text.str();
    }
    std::unique_ptr<TelemetryCtx> ctx;
};

TEST_F(PreDeviceTest, EveryFieldHasItsSource) {
    fake_services["sync.request"] = {R"({"success":1,"data":{"result":{"mac":"02-00-00-01-00-02",
        "parent_mac":"02:00:00:01:00:0a","hw_version":"hw-2","wired_port_used_num":2}}})"};
    EXPECT_THAT(build(0), IsEmpty());
    ASSERT_EQ(telemetry_get_device_num(), 2);
    EXPECT_EQ(fields(0),
              "MAIN 192.168.0.1 02-00-00-01-00-0A M1 1.0 Hall  hw-1  1 2 1"); // port 1 is the WAN port
    EXPECT_EQ(fields(1), "SAT1 192.168.0.2 02-00-00-01-00-02 M2 1.1  MAIN hw-2 02-00-00-01-00-0A 0 0 2");
    EXPECT_STREQ(telemetry_get_fap_ipaddr(), "192.168.0.1");
    EXPECT_EQ(telemetry_get_device_mac_by_id("SAT"), nullptr);
    EXPECT_EQ(telemetry_get_device_mac_by_id(nullptr), nullptr);
    ASSERT_EQ(fake_service_calls.size(), 1u);
    EXPECT_NE(fake_service_calls[0].arguments.find(R"("ip_ap_addr":"192.168.0.1")"), std::string::npos);

    // Devices come before clients.
    logged_messages([&] { telemetry_pre_collect_info(ctx.get()); });
    EXPECT_EQ(fake_service_calls[1].name + fake_service_calls[2].name, "sync.requesttfstats.get");

    // The dump has 64 lines of a node and names the parent of satellites only.
    const auto lines = dump();
    EXPECT_EQ(lines.size(), 2u * 64 + 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "parent_mac:02-00-00-01-00-0A"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "wired port speed 0 :0"), 31);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "backhaul index :3"), 2);

    // Again over what is held: nothing of the first is left, and one node only asks nobody.
    telemetry_debug_level = TELEMETRY_LOG_INFO;
    root.write(kListPath, R"({"ONLY":{"mac":"02:00:00:01:00:0a","role":"AP"}})");
    fake_service_calls.clear();
    EXPECT_THAT(build(0), IsEmpty());
    EXPECT_EQ(fields(0), "ONLY  02-00-00-01-00-0A     hw-1  1 2 1");
    EXPECT_FALSE(telemetry_is_mesh_network());
    EXPECT_THAT(fake_service_calls, IsEmpty());
    telemetry_free_pre_collect_info();
    EXPECT_THAT(dump(), ElementsAre("no device list info"));
}

TEST_F(PreDeviceTest, AStepThatFailsLeavesNoList) {
    const std::string beyond_buffer = R"({"MAIN":{"role":"AP","x":")" + std::string(65536, 'x') + R"("}})";
    struct Row {
        const char *path;
        std::string content; // empty: no file
        const char *message;
    };
    const Row rows[] = {
        {kListPath, "", "open file /tmp/sync-server/mesh_dev_list failed"},
        {kListPath, "{}", "device info init failed"},
        {kListPath, R"([{"role":"AP"}])", "device info init failed"},
        {kListPath, beyond_buffer, "cJSON parse failed"},
        {kListPath, R"({"A":{"role":"ap"},"B":{"role":1},"C":{}})", "get fap info failed"},
        {"/etc/config/bind_device_list", "", "get vela nickname failed"},
        {"/etc/config/device_prefer", "", "get vela prefer connect device info failed"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.message);
        EXPECT_THAT(build(0), ElementsAre("cJSON_get_object success failed")); // nobody answered: not fatal
        EXPECT_EQ(telemetry_get_device_num(), 2);
        const std::string before = root.read(row.path);
        row.content.empty() ? root.remove(row.path) : root.write(row.path, row.content);
        EXPECT_THAT(build(-1), Contains(row.message));
        EXPECT_EQ(telemetry_get_device_info_list(), nullptr);
        EXPECT_EQ(telemetry_get_device_num(), 0);
        root.write(row.path, before);
    }
}

TEST_F(PreDeviceTest, WithoutPortsOrSatellitesTheRestStays) {
    root.remove("/etc/profile.d/interfaces");
    fake_services.clear();
    EXPECT_THAT(build(0),
                IsSupersetOf({"uci load interface failed", "ubus invoke failed.", "get RE info failed"}));
    EXPECT_EQ(fields(0), "MAIN 192.168.0.1 02-00-00-01-00-0A M1 1.0 Hall  hw-1  1 2 -1");
}

TEST_F(PreDeviceTest, TextsLongerThanTheirFieldsAreCut) {
    const std::string key(70, 'K'), text(500, 't'), cut = text.substr(0, 63), member = "\":\"" + text + "\"";
    root.write(kListPath, "{\"" + key + "\":{\"role\":\"AP\",\"mac" + member + ",\"ip" + member +
                              ",\"device_model" + member + ",\"fw_version" + member +
                              R"(},"S":7,"T":null,"AB":[{"mac":"x"}],"ABC":{}})");
    // A section belongs to the first device whose id begins it.
    root.write_config("bind_device_list",
                      "config d '" + key + "_more'\n\toption nickname '" + text +
                          "'\nconfig d ABCD\n\toption nickname first\n"
                          "config d A\n\toption nickname none\nconfig d S2\n\toption other x\n");
    root.write_config("device_prefer",
                      "config d '" + key + "'\n\toption prefer_connect_device '" + text + "'\n");
    EXPECT_THAT(build(0), Contains("nickname of " + key + "_more is longer than 63 characters, cut"));
    // A key fills its field, without a terminator.
    const MeshDeviceInfo &node = device(0);
    EXPECT_EQ(std::string(node.device_id, sizeof(node.device_id)), key.substr(0, 64));
    EXPECT_EQ(strlen(node.mac), 17u);
    EXPECT_EQ(node.ipaddr, text.substr(0, 15));
    EXPECT_TRUE(node.device_model == cut && node.fw_version == cut && node.nickname == cut &&
                node.prefer_connect_device_id == cut);
    EXPECT_EQ(telemetry_get_device_num(), 5);
    EXPECT_EQ(std::string(device(1).nickname) + device(3).nickname + device(4).nickname, "first");
    EXPECT_STREQ(device(3).nickname, "first");
    EXPECT_STREQ(telemetry_get_device_mac_by_id(key.c_str()), node.mac);
    EXPECT_THAT(dump(), Contains("device_id:" + key.substr(0, 64)));
}

TEST_F(PreDeviceTest, TheFirmwareToolsVersionIsCut) {
    EXPECT_EQ(logged_result([&] { return telemetry_get_hwversion_info_from_ctx(ctx.get()); }),
              LoggedResult(-1, {"device info is NULL"}));
    root.add_command("getfirm", "printf '%0100d' 7");
    char version[65];
    EXPECT_EQ(telemetry_get_hwversion_info_from_getfirm(version), 0);
    EXPECT_EQ(version, std::string(64, '0'));
}
