// The wireless collectors on real configuration files, with an operation table of this file for the driver.
#include "collector_test.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

// What the driver of this test says: 0 is a failed query.
uint32_t g_channels[2];
uint32_t g_bandwidth;

WlanPlatformOps make_ops() {
    WlanPlatformOps ops = {};
    ops.get_backhaul_ap_channel = [](uint32_t band, uint32_t *channel) {
        *channel = g_channels[band];
        return *channel != 0 ? 1 : 0;
    };
    ops.get_wifi_bandwidth = [](uint32_t *bandwidth) {
        *bandwidth = g_bandwidth;
        return g_bandwidth != 0 ? 1 : 0;
    };
    return ops;
}
const WlanPlatformOps kOps = make_ops();

constexpr char kWifi[] =
    "config wifi 'ap'\n option enable '1'\n option enable_2g '1'\n option hidessid 'off'\n"
    " option enc_type 'wpa3+wpa2'\n option ssid 'Home_7'\n"
    "config radio 'radio_2g'\n option channel 'auto'\n option htmode 'HT40'\n"
    "config radio 'radio_5g'\n option channel '44'\n"
    "config wifi 'guest'\n option enable '1'\n option enable_2g '0'\n option enc_type 'none'\n"
    " option host_isolation 'on'\n";

class WirelessInfo : public CollectorTest {
  protected:
    WirelessInfo() {
        wlan_platform_ops = &kOps;
        g_channels[0] = 6;
        g_channels[1] = 44;
        g_bandwidth = 80;
        root.write_config("wifi", kWifi);
    }
    // kWifi with one text in the place of another.
    void change(const std::string &from, const std::string &to) {
        std::string text = root.read("/etc/config/wifi");
        ASSERT_NE(text.find(from), std::string::npos) << from;
        root.write_config("wifi", text.replace(text.find(from), from.size(), to));
    }
};

TEST_F(WirelessInfo, ReportsOnlyChangesOfSettings) {
    EXPECT_EQ(collect(collect_wireless_host_info),
              R"({"detail":[{"ctype":"2.4G","en":1,"he":0,"cn":0,"bw":40,"em":4,"sl":6,"st":7,"acn":6},)"
              R"({"ctype":"5G","en":1,"he":0,"cn":44,"bw":80,"em":4,"sl":6,"st":7,"acn":44}]})");
    EXPECT_EQ(count, 18U);
    g_channels[0] = 11;
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    collect(collect_wireless_host_info);
    EXPECT_THAT(said, Contains("wireless info dont change!")) << "the channel in use is no setting";
    telemetry_debug_level = TELEMETRY_LOG_ERROR;
    EXPECT_EQ(count, 0U);

    EXPECT_EQ(collect(collect_wireless_guest_info),
              R"({"detail":[{"ctype":"2.4G","en":0},{"ctype":"5G","en":1,"em":0,"iso":1,"acn":44}]})");
    EXPECT_EQ(count, 7U);
    EXPECT_EQ(collect(collect_wireless_iot_info),
              R"({"detail":[{"ctype":"2.4G","en":0},{"ctype":"5G","en":0}]})")
        << "a package that is not there";
    root.write_config("iot_wifi", "config wifi 'iot'\n\toption enable '1'\n\toption enc_type 'wpa'\n");
    EXPECT_EQ(
        collect(collect_wireless_iot_info),
        R"({"detail":[{"ctype":"2.4G","en":1,"em":-1,"acn":11},{"ctype":"5G","en":1,"em":-1,"acn":44}]})");
}

TEST_F(WirelessInfo, TurnsEverySettingIntoItsCode) {
    const struct {
        std::string from, to; // an option of the home network and another in its place
        const char *expected;
    } cases[] = {
        {"enable '1", "enable '0", R"([{"ctype":"2.4G","en":0},{"ctype":"5G","en":0}])"},
        {"enable_2g '1", "enable_2g 'yes", R"([{"ctype":"2.4G","en":0},{"ctype":"5G","en":1,)"},
        {"enable_2g '1", "enable_5g '0", R"({"ctype":"5G","en":0}])"},
        {"wpa3+wpa2", "none", R"("em":0,)"},
        {"wpa3+wpa2", "wpa2+wpa", R"("em":2,)"},
        {"wpa3+wpa2", "wpa3+wpa22", R"("em":-1,)"},
        {"HT40", "HT80", R"("cn":0,"bw":80,)"},
        {"HT40", "HT99999999999999999999", R"("cn":0,"bw":-1,)"},
        {"Home_7", "abc", R"("sl":3,"st":2,)"},
        {"Home_7", "\xC3\xA4", R"("sl":2,"st":4,)"},
        {"Home_7", std::string(5000, 'x'), R"("sl":127,"st":2,)"},
    };
    for (const auto &one : cases) {
        root.write_config("wifi", kWifi);
        root.write_backup("");
        change(one.from, one.to);
        EXPECT_THAT(collect(collect_wireless_host_info), HasSubstr(one.expected)) << one.to;
    }
}

TEST_F(WirelessInfo, LeavesOutWhatCannotBeRead) {
    change(" option ssid 'Home_7'\n", "");
    change(" option hidessid 'off'\n", "");
    g_bandwidth = 0;
    g_channels[1] = 0;
    EXPECT_EQ(collect(collect_wireless_host_info),
              R"({"detail":[{"ctype":"2.4G","en":1,"cn":0,"bw":40,"em":4,"acn":6},)"
              R"({"ctype":"5G","en":1,"cn":44,"bw":0,"em":4}]})");
    EXPECT_EQ(count, 11U);
    EXPECT_THAT(said,
                ElementsAre("uci read wifi ap hidessid failed", "get ssid len failed!", "get sl failed",
                            "get ssid type failed!", "get st failed", "uci read wifi ap hidessid failed",
                            "get bandwidth failed!", "get ssid len failed!", "get sl failed",
                            "get ssid type failed!", "get st failed"));
}

} // namespace
