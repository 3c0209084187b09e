// "internet_info": the network daemon's answers, the device's counters, and which hosts are asked for an
// echo.
#include "collector_test.h"
#include "fake_services.h"
#include "telemetry_uci.h"

using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

const char kWan[] =
    R"({"up":true,"pending":false,"uptime":86400,"l3_device":"eth1","ipv4-address":[{"address":"hush"}],)"
    R"("route":[{"target":"10.0.0.0","mask":8,"nexthop":"10.0.0.9"},)"
    R"({"target":"0.0.0.0","mask":1,"nexthop":"10.0.0.8"},{"target":"0.0.0.0","mask":0,"nexthop":"198.51.100.1"}]})";
const char kWan6[] = R"({"up":true,"uptime":7,"route":[{"target":"::","mask":0,"nexthop":"2001:db8::1"}]})";
const char kCounters[] = R"(,"rb":1,"tb":2,"rp":3,"tp":4,"re":5,"te":6,"rd":7,"td":8)";

class InternetInfo : public CollectorTest {
  protected:
    InternetInfo() {
        set_status(kWan, kWan6);
        put("network", "config interface wan;option wan_type dynamic;option proto dhcp;option mtu 1480;"
                       "option peerdns 1;option password hush;config interface wan6;option proto dhcpv6;");
        root.write_config("telemetry", "config internet internet\n");
        int value = 1;
        for (const char *file : {"rx_bytes", "tx_bytes", "rx_packets", "tx_packets", "rx_errors", "tx_errors",
                                 "rx_dropped", "tx_dropped"})
            root.write(std::string("/sys/class/net/eth1/statistics/") + file, std::to_string(value++) + "\n");
        // Each argument in brackets of its own, so that a split or joined one shows.
        for (const std::string command : {"ping", "ping6"})
            root.add_command(command,
                             "{ printf " + command +
                                 "; printf ' [%s]' \"$@\"; echo; } >> \"$TELEMETRY_SYSROOT/ping.log\"\n"
                                 "echo 'round-trip min/avg/max = 1.5/2.25/4.5 ms'");
    }
    std::string collect(bool daily = false) {
        ctx.collect_stgy2_now = daily ? 1 : 0;
        const std::string payload = CollectorTest::collect(collect_internet_info);
        const JsonPtr tree(cJSON_Parse(payload.c_str()));
        EXPECT_EQ(count, static_cast<uint32_t>(cJSON_GetArraySize(tree.get())));
        return payload;
    }
    // Empty: the object is not there.
    void set_status(const std::string &wan, const std::string &wan6) {
        fake_services.clear();
        if (!wan.empty())
            fake_services["network.interface.wan.status"].json = wan;
        if (!wan6.empty())
            fake_services["network.interface.wan6.status"].json = wan6;
    }
    // Of both protocols, and the name of their device.
    void set_gateways(const std::string &text, const std::string &device = "") {
        const auto quoted = [](const std::string &name) {
            return std::string(telemetry_json_print(JsonPtr(cJSON_CreateString(name.c_str())).get()).get());
        };
        const std::string head =
            R"({"up":true,"uptime":1,"l3_device":)" + quoted(device) + R"(,"route":[{"target":")";
        const std::string tail = R"(","mask":0,"nexthop":)" + quoted(text) + "}]}";
        set_status(head + "0.0.0.0" + tail, head + "::" + tail);
    }
    void set_hosts(const std::string &v4, const std::string &v6) {
        telemetry_set_uci_value("telemetry", "internet", "ping_v4", v4.c_str(), TELEMETRY_UCI_SYSTEM);
        telemetry_set_uci_value("telemetry", "internet", "ping_v6", v6.c_str(), TELEMETRY_UCI_SYSTEM);
    }
};

TEST_F(InternetInfo, SettingsOnAChangeStateAndCountersAlways) {
    const std::string always = std::string(R"("up":1,"ut":86400,"u6":1)") + kCounters + "}";
    EXPECT_EQ(collect(), R"({"np":"dynamic","pr":"dhcp","mtu":1480,"pd":1,"p6":"dhcpv6",)" + always);
    EXPECT_EQ(collect(), "{" + always);
    telemetry_set_uci_value("network", "wan", "proto", "pppoe", TELEMETRY_UCI_SYSTEM);
    EXPECT_EQ(collect(), R"({"np":"dynamic","pr":"pppoe","mtu":1480,"pd":1,"p6":"dhcpv6",)" + always);
    root.write("/sys/class/net/eth1/statistics/rx_bytes", "73124881932\n");
    EXPECT_THAT(collect(), HasSubstr(R"("rb":73124881932.00,"tb":2,)"));
    EXPECT_EQ(root.read("/ping.log"), "");
    for (const ServiceCall &call : fake_service_calls)
        EXPECT_EQ(call.timeout_ms, 1000);
}

TEST_F(InternetInfo, DelaysOfTheDayAreThoseOfTheConfiguredHostsOrTheGateways) {
    const std::pair<std::string, std::string> hosts[] = {
        {"", ""}, {"probe-1.example.net", "2001:db8:5::7"}, {"203.0.113.7", ""}};
    for (const auto &[v4, v6] : hosts) {
        root.remove("/ping.log");
        set_hosts(v4, v6);
        EXPECT_THAT(collect(true), HasSubstr(R"("d4":2.25,"d6":4.50)"));
        EXPECT_EQ(root.read("/ping.log"), "ping [-c] [3] [" + (v4.empty() ? "198.51.100.1" : v4) +
                                              "]\nping6 [-c] [3] [" + (v6.empty() ? "2001:db8::1" : v6) +
                                              "]\n");
    }
    // An echo that does not come back is a delay of 0.
    root.add_command("ping", "echo '3 packets transmitted, 0 packets received, 100% packet loss'");
    EXPECT_THAT(collect(true), HasSubstr(R"("d4":0)"));
    // Gateways that no echo can be sent to.
    set_hosts("", "");
    root.remove("/ping.log");
    for (const char *nexthop : {"fe80::1", "::", "0.0.0.0", ""}) {
        set_gateways(nexthop);
        EXPECT_EQ(collect(true), R"({"up":1,"ut":1,"u6":1})");
    }
    EXPECT_EQ(root.read("/ping.log"), "");
}

TEST_F(InternetInfo, NoTextFromOutsideReachesAShell) {
    collect();
    const std::string touch = "touch " + root.path("/marker");
    for (const std::string &text : {std::string("-f"), "2001:db8::1;" + touch}) {
        SCOPED_TRACE(text);
        set_status(kWan, kWan6);
        set_hosts(text, text);
        EXPECT_THAT(collect(true), Not(AnyOf(HasSubstr("\"d4\""), HasSubstr("\"d6\""))));
        EXPECT_THAT(log, HasSubstr("ping_v4 is no address or host name"));
        set_hosts("", "");
        set_gateways(text, text);
        EXPECT_EQ(collect(true), R"({"up":1,"ut":1,"u6":1})");
        EXPECT_EQ(root.read("/ping.log"), "");
        EXPECT_FALSE(root.exists("/marker"));
    }
    root.write("/sys/class/net/statistics/rx_bytes", "1\n"); // a name that would lead elsewhere
    for (const std::string device : {".", "../net/eth1", "", "eth1/../eth1"}) {
        set_status(R"({"up":true,"l3_device":")" + device + "\"}", "");
        EXPECT_EQ(collect(), R"({"up":1})") << device;
    }
}

TEST_F(InternetInfo, BrokenAnswersAndCountersCostTheirMembersOnly) {
    collect();
    const struct {
        std::string wan, wan6, report;
    } cases[] = {
        {"", "", "{}"},
        {"{}", kWan6, R"({"u6":1})"},
        {R"({"up":"yes","uptime":"long","l3_device":7,"route":{}})", "[]", "{}"},
        {R"({"up":true,"uptime":1e300,"l3_device":")" + std::string(20000, 'x') + "\"}", "", R"({"up":1})"},
        {R"({"up":false,"pending":true})", "", R"({"up":0})"},
    };
    for (const auto &answer : cases) {
        set_status(answer.wan, answer.wan6);
        EXPECT_EQ(collect(), answer.report) << answer.wan.substr(0, 99);
        EXPECT_THAT(log, HasSubstr("[telemetry]["));
        EXPECT_LT(log.size(), 1500u);
    }
    set_status(kWan, kWan6);
    for (const std::string &content : {std::string(), std::string("many\n"), std::string(1000000, '9'),
                                       std::string("-1\n"), std::string("12x\n"), std::string("\0\0\0", 3)}) {
        root.write("/sys/class/net/eth1/statistics/rx_bytes", content);
        EXPECT_THAT(collect(), HasSubstr(R"("u6":1,"tb":2)")) << content.substr(0, 20);
        EXPECT_THAT(log, HasSubstr("rx_bytes holds no number"));
    }
}

} // namespace
