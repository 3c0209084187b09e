// The bus object's answers become the driver's; what is missing, vanishes or is huge costs a line.
#include "iwinfo_devices.h"
#include "telemetry_platform_iwinfo.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "fake_services.h"
#include "sysroot.h"
#include "telemetry_handles.h"
#include "telemetry_log.h"

namespace {

constexpr char kWireless[] =
    "config wifi-device radio0\n\toption band 2g\nconfig wifi-device radio1\n\toption hwmode 11a\n"
    "config wifi-iface\n\toption device radio0\n\toption mode ap\n\toption ssid net\n\toption network lan\n"
    "config wifi-iface\n\toption device radio1\n\toption mode mesh\n\toption ssid guests\n"
    "config wifi-iface\n\toption device radio1\n\toption mode ap\n\toption ssid guests\n\tlist network "
    "Guest\n"
    "config wifi-iface\n\toption device radio1\n\toption mode sta\n\toption ssid net\n\toption ifname up0\n";

class PlatformIwinfo : public SysrootTest {
  protected:
    PlatformIwinfo() {
        telemetry_debug_level = TELEMETRY_LOG_ERROR;
        wlan_iwinfo_forget();
        fake_services.clear();
        root.write_config("wireless", kWireless);
        root.write_config("telemetry", "config telemetry 'basic'\n\toption wlan_driver 'iwinfo'\n");
        wlan_load_driver();
        fake_services["iwinfo.devices"].json = R"({"devices":["d"]})";
        info("net", 2437, "HE40");
        fake_services["iwinfo.survey"].json =
            R"({"results":[{"mhz":2412,"active_time":9,"busy_time":9},{"mhz":2437,"active_time":1000,"busy_time":300}]})";
        fake_services["iwinfo.assoclist"].json =
            R"({"results":[{"mac":"02:00:00:00:00:0A","signal":-60,"rx":{"rate":780000},"tx":{"rate":866700,"he":true}},)"
            R"({"mac":"x"},{"mac":"02:00:00:00:00:0B","rx":{"rate":6000,"ht":true}},{"mac":"02:00:00:00:00:0C"}]})";
    }
    ~PlatformIwinfo() override {
        wlan_platform_ops = &wlan_platform_ops_mtk;
    }
    static void info(const std::string &ssid, int mhz, const std::string &htmode,
                     const char *mode = "Master") {
        fake_services["iwinfo.info"].json = R"({"ssid":")" + ssid + R"(","channel":6,"frequency":)" +
                                            std::to_string(mhz) + R"(,"mode":")" + mode + R"(","htmode":")" +
                                            htmode + "\"}";
        wlan_iwinfo_forget();
    }
    std::string name_of(int band, int type) {
        char name[16] = "before";
        return wlan_get_band_if_name(band, type, name, sizeof(name)) == 1 ? name : "failed";
    }
    ClientStaInfo stations[4] = {};
    ClientStaList list = {0, 4, stations};
    uint32_t count = 0, number = 77;
    uint8_t byte = 77;
    double degrees = 77;
    BackhaulStats stats = {};
};

TEST_F(PlatformIwinfo, FindsInterfacesByBandNetworkAndRole) {
    EXPECT_EQ(name_of(0, 0), "d");
    EXPECT_EQ(name_of(0, 1) + name_of(1, 0) + name_of(0, 3), "");
    info("net", 2437, "HE40", "Master (VLAN)");
    EXPECT_EQ(name_of(0, 0), "");
    for (const auto &[network, type] : {std::pair("studiotech", 0), {"lan_IoT24", 2}, {"my_guest2", 1}}) {
        std::string wireless = kWireless;
        root.write_config("wireless", wireless.replace(wireless.find("lan"), 3, network));
        info("net", 2437, "HE40");
        EXPECT_EQ(name_of(0, type), "d") << network;
    }
    info("guests", 5180, "VHT160");
    EXPECT_EQ(name_of(1, 1) + name_of(1, 0), "d");
    ASSERT_EQ(wlan_get_wifi_bandwidth(&number), 1);
    EXPECT_EQ(number, 160u);
    info("guests", 5180, "HE99999");
    EXPECT_EQ(wlan_get_wifi_bandwidth(&number), 0); // no width that there is
    info("unknown", 5180, "NOHT", "Client");
    EXPECT_EQ(wlan_get_wifi_bandwidth(&number), 0); // no access point
    fake_services["iwinfo.devices"].json = R"({"devices":["up0"]})";
    wlan_iwinfo_forget();
    char name[16];
    EXPECT_EQ(wlan_get_sta_if_name(0, name, sizeof(name)), 0);
    ASSERT_EQ(wlan_get_sta_if_name(1, name, sizeof(name)), 1);
    EXPECT_STREQ(name, "up0");
    ASSERT_EQ(wlan_get_uplink_rate(name, &stats, &byte), 1);
    EXPECT_EQ(stats.tx * 10000 + stats.rx, 866 * 10000 + 780);
    EXPECT_EQ(stats.mac[5] * 1000 + byte, 10 * 1000 + 32);
    for (const char *signal : {"9223372036854775807", "300", "0"}) { // the rest is known
        fake_services["iwinfo.assoclist"].json =
            std::string(R"({"results":[{"mac":"02:00:00:00:00:0A","tx":{"rate":9000},"signal":)") + signal +
            "}]}";
        byte = 77;
        EXPECT_EQ(wlan_get_uplink_rate(name, &stats, &byte), 1) << signal;
        EXPECT_EQ(stats.tx * 1000 + byte, 9 * 1000 + 77) << signal;
    }
}

TEST_F(PlatformIwinfo, ChannelShareAndStations) {
    ASSERT_EQ(wlan_get_backhaul_ap_channel(0, &number), 1);
    EXPECT_EQ(number, 6u);
    // Since the start, since the last look, nothing passed, counters that start again.
    const std::tuple<int, int, int> looks[] = {
        {1000, 300, 30}, {1100, 400, 100}, {1100, 400, 100}, {10, 1, 10}};
    for (const auto &[active, busy, percent] : looks) {
        fake_services["iwinfo.survey"].json = R"({"results":[{"mhz":2437,"active_time":)" +
                                              std::to_string(active) + R"(,"busy_time":)" +
                                              std::to_string(busy) + "}]}";
        ASSERT_EQ(wlan_get_channel_util("d", &byte, 2, 1), 1);
        EXPECT_EQ(byte, percent);
    }
    // Another channel has counters of its own.
    auto &answer = fake_services["iwinfo.info"].json;
    answer.replace(answer.find("2437"), 4, "2412");
    iwinfo_forget_devices();
    fake_services["iwinfo.survey"].json = R"({"results":[{"mhz":2412,"active_time":5000,"busy_time":600}]})";
    ASSERT_EQ(wlan_get_channel_util("d", &byte, 2, 1), 1);
    EXPECT_EQ(byte, 12);
    ASSERT_EQ(wlan_get_band_client_sta_info("d", &list, &count), 1);
    ASSERT_EQ(count, 3u);
    const uint32_t expected[][4] = {{0xa, 866, 780, 2}, {0xb, 0, 6, 0}, {0xc, 0, 0, 3}};
    for (int i = 0; i < 3; i++) {
        const uint32_t found[] = {stations[i].mac[5], stations[i].txrate, stations[i].rxrate,
                                  stations[i].phymode};
        EXPECT_TRUE(std::equal(found, found + 4, expected[i])) << i;
    }
    // Two access points of a band and network, and no room for all.
    fake_services["iwinfo.devices"].json = R"({"devices":["e","d"]})";
    iwinfo_forget_devices();
    count = 0;
    EXPECT_EQ(
        logged_messages([&] { EXPECT_EQ(wlan_get_band_client_sta_info("d", &list, &count), 1); }).size(), 1u);
    EXPECT_EQ(count, 4u);
}

TEST_F(PlatformIwinfo, WhatIsMissingIsUnknown) {
    root.write("/sys/class/ieee80211/phy1/device/hwmon/hwmon2/temp1_input", "51900\n");
    root.write("/sys/class/thermal/thermal_zone0/temp", "105000\n");
    ASSERT_EQ(wlan_get_device_temperature("wifi1", &degrees), 1);
    EXPECT_EQ(degrees, 51);
    EXPECT_EQ(wlan_get_device_temperature("wifi0", &degrees), 0);
    ASSERT_EQ(wlan_get_cpu_temperature(&degrees), 1);
    EXPECT_EQ(degrees, 105);

    std::string many = R"({"devices":["a-name-of-16-chars")";
    for (int i = 0; i < 1000; i++)
        many += ",\"d\"";
    const std::pair<const char *, ServiceAnswer> cases[] = {
        {"devices", {.error = TELEMETRY_BUS_NO_OBJECT}},
        {"devices", {.error = TELEMETRY_BUS_CALL_FAILED}},
        {"devices", {.has_data = false}},
        {"devices", {.json = R"({"devices":{"d":1}})"}},
        {"devices", {.json = R"({"devices":[1,[]]})"}},
        {"info", {.error = TELEMETRY_BUS_CALL_FAILED}}, // the device vanished
        {"info", {.json = R"({"ssid":1,"frequency":"x","channel":[]})"}},
    };
    for (const auto &[method, answer] : cases) {
        const ServiceAnswer good = std::exchange(fake_services["iwinfo." + std::string(method)], answer);
        wlan_iwinfo_forget();
        const OutputCapture log;
        EXPECT_EQ(wlan_get_backhaul_ap_channel(0, &number) + wlan_get_channel_util("d", &byte, 2, 1), 0)
            << answer.json;
        EXPECT_GE(log.messages().size(), 1u);
        fake_services["iwinfo." + std::string(method)] = good;
    }
    fake_services["iwinfo.devices"].json = many + "]}";
    wlan_iwinfo_forget();
    fake_service_calls.clear();
    EXPECT_EQ(wlan_get_backhaul_ap_channel(0, &number), 1);
    EXPECT_LE(fake_service_calls.size(), 33u);

    // A service that is slow at the first device is not asked for the others.
    fake_services["iwinfo.info"].fill = [](blob_buf *) { usleep(1000000); };
    wlan_iwinfo_forget();
    fake_service_calls.clear();
    EXPECT_EQ(wlan_get_backhaul_ap_channel(0, &number), 0);
    EXPECT_EQ(wlan_get_band_client_sta_info("d", &list, &count), 0);
    EXPECT_EQ(fake_service_calls.size(), 2u);

    root.write_config("telemetry", "config telemetry 'basic'\n\toption wlan_driver 'magic'\n");
    expect_logged(0, {"telemetry.basic.wlan_driver is no driver that is known: magic"}, [] {
        wlan_load_driver();
        return 0;
    });
    EXPECT_EQ(wlan_platform_ops, &wlan_platform_ops_mtk);
}

} // namespace
