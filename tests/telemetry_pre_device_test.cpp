// The snapshot's device side: mesh device list, configuration, main node's ports, and what happens when one
// is bad.
#include "telemetry_pre_collect.h"

#include <cstring>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_services.h"
#include "sysroot.h"
#include "telemetry_log.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

static constexpr char kTwoNodes[] = R"({
    "MAIN": {"ip":"192.168.0.1","mac":"02:00:00:01:00:0a","device_model":"M1","fw_version":"1.0","role":"AP"},
    "SAT1": {"ip":"192.168.0.2","mac":"020000010002","device_model":"M2","fw_version":"1.1","role":"RE"}})";

class PreDeviceTest : public SysrootTest {
  protected:
    PreDeviceTest() : ctx(new TelemetryCtx()) {
        fake_services.clear();
        fake_service_calls.clear();
        telemetry_debug_level = TELEMETRY_LOG_INFO;
        snprintf(ctx->hw_version, sizeof(ctx->hw_version), "hw-1");
        list(kTwoNodes);
        root.write_config("bind_device_list", "config d 'MAIN'\n\toption nickname 'Hall'\n");
        root.write_config("device_prefer", "config d 'SAT1'\n\toption prefer_connect_device 'MAIN'\n");
        root.write("/etc/profile.d/interfaces", "config i 'a'\n\toption type 'eth'\n\toption port '1'\n");
        std::filesystem::create_directories(root.path("/lib/telemetry"));
        root.add_command("wire_port_info.sh", "echo 1");
        std::filesystem::rename(root.path("/bin/wire_port_info.sh"),
                                root.path("/lib/telemetry/wire_port_info.sh"));
        fake_services["sync.request"] = {R"({"success":0,"data":[]})"};
    }
    ~PreDeviceTest() override {
        telemetry_free_pre_collect_info();
        telemetry_debug_level = TELEMETRY_LOG_INFO;
    }
    void list(const std::string &json) {
        root.write("/tmp/sync-server/mesh_dev_list", json);
    }
    std::vector<std::string> build(int expected) {
        return logged_messages([&] { EXPECT_EQ(telemetry_pre_device_info(ctx.get()), expected); });
    }
    static const MeshDeviceInfo &device(int index) {
        return telemetry_get_device_info_list()[index];
    }
    std::unique_ptr<TelemetryCtx> ctx;
};

TEST_F(PreDeviceTest, EveryFieldHasItsSource) {
    fake_services["sync.request"] = {R"({"success":1,"data":{"result":{"mac":"02-00-00-01-00-02",
        "parent_mac":"02:00:00:01:00:0a","hw_version":"hw-2","wired_port_used_num":2}}})"};
    EXPECT_THAT(build(0), IsEmpty());
    ASSERT_EQ(telemetry_get_device_num(), 2);
    EXPECT_STREQ(device(0).device_id, "MAIN");
    EXPECT_STREQ(device(0).ipaddr, "192.168.0.1");
    EXPECT_STREQ(device(0).mac, "02-00-00-01-00-0A");
    EXPECT_STREQ(device(0).device_model, "M1");
    EXPECT_STREQ(device(0).fw_version, "1.0");
    EXPECT_STREQ(device(0).nickname, "Hall");
    EXPECT_STREQ(device(0).hw_version, "hw-1");
    EXPECT_EQ(device(0).is_fap, 1);
    EXPECT_EQ(device(0).band_num, 2);
    EXPECT_EQ(device(0).wire_port_num, 1); // port 1 is the WAN port
    EXPECT_EQ(device(0).wired_ports[0].port, 1);
    EXPECT_STREQ(device(1).mac, "02-00-00-01-00-02");
    EXPECT_STREQ(device(1).prefer_connect_device_id, "MAIN");
    EXPECT_STREQ(device(1).parent_mac, "02-00-00-01-00-0A");
    EXPECT_STREQ(device(1).hw_version, "hw-2");
    EXPECT_EQ(device(1).wire_port_num, 2);
    EXPECT_EQ(device(1).is_fap, 0);
    EXPECT_EQ(device(1).band_num, 0);
    EXPECT_STREQ(telemetry_get_fap_ipaddr(), "192.168.0.1");
    EXPECT_STREQ(telemetry_get_device_mac_by_id("SAT1"), "02-00-00-01-00-02");
    EXPECT_EQ(telemetry_get_device_mac_by_id("SAT"), nullptr);
    EXPECT_EQ(telemetry_get_device_mac_by_id(nullptr), nullptr);
    EXPECT_TRUE(telemetry_is_mesh_network());
    EXPECT_EQ(telemetry_pre_collect.backhaul_num, 4u);
    for (const BackhaulInfo &slot : device(1).backhaul)
        EXPECT_NE(slot.stats, nullptr);
    ASSERT_EQ(fake_service_calls.size(), 1u);
    EXPECT_EQ(
        fake_service_calls[0].arguments,
        R"({"opcode":50946,"target_type":"RE","include_myself":true,"data":{"params":{"ip_ap_addr":"192.168.0.1"}}})");
    EXPECT_EQ(fake_service_calls[0].timeout_ms, 50000);

    // Again over what is held: nothing of the first is left, and one node only asks nobody.
    list(R"({"ONLY":{"mac":"02:00:00:01:00:0a","role":"AP"}})");
    fake_service_calls.clear();
    EXPECT_THAT(build(0), IsEmpty());
    EXPECT_EQ(telemetry_get_device_num(), 1);
    EXPECT_STREQ(device(0).nickname, "");
    EXPECT_STREQ(device(0).ipaddr, "");
    EXPECT_FALSE(telemetry_is_mesh_network());
    EXPECT_THAT(fake_service_calls, IsEmpty());
}

TEST_F(PreDeviceTest, AStepThatFailsLeavesNoList) {
    struct Row {
        const char *what;
        std::function<void()> spoil;
        const char *message;
    };
    const std::string list_path = "/tmp/sync-server/mesh_dev_list";
    const Row rows[] = {
        {"no list", [&] { root.remove(list_path); }, "open file /tmp/sync-server/mesh_dev_list failed"},
        {"empty list", [&] { list(""); }, "cJSON parse failed"},
        {"no node", [&] { list("{}"); }, "device info init failed"},
        {"an array", [&] { list(R"([{"role":"AP"}])"); }, "device info init failed"},
        {"a text", [&] { list(R"("AP")"); }, "device info init failed"},
        {"cut", [&] { list(std::string(kTwoNodes).substr(0, 150)); }, "cJSON parse failed"},
        {"beyond the buffer",
         [&] { list(R"({"MAIN":{"role":"AP","x":")" + std::string(65536, 'x') + R"("}})"); },
         "cJSON parse failed"},
        {"no nicknames", [&] { root.remove("/etc/config/bind_device_list"); }, "get vela nickname failed"},
        {"no uplinks", [&] { root.remove("/etc/config/device_prefer"); },
         "get vela prefer connect device info failed"},
        {"no main node", [&] { list(R"({"A":{"role":"ap"},"B":{"role":1},"C":{}})"); },
         "get fap info failed"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        list(kTwoNodes);
        row.spoil();
        EXPECT_THAT(build(-1), Contains(row.message));
        EXPECT_EQ(telemetry_get_device_info_list(), nullptr);
        EXPECT_EQ(telemetry_get_device_num(), 0);
        root.write_config("bind_device_list", "");
        root.write_config("device_prefer", "");
    }
    list(kTwoNodes);
    EXPECT_THAT(build(0), ElementsAre("cJSON_get_object success failed")); // nobody answered: not fatal
    EXPECT_EQ(telemetry_get_device_num(), 2);
}

TEST_F(PreDeviceTest, WithoutPortsOrSatellitesTheRestStays) {
    root.remove("/etc/profile.d/interfaces");
    fake_services.clear();
    const auto messages = build(0);
    EXPECT_THAT(messages, Contains("uci load interface failed"));
    EXPECT_THAT(messages, Contains("ubus invoke failed."));
    EXPECT_THAT(messages, Contains("get RE info failed"));
    EXPECT_EQ(device(0).wire_port_num, -1);
    EXPECT_EQ(device(0).band_num, 2);
    EXPECT_STREQ(device(0).nickname, "Hall");
}

TEST_F(PreDeviceTest, TextsLongerThanTheirFieldsAreCut) {
    const std::string key(70, 'K');
    const std::string text(500, 't');
    const std::string member = "\":\"" + text + "\"";
    list("{\"" + key + "\":{\"role\":\"AP\",\"mac" + member + ",\"ip" + member + ",\"device_model" + member +
         ",\"fw_version" + member + "},\"S\":7,\"T\":null,\"U\":[{\"mac\":\"x\"}]}");
    root.write_config("bind_device_list", "config d '" + key + "_more'\n\toption nickname '" + text + "'\n");
    root.write_config("device_prefer",
                      "config d '" + key + "'\n\toption prefer_connect_device '" + text + "'\n");
    const auto messages = build(0);
    // A key fills its field, without a terminator.
    EXPECT_EQ(std::string(device(0).device_id, sizeof(device(0).device_id)), key.substr(0, 64));
    EXPECT_EQ(strlen(device(0).mac), 17u);
    EXPECT_EQ(device(0).ipaddr, text.substr(0, 15));
    EXPECT_EQ(device(0).device_model, text.substr(0, 63));
    EXPECT_EQ(device(0).fw_version, text.substr(0, 63));
    EXPECT_EQ(device(0).nickname, text.substr(0, 63));
    EXPECT_EQ(device(0).prefer_connect_device_id, text.substr(0, 63));
    EXPECT_THAT(messages, Contains(HasSubstr("nickname")));
    EXPECT_EQ(telemetry_get_device_num(), 4);
    EXPECT_STREQ(device(2).mac, "");
    EXPECT_STREQ(telemetry_get_device_mac_by_id(key.c_str()), device(0).mac);
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    EXPECT_THAT(logged_messages([] { telemetry_print_device_info(); }),
                Contains("device_id:" + key.substr(0, 64)));
}

TEST_F(PreDeviceTest, SectionsBelongToTheFirstDeviceWhoseIdBeginsThem) {
    list(R"({"AB":{"role":"AP"},"ABC":{},"D":{}})");
    root.write_config("bind_device_list", "config d 'ABC'\n\toption nickname 'first'\n"
                                          "config d 'D_guest'\n\toption nickname 'prefix'\n"
                                          "config d 'A'\n\toption nickname 'none'\n"
                                          "config d 'D2'\n\toption other 'x'\n");
    EXPECT_EQ(telemetry_pre_device_info(ctx.get()), 0);
    EXPECT_STREQ(device(0).nickname, "first");
    EXPECT_STREQ(device(1).nickname, "");
    EXPECT_STREQ(device(2).nickname, "prefix");
}

TEST_F(PreDeviceTest, DumpNamesTheParentOfSatellitesOnly) {
    EXPECT_EQ(telemetry_pre_device_info(ctx.get()), 0);
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    const auto messages = logged_messages([] { telemetry_print_device_info(); });
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "parent_mac:"), 1);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "wired port speed 0 :0"), 31);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "backhaul index :3"), 2);
    EXPECT_EQ(messages.front(), "device index : 0");
    EXPECT_EQ(messages.back(), "device index:1");
    telemetry_free_pre_collect_info();
    EXPECT_THAT(logged_messages([] { telemetry_print_device_info(); }), ElementsAre("no device list info"));
}

TEST_F(PreDeviceTest, HardwareVersions) {
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(telemetry_get_hwversion_info_from_ctx(ctx.get()), -1); }),
                ElementsAre("device info is NULL"));
    ASSERT_EQ(telemetry_init_device_info_list(1), 0);
    EXPECT_EQ(telemetry_get_hwversion_info_from_ctx(ctx.get()), 0); // no main node: nothing to fill
    EXPECT_STREQ(device(0).hw_version, "");
    root.add_command("getfirm", "printf '%0100d' 7");
    char version[65];
    EXPECT_EQ(telemetry_get_hwversion_info_from_getfirm(version), 0);
    EXPECT_EQ(version, std::string(64, '0'));
    EXPECT_THAT(logged_messages([] { EXPECT_EQ(telemetry_get_hwversion_info_from_getfirm(nullptr), -1); }),
                ElementsAre("hwversion params error"));
}
