// This node's own links: the board's ports and their script, the backhaul's radio queries, the parent.
#include "telemetry_links.h"
#include "telemetry_snapshot.h"

#include <cstring>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sysroot.h"
#include "telemetry_log.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Pair;

// The script answers from files ports/wan_num, ports/link_N and ports/speed_N, and notes what it was asked.
static constexpr char kScript[] = R"(#!/bin/sh
cd "$TELEMETRY_SYSROOT/ports"; echo "$*" >>asked
case $1 in wan_num) cat wan_num;; port_link_status) cat link_$2;; port_speed) cat speed_$2;; esac 2>/dev/null)";

class LinksTest : public SysrootTest {
  protected:
    LinksTest() {
        root.write("/lib/telemetry/wire_port_info.sh", kScript);
        std::filesystem::permissions(root.path("/lib/telemetry/wire_port_info.sh"),
                                     std::filesystem::perms::owner_all);
        std::filesystem::create_directories(root.path("/ports"));
    }
    void port(int number, const std::string &link, const std::string &speed) {
        root.write("/ports/link_" + std::to_string(number), link);
        root.write("/ports/speed_" + std::to_string(number), speed);
    }
    // Sections, each a type and a port number; "-": without that option.
    void profile(const std::string &sections) {
        std::istringstream words(sections);
        std::string text;
        for (std::string type, number; words >> type >> number;)
            text += "config interface\n" + (type != "-" ? "\toption type '" + type + "'\n" : "") +
                    (number != "-" ? "\toption port '" + number + "'\n" : "");
        root.write("/etc/profile.d/interfaces", text);
    }
    WiredPortInfo ports[kWiredPortCount] = {};
    int32_t used = -5;
};

TEST_F(LinksTest, PortsInUseAreTheWanPortAndThoseWithASpeed) {
    port(1, "0\n", "1000\n"); // the WAN port: in use without link, its speed is not asked for
    port(2, "1\n", "2500\n");
    port(3, "0\n", "100\n"); // no link
    port(4, "1\n", "0\n");   // link, no speed
    port(5, "1\n", "-1\n");
    port(6, "up\n", "1000\n"); // no number
    root.write("/ports/wan_num", "1\n");
    profile("eth 1 eth 2 wlan 9 - 8 e 3 eth - et 4 ethernet 7 eth 5 eth 6 eth 10");
    memset(ports, 0x55, sizeof(ports));
    ASSERT_EQ(telemetry_collect_wired_port_num(&used, ports, kWiredPortCount, 1), 0);
    EXPECT_EQ(used, 2);
    std::string seen;
    for (const WiredPortInfo &entry : ports)
        seen += std::to_string(entry.port) + ":" + std::to_string(entry.speed) + " ";
    EXPECT_EQ(seen, "1:0 2:2500 3:0 4:0 5:-1 6:0 10:0 0:0 0:0 0:0 0:0 0:0 0:0 0:0 0:0 0:0 ");
    EXPECT_EQ(root.read("/ports/asked").find("port_speed 1\n"), std::string::npos);

    // Without the flag the WAN port is one as any other.
    root.write("/ports/asked", "");
    for (const char *link : {"0\n", "1\n"}) {
        port(1, link, "1000\n");
        ASSERT_EQ(telemetry_collect_wired_port_num(&used, ports, kWiredPortCount, 0), 0);
        EXPECT_EQ(used, *link == '1' ? 2 : 1);
    }
    EXPECT_EQ(root.read("/ports/asked").find("wan_num"), std::string::npos);
}

TEST_F(LinksTest, PortsBeyondTheRoomAndWithoutProfile) {
    const auto count = [&](int32_t *number, WiredPortInfo *list, int room, int wan) {
        return logged_result([&] { return telemetry_collect_wired_port_num(number, list, room, wan); });
    };
    EXPECT_THAT(count(&used, ports, 16, 1), Pair(-1, Contains("uci load interface failed")));
    EXPECT_THAT(count(nullptr, ports, 16, 1), Pair(-1, ElementsAre("param error")));
    EXPECT_EQ(used, -5);

    std::string sections;
    for (int number = 1; number <= 17; ++number) {
        sections += " eth " + std::to_string(number);
        port(number, "1\n", "100\n");
    }
    // In a smaller room the entry behind it is untouched.
    for (const int room : {16, 2}) {
        profile(sections);
        memset(ports, 0x55, sizeof(ports));
        EXPECT_THAT(count(&used, ports, room, 0),
                    Pair(0, ElementsAre("port count found exceeds the maximun allowed")));
        EXPECT_EQ(used, room);
        EXPECT_EQ(ports[room - 1].port, room);
    }
    EXPECT_EQ(ports[2].port, 0x55555555);
    profile(sections.substr(0, sections.size() - 7)); // what fits is no excess
    EXPECT_THAT(count(&used, ports, 16, 0), Pair(0, ElementsAre()));
}

// --- Backhaul: a table of operations of which one at a time fails

static std::string failing;
static std::vector<std::string> asked;

static int done(const std::string &what) {
    asked.push_back(what);
    return what == failing ? 0 : 1;
}

static WlanPlatformOps backhaul_operations() {
    WlanPlatformOps operations = {};
    operations.get_sta_if_name = [](int32_t band, char *name, int32_t size) {
        const int named = done("name " + std::to_string(band) + " " + std::to_string(size));
        if (named != 0)
            snprintf(name, static_cast<size_t>(size), band == 0 ? "apcli0" : "apclix0");
        return named;
    };
    operations.get_uplink_rate = [](const char *ifname, BackhaulStats *stats, uint8_t *rssi) {
        *rssi = 40;
        if (!done(std::string("uplink ") + ifname))
            return 0;
        *stats = {300, 200, {}, {}};
        return 1;
    };
    operations.get_backhaul_ap_channel = [](uint32_t band, uint32_t *channel) {
        *channel = band == 0 ? 6 : 149;
        return done("channel " + std::to_string(band));
    };
    operations.get_channel_util = [](const char *ifname, uint8_t *util, uint32_t band, uint8_t flag) {
        *util = 33;
        return done(std::string("util ") + ifname + " " + std::to_string(band) + " " + std::to_string(flag));
    };
    return operations;
}

TEST(Backhaul, EveryStepRunsWhateverFailed) {
    const WlanPlatformOps operations = backhaul_operations();
    const WlanPlatformOps *before = wlan_platform_ops;
    wlan_platform_ops = &operations;
    struct Row {
        const char *failing;
        std::vector<std::string> messages;
        int channel, tx;
        const char *name; // under which the second link is asked
    };
    const Row rows[] = {
        {"", {}, 149, 300, "apclix0"},
        {"name 1 16", {"get RE backhual ifname failed"}, 149, 300, ""},
        {"uplink apclix0", {"get uplink rate failed"}, 149, 0, "apclix0"},
        {"channel 1", {"get backhual ap channel failed"}, 0, 300, "apclix0"},
        {"util apclix0 3 1", {"get channel util failed"}, 149, 300, "apclix0"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.failing);
        failing = row.failing;
        asked.clear();
        BackhaulStats stats[kBackhaulSlots] = {};
        BackhaulInfo slots[kBackhaulSlots] = {};
        for (int i = 0; i < kBackhaulSlots; ++i)
            slots[i].stats = &stats[i];
        const auto messages = logged_messages(
            [&] { EXPECT_EQ(telemetry_collect_backhaul_info(slots), row.messages.empty() ? 0 : -1); });
        EXPECT_EQ(messages, row.messages);
        const std::string name = row.name;
        EXPECT_THAT(asked, ElementsAre("name 0 16", "uplink apcli0", "channel 0", "util apcli0 2 1",
                                       "name 1 16", "uplink " + name, "channel 1", "util " + name + " 3 1"));
        EXPECT_STREQ(slots[0].backhaul_type, "2.4G");
        EXPECT_STREQ(slots[0].ifname, "apcli0");
        EXPECT_EQ(slots[0].rssi, 40);
        EXPECT_STREQ(slots[1].backhaul_type, "5G");
        EXPECT_EQ(slots[1].channel, row.channel);
        EXPECT_EQ(slots[1].chan_util, 33);
        EXPECT_EQ(stats[1].tx, row.tx);
        EXPECT_EQ(slots[2].channel, 0);
    }
    wlan_platform_ops = before;
}

TEST_F(LinksTest, ParentIsASatellitesOnly) {
    struct Row {
        std::string work_mode; // empty: no file
        int result;
        const char *parent, *message;
    };
    const Row rows[] = {
        {R"({"work_mode":"RE","parent_mac":"02:00:00:01:00:0a"})", 0, "02-00-00-01-00-0A", ""},
        {R"({"work_mode":"FAP","parent_mac":"02:00:00:01:00:0a"})", 0, "", ""},
        {R"({"work_mode":"FAPX","parent_mac":"020000010001"})", 0, "02-00-00-01-00-01", ""},
        {R"({"work_mode":"RE","parent_mac":12})", -1, "", ""},
        {R"({"work_mode":"RE","parent_mac":"02:00:00:01:00:0a:0b:0c:0d"})", 0, "02-00-00-01-00-0A", ""},
        {R"({"work_mode":"RE")", -1, "", "cJSON parse failed"},
        {"", -1, "", "open file /tmp/work_mode failed"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.work_mode);
        row.work_mode.empty() ? root.remove("/tmp/work_mode") : root.write("/tmp/work_mode", row.work_mode);
        char parent[18] = "";
        const auto [result, said] =
            logged_result([&] { return telemetry_collect_device_parent_mac(parent); });
        EXPECT_EQ(result, row.result);
        EXPECT_STREQ(parent, row.parent);
        EXPECT_EQ(said.empty() ? "" : said.back(), row.message);
    }
    EXPECT_THAT(logged_messages([] { EXPECT_EQ(telemetry_collect_device_parent_mac(nullptr), -1); }),
                ElementsAre("params error!"));
}
