// The answers to the main node's queries, byte for byte, where a part of them cannot be had. The whole ones
// are what tests/e2e/ reads in the mesh's records.
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

// The driver knows two stations behind "rax2", and nothing else.
extern "C" int ioctl(int, unsigned long, ...) noexcept;
extern "C" int ioctl(int, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    auto *wireless = va_arg(arguments, iwreq *);
    va_end(arguments);
    if (wireless->u.data.flags != 0x7b1 || strcmp(wireless->ifr_name, "rax2") != 0)
        return -1;
    auto *answer = static_cast<char *>(wireless->u.data.pointer);
    answer[0] = 2;
    for (uint64_t i = 0; i < 2; ++i) {
        char *entry = answer + 8 + 32 * i;
        memcpy(entry, i == 0 ? "\x02\x00\x00\x00\x00\xa1" : "\x02\x00\x00\x00\x00\xa2", 6);
        const uint64_t rates[] = {1200 + i, 600 + i};
        memcpy(entry + 8, rates, sizeof(rates));
        entry[26] = 4;
    }
    return 0;
}

class TelemetryUbusQueryTest : public SysrootTest {
  protected:
    TelemetryUbusQueryTest() : bus(root.path(kBusSocketPath)) {
        uloop_init();
        fake_services.clear();
        copy_text(ctx.dev_mac, "0A0B0C0D0E0F");
        telemetry_init_ubus(&ctx);
    }
    ~TelemetryUbusQueryTest() override {
        uloop_done();
        telemetry_free_ubus();
    }
    // The reply; what the call logs goes to `messages`.
    BusReply call(const char *method, const std::string &arguments = "{}") {
        BusReply reply;
        messages =
            logged_messages([&] { reply = LoopClient(bus.socket()).call("telemetry", method, arguments); });
        return reply;
    }
    std::string device_info(const char *address = "192.168.0.1") {
        return call("collect_device_info", std::string(R"({"ip_ap_addr":")") + address + R"("})").json;
    }

    BusDaemon bus;
    TelemetryCtx ctx = {};
    std::vector<std::string> messages;
};

TEST_F(TelemetryUbusQueryTest, ClientsComeFromTheDriverWhenTheServiceKnowsAny) {
    const auto ask = [&](int clients) {
        std::string members;
        for (int i = 0; i < clients; ++i)
            members += (i > 0 ? ",\"c" : "\"c") + std::to_string(i) + R"(":{"mac":"02-00-00-00-00-A1"})";
        fake_services["client_mgmt.get_myself"].json = "{" + members + "}";
        return call("collect_client_info").json;
    };
    // The driver may know more; 256 is 0 in 8 bits.
    for (const int known : {1, 256})
        EXPECT_EQ(
            ask(known),
            R"({"client_sta_list":[{"mac_addr":"02-00-00-00-00-A1","pymode":6,"ng_rxrate":600,"ng_txrate":1200},)"
            R"({"mac_addr":"02-00-00-00-00-A2","pymode":6,"ng_rxrate":601,"ng_txrate":1201}],"err_code":0})");
    EXPECT_EQ(ask(0), R"({"client_sta_list":[],"err_code":0})");
    fake_services.clear();
    EXPECT_EQ(call("collect_client_info").json, R"({"err_code":-1})");
    EXPECT_THAT(messages, Contains("get cur device client num falied"));
}

TEST_F(TelemetryUbusQueryTest, SystemFiguresWithoutDriverAndLowPower) {
    root.write_config("sysmode", "config sysmode 'sysmode'\n\toption mode 'repeater'\n");
    root.write(kProcStatPath, "cpu  10 20 30 40 50 60 70 80 90 100\n");
    root.write(kProcMeminfoPath, "MemTotal: 1000 kB\nMemFree: 300 kB\nBuffers: 50 kB\nCached: 100 kB\n"
                                 "SwapCached: 50 kB\n");
    root.write(kConntrackCountPath, "77\n");
    root.write(kThermalZonePath, "45123\n");
    EXPECT_EQ(call("collect_system_info").json,
              R"({"sys_mode":"repeater","cpu_usage":0,"cpu_freq":0,"mem_total":1000,"mem_usage":50,)"
              R"("mem_free":300,"wifi0_temp":-1,"wifi1_temp":-1,"wifi2_temp":-1,"cpu_temp":45,"nat_num":77,)"
              R"("mac":"0A-0B-0C-0D-0E-0F",)"
              R"("lowpower":{"res":"fail","associate_time":0,"associate_duration":0},"err_code":0})");
}

TEST_F(TelemetryUbusQueryTest, DeviceDataWithoutDriverProfileAndParent) {
    root.write("/etc/profile.d/interfaces", "config iface 'a'\n\toption type 'eth'\n\toption port '1'\n"
                                            "config iface 'w'\n\toption type 'wifi'\n\toption port '9'\n"
                                            "config iface 'c'\n\toption type 'eth'\n\toption port '2'\n");
    root.write(kWirePortScript, "#!/bin/sh\ncase $1 in wan_num) echo 2;; *) echo 1;; esac\n");
    std::filesystem::permissions(root.path(kWirePortScript), std::filesystem::perms::owner_all);
    root.add_command("getfirm", "echo 1.2");
    for (const char *tool : {"ping", "ping6"})
        root.add_command(tool, "echo \"round-trip min/avg/max = 0.1/0.2/0.3 ms\"; echo \"$*\" >>$0.log");
    const std::string ports = R"({"wired_port_used_num":2,"port_info":[{"port_num":1,"port_speed":1},)";
    const std::string rest = R"("hw_version":"1.2","backhaul_info":[)"
                             R"({"backhaul_type":"2.4G","backhaul_rssi":0,"backhaul_txrate":0,)";

    root.write(kWorkModePath, R"({"work_mode":"RE","parent_mac":"02:00:00:00:00:01"})");
    const std::string satellite = device_info();
    EXPECT_THAT(satellite, StartsWith(ports +
                                      R"({"port_num":2,"port_speed":1}],)"
                                      R"("parent_mac":"02-00-00-00-00-01","ping_delay":"0.200000",)" +
                                      rest));
    EXPECT_THAT(satellite, HasSubstr(R"("mac":"0A-0B-0C-0D-0E-0F","err_code":-1})"));
    EXPECT_THAT(messages, Contains("get bakchaul info failed"));
    // The main node's WAN port counts as used, and its speed is not read.
    root.write(kWorkModePath, R"({"work_mode":"FAP"})");
    EXPECT_THAT(device_info("fd00::1"), StartsWith(ports +
                                                   R"({"port_num":2,"port_speed":0}],"parent_mac":"",)"
                                                   R"("ping_delay":"0.300000",)" +
                                                   rest));
    EXPECT_EQ(root.read("/bin/ping.log") + root.read("/bin/ping6.log"), "-c 3 192.168.0.1\n-c 3 fd00::1\n");
    root.remove("/etc/profile.d/interfaces");
    root.remove(kWorkModePath);
    EXPECT_THAT(device_info(), StartsWith(R"({"wired_port_used_num":-1,"port_info":[],"parent_mac":"",)"));
    for (const char *message : {"get wired port num  failed", "get parent mac failed"})
        EXPECT_THAT(messages, Contains(message));
}

TEST_F(TelemetryUbusQueryTest, OnlyAnAddressReachesThePing) {
    root.add_command("ping", "touch $0.log");
    const char invalid[] = "telemetry ip_ap_addr is invalid.";
    const std::pair<const char *, const char *> cases[] = {
        {R"({})", "parse blobmsg failed"},
        {R"({"other":"192.168.0.1"})", "ip_ap_addr is NULL!"},
        {R"({"ip_ap_addr":3232235521})", "ip_ap_addr is NULL!"},
        {R"({"ip_ap_addr":"192.168.0.1;touch /tmp/x"})", invalid},
        {R"({"ip_ap_addr":"router.lan"})", invalid},
    };
    for (const auto &[arguments, message] : cases) {
        SCOPED_TRACE(arguments);
        const BusReply reply = call("collect_device_info", arguments);
        EXPECT_EQ(reply.status, UBUS_STATUS_INVALID_ARGUMENT);
        EXPECT_EQ(reply.json, R"({"err_code":-1})");
        EXPECT_THAT(messages, Contains(message));
    }
    EXPECT_FALSE(root.exists("/bin/ping.log"));
}

// What these find is tested with their records; here is how it is answered.
TEST_F(TelemetryUbusQueryTest, UsbAndAfcState) {
    const std::string mac = R"("mac":"0A-0B-0C-0D-0E-0F","err_code":0})";
    root.write_backup("");
    EXPECT_EQ(call("collect_usb_info").json,
              R"({"usb_enable":-1,"config_is_change":0,"usb_type":0,"vendor_id":"","product_id":"",)" + mac);
    EXPECT_EQ(call("collect_afc_info").json, "{" + mac);
    root.write_config("afc", "config afc 'afc'\n\toption enable '1'\n");
    root.write(kAfcStatusPath, R"({"state":"granted","expires_in":3600,"channels":[)"
                               R"({"op_class":131,"channel":5,"max_eirp":30.5},{"channel":9}]})");
    EXPECT_EQ(call("collect_afc_info").json,
              R"({"en":1,"st":"granted","ex":3600,"cl":[{"oc":131,"ch":5,"pw":30.500000},{"ch":9}],)" + mac);
    root.write(kAfcStatusPath, "{\"state\":");
    EXPECT_EQ(call("collect_afc_info").json, R"({"en":1,)" + mac);
}
