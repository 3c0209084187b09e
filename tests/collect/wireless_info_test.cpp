// The wireless collectors on real configuration files, with an operation table of this file for the driver.
#include "collectors.h"

#include <gmock/gmock.h>

#include "wlan_platform.h"
#include "sysroot.h"
#include "telemetry_json.h"
#include "telemetry_log.h"

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

constexpr char kWifi[] = R"(
config wifi 'ap'
    option enable '1'
    option enable_2g '1'
    option hidessid 'off'
    option enc_type 'wpa3+wpa2'
    option ssid 'Home_7'

config radio 'radio_2g'
    option channel 'auto'
    option htmode 'HT40'

config radio 'radio_5g'
    option channel '44'

config wifi 'guest'
    option enable '1'
    option enable_2g '0'
    option enc_type 'none'
    option host_isolation 'on'
)";

class WirelessInfo : public SysrootTest {
  protected:
    WirelessInfo() {
        telemetry_debug_level = TELEMETRY_LOG_ERROR;
        wlan_platform_ops = &kOps;
        g_channels[0] = 6;
        g_channels[1] = 44;
        g_bandwidth = 80;
        root.write_config("wifi", kWifi);
        root.write_backup("");
    }
    ~WirelessInfo() override {
        wlan_platform_ops = &wlan_platform_ops_mtk;
    }
    // The payload's text; empty when nothing was reported.
    std::string collect(TelemetryCollector collector) {
        const JsonPtr payload(cJSON_CreateObject());
        count = 0;
        if (collector(nullptr, payload.get(), &count) != 0)
            return {};
        return telemetry_json_print(payload.get()).get();
    }
    // kWifi with one text in the place of another.
    void change(const std::string &from, const std::string &to) {
        std::string text = root.read("/etc/config/wifi");
        ASSERT_NE(text.find(from), std::string::npos) << from;
        root.write_config("wifi", text.replace(text.find(from), from.size(), to));
    }
    uint32_t count = 0;
};

TEST_F(WirelessInfo, ReportsOnlyChangesOfSettings) {
    EXPECT_EQ(collect(collect_wireless_host_info),
              R"({"detail":[{"ctype":"2.4G","en":1,"he":0,"cn":0,"bw":40,"em":4,"sl":6,"st":7,"acn":6},)"
              R"({"ctype":"5G","en":1,"he":0,"cn":44,"bw":80,"em":4,"sl":6,"st":7,"acn":44}]})");
    EXPECT_EQ(count, 18U);
    g_channels[0] = 11;
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(collect(collect_wireless_host_info), ""); }),
                Contains("wireless info dont change!"))
        << "the channel in use is no setting";
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
        std::string from, to;
        const char *expected;
    } cases[] = {
        {"option enable '1'", "option enable '0'", R"([{"ctype":"2.4G","en":0},{"ctype":"5G","en":0}])"},
        {"option enable '1'", "option enable 'on'", R"([{"ctype":"2.4G","en":0},{"ctype":"5G","en":0}])"},
        {"option enable_2g '1'", "option enable_2g 'yes'",
         R"([{"ctype":"2.4G","en":0},{"ctype":"5G","en":1,)"},
        {"option enable_2g '1'", "option enable_5g '0'", R"({"ctype":"5G","en":0}])"},
        {"option enc_type 'wpa3+wpa2'", "option enc_type 'none'", R"("em":0,)"},
        {"option enc_type 'wpa3+wpa2'", "option enc_type 'wpa2'", R"("em":1,)"},
        {"option enc_type 'wpa3+wpa2'", "option enc_type 'wpa2+wpa'", R"("em":2,)"},
        {"option enc_type 'wpa3+wpa2'", "option enc_type 'wpa3+wpa22'", R"("em":-1,)"},
        {"option htmode 'HT40'", "option htmode 'HT80'", R"("cn":0,"bw":80,)"},
        {"option htmode 'HT40'", "option htmode 'VHT80'", R"("cn":0,"bw":0,)"},
        {"option htmode 'HT40'", "option htmode 'HT'", R"("cn":0,"bw":0,)"},
        {"option htmode 'HT40'", "option htmode 'HT99999999999999999999'", R"("cn":0,"bw":-1,)"},
        {"option ssid 'Home_7'", "option ssid 'abc'", R"("sl":3,"st":2,)"},
        {"option ssid 'Home_7'", "option ssid '0042'", R"("sl":4,"st":1,)"},
        {"option ssid 'Home_7'", "option ssid '\xC3\xA4'", R"("sl":2,"st":4,)"},
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
    change("    option ssid 'Home_7'\n", "");
    change("    option hidessid 'off'\n", "");
    g_bandwidth = 0;
    g_channels[1] = 0;
    std::string text;
    const auto said = logged_messages([&] { text = collect(collect_wireless_host_info); });
    EXPECT_EQ(text, R"({"detail":[{"ctype":"2.4G","en":1,"cn":0,"bw":40,"em":4,"acn":6},)"
                    R"({"ctype":"5G","en":1,"cn":44,"bw":0,"em":4}]})");
    EXPECT_EQ(count, 11U);
    EXPECT_THAT(said,
                ElementsAre("uci read wifi ap hidessid failed", "get ssid len failed!", "get sl failed",
                            "get ssid type failed!", "get st failed", "uci read wifi ap hidessid failed",
                            "get bandwidth failed!", "get ssid len failed!", "get sl failed",
                            "get ssid type failed!", "get st failed"));

    root.write_config("wifi", std::string(200000, 'x'));
    EXPECT_EQ(collect(collect_wireless_host_info),
              R"({"detail":[{"ctype":"2.4G","en":0},{"ctype":"5G","en":0}]})");
}

} // namespace
