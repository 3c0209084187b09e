// The answers to the main node's queries, byte for byte, from a root directory, services on the bus and a
// driver in the place of a node's own.
#include "telemetry_ubus.h"

#include <cstdarg>
#include <cstring>

#include <sys/ioctl.h>
#include <linux/wireless.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bus_daemon.h"
#include "fake_services.h"
#include "sysroot.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::StartsWith;

extern "C" unsigned sleep(unsigned) {
    return 0;
}

// --- The driver: two stations behind "rax2", an uplink, a channel; interfaces of other names are refused ---

static bool driver_answers;

template <typename T> static void put(char *answer, size_t at, T value) {
    memcpy(answer + at, &value, sizeof(value));
}

static void answer_stations(char *answer, const char *ifname) {
    if (strcmp(ifname, "rax2") != 0)
        return;
    put<uint16_t>(answer, 0, 2);
    for (size_t i = 0; i < 2; ++i) {
        char *entry = answer + 8 + 32 * i;
        memcpy(entry, "\x02\x00\x00\x00\x00", 5);
        entry[5] = static_cast<char>(0xa1 + i);
        put<uint64_t>(entry, 8, 1200 + i);
        put<uint64_t>(entry, 16, 600 + i);
        put<uint16_t>(entry, 26, 4);
    }
}

extern "C" int ioctl(int, unsigned long, ...) noexcept;
extern "C" int ioctl(int, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    auto *wireless = va_arg(arguments, iwreq *);
    va_end(arguments);
    if (!driver_answers || request != 0x8be1)
        return -1;
    auto *answer = static_cast<char *>(wireless->u.data.pointer);
    switch (wireless->u.data.flags) {
    case 0x9a1:
        put<int32_t>(answer, 0, 61);
        return 0;
    case 0x7b0:
        put<uint8_t>(answer, 0, 33);
        return 0;
    case 0x7b1:
        answer_stations(answer, wireless->ifr_name);
        return 0;
    case 0x7b2:
        put<uint8_t>(answer, 0, strcmp(wireless->ifr_name, "ra0") == 0 ? 6 : 149);
        return 0;
    case 0x7b4:
        put<uint64_t>(answer, 8, 866);
        put<uint64_t>(answer, 16, 780);
        put<int8_t>(answer, 24, -52);
        return 0;
    default:
        return -1;
    }
}

class TelemetryUbusQueryTest : public SysrootTest {
  protected:
    TelemetryUbusQueryTest() : bus(root.path(kBusSocketPath)) {
        uloop_init();
        fake_services.clear();
        driver_answers = true;
        copy_text(ctx.dev_mac, "0A0B0C0D0E0F");
    }
    ~TelemetryUbusQueryTest() override {
        uloop_done();
        telemetry_free_ubus();
    }
    // The reply; what the call logs goes to `messages`.
    BusReply call(const char *method, const std::string &arguments = "{}") {
        if (telemetry_ubus_ctx() == nullptr)
            telemetry_init_ubus(&ctx);
        BusReply reply;
        messages =
            logged_messages([&] { reply = LoopClient(bus.socket()).call("telemetry", method, arguments); });
        return reply;
    }
    // A satellite with three Ethernet ports, one of them idle.
    void lay_out_links() {
        root.write(kWorkModePath, R"({"work_mode":"RE","parent_mac":"02:00:00:00:00:01"})");
        root.write("/etc/profile.d/interfaces", "config iface 'a'\n\toption type 'eth'\n\toption port '1'\n"
                                                "config iface 'b'\n\toption type 'eth'\n\toption port '2'\n"
                                                "config iface 'w'\n\toption type 'wifi'\n\toption port '9'\n"
                                                "config iface 'c'\n\toption type 'eth'\n\toption port '3'\n");
        root.write(kWirePortScript,
                   "#!/bin/sh\ncase \"$1$2\" in\nwan_num) echo 3;;\nport_link_status2) echo 0;;\n"
                   "port_link_status*) echo 1;;\nport_speed1) echo 1000;;\n*) echo 100;;\nesac\n");
        std::filesystem::permissions(root.path(kWirePortScript), std::filesystem::perms::owner_all);
        root.add_command("getfirm", "echo 1.2");
        root.add_command("ping", "echo \"round-trip min/avg/max = 0.1/0.2/0.3 ms\"; echo \"$*\" >>$0.log");
        root.add_command("ping6", "echo \"round-trip min/avg/max = 0.1/0.2/0.3 ms\"; echo \"$*\" >>$0.log");
    }

    BusDaemon bus;
    TelemetryCtx ctx = {};
    std::vector<std::string> messages;
};

TEST_F(TelemetryUbusQueryTest, ClientsComeFromTheDriverWhenTheServiceKnowsAny) {
    const auto know = [](int clients) {
        std::string members;
        for (int i = 0; i < clients; ++i)
            members +=
                (i > 0 ? ",\"client" : "\"client") + std::to_string(i) + R"(":{"mac":"02-00-00-00-00-A1"})";
        fake_services["client_mgmt.get_myself"].json = "{" + members + "}";
    };
    know(1); // the driver may know more
    EXPECT_EQ(
        call("collect_client_info").json,
        R"({"client_sta_list":[{"mac_addr":"02-00-00-00-00-A1","pymode":6,"ng_rxrate":600,"ng_txrate":1200},)"
        R"({"mac_addr":"02-00-00-00-00-A2","pymode":6,"ng_rxrate":601,"ng_txrate":1201}],"err_code":0})");
    know(256); // 0 in 8 bits
    EXPECT_THAT(call("collect_client_info").json, HasSubstr("02-00-00-00-00-A2"));
    know(0);
    EXPECT_EQ(call("collect_client_info").json, R"({"client_sta_list":[],"err_code":0})");
    fake_services.clear();
    EXPECT_EQ(call("collect_client_info").json, R"({"err_code":-1})");
    EXPECT_THAT(messages, Contains("get cur device client num falied"));
}

TEST_F(TelemetryUbusQueryTest, SystemFiguresAreWholeNumbersWithMacAndLowPower) {
    root.write_config("sysmode", "config sysmode 'sysmode'\n\toption mode 'repeater'\n");
    root.write(kProcStatPath, "cpu  10 20 30 40 50 60 70 80 90 100\n");
    root.write(kProcMeminfoPath, "MemTotal: 1000 kB\nMemFree: 300 kB\nBuffers: 50 kB\nCached: 100 kB\n"
                                 "SwapCached: 50 kB\n");
    root.write(kConntrackCountPath, "77\n");
    root.write(kScalingFreqPath, "1350000\n");
    root.write(kThermalZonePath, "45123\n");
    fake_services["low_power.telemetry_get"].json =
        R"({"res":"success","associate_time":1700,"associate_duration":12})";
    EXPECT_EQ(call("collect_system_info").json,
              R"({"sys_mode":"repeater","cpu_usage":0,"cpu_freq":1350000,"mem_total":1000,"mem_usage":50,)"
              R"("mem_free":300,"wifi0_temp":61,"wifi1_temp":61,"wifi2_temp":61,"cpu_temp":45,"nat_num":77,)"
              R"("mac":"0A-0B-0C-0D-0E-0F",)"
              R"("lowpower":{"res":"success","associate_time":1700,"associate_duration":12},"err_code":0})");
    driver_answers = false;
    fake_services.clear();
    const std::string without = call("collect_system_info").json;
    EXPECT_THAT(without, HasSubstr(R"("wifi0_temp":-1,"wifi1_temp":-1,"wifi2_temp":-1)"));
    EXPECT_THAT(without, HasSubstr(R"("lowpower":{"res":"fail","associate_time":0,"associate_duration":0})"));
}

TEST_F(TelemetryUbusQueryTest, DeviceDataOfASatelliteAndOfTheMainNode) {
    lay_out_links();
    const std::string common =
        R"("ping_delay":"0.200000","hw_version":"1.2","backhaul_info":[)"
        R"({"backhaul_type":"2.4G","backhaul_rssi":40,"backhaul_txrate":866,"backhaul_rxrate":780,)"
        R"("backhaul_channel":6,"backhaul_channle_util":33},)"
        R"({"backhaul_type":"5G","backhaul_rssi":40,"backhaul_txrate":866,"backhaul_rxrate":780,)"
        R"("backhaul_channel":149,"backhaul_channle_util":33}],"mac":"0A-0B-0C-0D-0E-0F","err_code":0})";
    EXPECT_EQ(call("collect_device_info", R"({"ip_ap_addr":"192.168.0.1"})").json,
              R"({"wired_port_used_num":2,"port_info":[{"port_num":1,"port_speed":1000},)"
              R"({"port_num":2,"port_speed":0},{"port_num":3,"port_speed":100}],)"
              R"("parent_mac":"02-00-00-00-00-01",)" +
                  common);
    EXPECT_EQ(root.read("/bin/ping.log"), "-c 3 192.168.0.1\n");

    // The main node's WAN port counts as used, and its speed is not read.
    root.write(kWorkModePath, R"({"work_mode":"FAP"})");
    EXPECT_THAT(
        call("collect_device_info", R"({"ip_ap_addr":"192.168.0.1"})").json,
        StartsWith(R"({"wired_port_used_num":2,"port_info":[{"port_num":1,"port_speed":1000},)"
                   R"({"port_num":2,"port_speed":0},{"port_num":3,"port_speed":0}],"parent_mac":"",)"));

    EXPECT_THAT(call("collect_device_info", R"({"ip_ap_addr":"fd00::1"})").json,
                HasSubstr(R"("ping_delay":"0.300000")"));
    EXPECT_EQ(root.read("/bin/ping6.log"), "-c 3 fd00::1\n");
}

TEST_F(TelemetryUbusQueryTest, WhatCannotBeMeasuredIsSaidAndTheRestIsSent) {
    lay_out_links();
    root.remove("/etc/profile.d/interfaces");
    root.remove(kWorkModePath);
    driver_answers = false;
    const std::string reply = call("collect_device_info", R"({"ip_ap_addr":"192.168.0.1"})").json;
    EXPECT_THAT(
        reply,
        StartsWith(R"({"wired_port_used_num":-1,"port_info":[],"parent_mac":"","ping_delay":"0.200000",)"
                   R"("hw_version":"1.2","backhaul_info":[{"backhaul_type":"2.4G","backhaul_rssi":0,)"));
    EXPECT_THAT(reply, HasSubstr(R"("mac":"0A-0B-0C-0D-0E-0F","err_code":-1})"));
    for (const char *message :
         {"get wired port num  failed", "get parent mac failed", "get bakchaul info failed"})
        EXPECT_THAT(messages, Contains(message));
}

TEST_F(TelemetryUbusQueryTest, OnlyAnAddressReachesThePing) {
    lay_out_links();
    const std::pair<const char *, const char *> cases[] = {
        {R"({})", "parse blobmsg failed"},
        {R"({"other":"192.168.0.1"})", "ip_ap_addr is NULL!"},
        {R"({"ip_ap_addr":3232235521})", "ip_ap_addr is NULL!"},
        {R"({"ip_ap_addr":""})", "telemetry ip_ap_addr is invalid."},
        {R"({"ip_ap_addr":"192.168.0.1;touch /tmp/x"})", "telemetry ip_ap_addr is invalid."},
        {R"({"ip_ap_addr":"-f"})", "telemetry ip_ap_addr is invalid."},
        {R"({"ip_ap_addr":"192.168.0.256"})", "telemetry ip_ap_addr is invalid."},
        {R"({"ip_ap_addr":"router.lan"})", "telemetry ip_ap_addr is invalid."},
    };
    for (const auto &[arguments, message] : cases) {
        SCOPED_TRACE(arguments);
        const BusReply reply = call("collect_device_info", arguments);
        EXPECT_EQ(reply.status, UBUS_STATUS_INVALID_ARGUMENT);
        EXPECT_EQ(reply.json, R"({"err_code":-1})");
        EXPECT_THAT(messages, Contains(message));
    }
    EXPECT_FALSE(root.exists("/bin/ping.log"));
    EXPECT_FALSE(root.exists("/bin/ping6.log"));
}

// What these find is tested with their records; here is how it is answered.
TEST_F(TelemetryUbusQueryTest, UsbAndAfcState) {
    const std::string mac = R"("mac":"0A-0B-0C-0D-0E-0F","err_code":0})";
    root.write_backup("");
    EXPECT_EQ(call("collect_usb_info").json,
              R"({"usb_enable":0,"config_is_change":0,"usb_type":0,"vendor_id":"","product_id":"",)" + mac);
    const std::string device = std::string(kUsbDeviceDir) + "/1-1.2";
    root.write(device + "/bDeviceClass", "00\n");
    root.write(device + "/idVendor", "0781\n");
    root.write(device + "/idProduct", "55a9\n");
    root.write(device + ":1.0/bInterfaceClass", "08\n");
    root.write_config("usb", "config settings 'settings'\n\toption usb_enable 'on'\n");
    const std::string storage = R"("usb_type":1,"vendor_id":"0781","product_id":"55a9",)" + mac;
    EXPECT_EQ(call("collect_usb_info").json, R"({"usb_enable":1,"config_is_change":1,)" + storage);
    EXPECT_EQ(call("collect_usb_info").json, R"({"usb_enable":1,"config_is_change":0,)" + storage);

    EXPECT_EQ(call("collect_afc_info").json, R"({"en":0,)" + mac);
    root.write_config("afc", "config afc 'afc'\n\toption enable '1'\n");
    root.write(kAfcStatusPath,
               R"({"state":"granted","expires_in":3600,"location":{"lat":1.5},"channels":[)"
               R"({"op_class":131,"channel":5,"max_eirp":30.5},{"channel":"x"},{"channel":9}]})");
    EXPECT_EQ(call("collect_afc_info").json,
              R"({"en":1,"st":"granted","ex":3600,"cl":[{"oc":131,"ch":5,"pw":30.500000},{"ch":9}],)" + mac);
    root.write(kAfcStatusPath, "{\"state\":");
    EXPECT_EQ(call("collect_afc_info").json, R"({"en":1,)" + mac);
}
