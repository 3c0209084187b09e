// Sources of the further collectors misbehave under a running daemon: real bus, real files, changed between
// cycles.
#include <gmock/gmock.h>

#include "stepped_lab.h"

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

constexpr long kMidnight = 1767225600;

class FurtherFaults : public ::testing::Test {
  protected:
    FurtherFaults() : day(kMidnight), node(day.node) {
        day.boot();
    }
    // The next cycle, with everything that is due once a day. Payloads by module; "" where it reported
    // nothing.
    void run_cycle() {
        ASSERT_EQ(node.call("collect_all_next_time").status, 0);
        day.approach_cycle();
        day.wait_until_idle();
        state = day.run_cycle(++cycle);
        ASSERT_EQ(state.cycles, cycle);
    }
    std::string payload(const std::string &eid) const {
        for (const HeldRecord &record : state.list) {
            if (record.eid == eid && record.ct == day.now())
                return record.payload;
        }
        return "";
    }
    void set_fault(const std::string &kind) {
        const std::string fault = R"({"kind":")" + kind + R"(","delay_ms":300})";
        node.set_faults(kind.empty() ? "{}"
                                     : R"({"network.interface.wan":)" + fault +
                                           R"(,"network.interface.wan6":)" + fault + "}");
        // Leaving the bus and coming back takes the services a moment.
        const bool there = kind != "absent";
        ASSERT_TRUE(lab::wait_until(
            [&] { return node.wait_for_object("network.interface.wan6", 0) == there; }, 10000));
    }

    SteppedLab day;
    lab::LabNode &node;
    DaemonState state;
    long cycle = 0;
};

TEST_F(FurtherFaults, TheNetworkDaemonAnswersBadly) {
    ASSERT_NO_FATAL_FAILURE(run_cycle());
    EXPECT_THAT(payload("internet_info"),
                StartsWith(R"({"np":"dynamic","pr":"dhcp","mtu":1500,"pd":1,"p6":"dhcpv6","up":1)"));
    const std::string whole = R"({"up":1,"ut":86400,"u6":1,"rb":73124881932,)";
    const struct {
        const char *kind;
        bool answers; // well enough
    } faults[] = {
        {"absent", false}, {"silent", false},   {"status", false},  {"no_data", false}, {"empty", false},
        {"types", false},  {"nonsense", false}, {"garbage", false}, {"huge", true},     {"slow", true},
    };
    for (const auto &fault : faults) {
        SCOPED_TRACE(fault.kind);
        ASSERT_NO_FATAL_FAILURE(set_fault(fault.kind));
        const size_t before = day.log.size();
        ASSERT_NO_FATAL_FAILURE(run_cycle());
        if (fault.answers) {
            EXPECT_THAT(payload("internet_info"), StartsWith(R"({"up":1,"ut":86400)"));
        } else {
            EXPECT_THAT(payload("internet_info"), IsEmpty());
        }
        EXPECT_LT(payload("internet_info").size(), 300U);
        if (!fault.answers) {
            EXPECT_THAT(day.log.substr(before), HasSubstr("network.interface.wan"));
        }
        EXPECT_THAT(payload("afc_info"), Not(IsEmpty())) << "the modules behind it run";
    }
    ASSERT_NO_FATAL_FAILURE(set_fault(""));
    ASSERT_NO_FATAL_FAILURE(run_cycle());
    EXPECT_THAT(payload("internet_info"), StartsWith(whole));
}

TEST_F(FurtherFaults, FilesAreMissingEmptyHugeOrGarbage) {
    ASSERT_NO_FATAL_FAILURE(run_cycle());
    const std::string files[] = {
        "/tmp/afc/status",
        "/tmp/havenguard/stats",
        "/tmp/telemetry/restart",
        "/etc/config/qos",
        "/etc/config/vpn",
        "/sys/class/net/eth1/statistics/rx_bytes",
        "/sys/bus/usb/devices/1-1/idVendor",
        "/etc/config/restart_schedule",
    };
    std::vector<std::string> originals;
    for (const std::string &file : files)
        originals.push_back(node.read(file));
    const std::string usb_before = payload("usb_info");
    EXPECT_THAT(usb_before, HasSubstr(R"("ut":1,"vi":"0781","pi":"5567")"));

    const std::pair<const char *, std::string> contents[] = {{"missing", "-"},
                                                             {"empty", ""},
                                                             {"garbage", std::string("\x80{\0\xff'\n\n[", 8)},
                                                             {"huge", std::string(3000000, '7')}};
    for (const auto &[kind, content] : contents) {
        SCOPED_TRACE(kind);
        for (const std::string &file : files)
            if (content == "-")
                node.remove(file);
            else
                node.write(file, content);
        ASSERT_NO_FATAL_FAILURE(run_cycle());
        EXPECT_THAT(payload("internet_info"), HasSubstr(R"("u6":1,"tb":)"));
        EXPECT_THAT(payload("afc_info"), HasSubstr(R"(","en":1},{"dm":)")) << "only its switch is known";
        EXPECT_THAT(payload("havenguard_info_v2"), IsEmpty());
        EXPECT_THAT(payload("restart_info"), Not(HasSubstr("tn")));
        EXPECT_THAT(payload("qos_info"), Not(HasSubstr("en")));
        EXPECT_LT(state.list_length, 65536U);
    }
    for (size_t i = 0; i < std::size(files); ++i)
        node.write(files[i], originals[i]);
    ASSERT_NO_FATAL_FAILURE(run_cycle());
    EXPECT_THAT(payload("internet_info"), HasSubstr(R"("u6":1,"rb":73124881932)"));
    EXPECT_THAT(payload("afc_info"), HasSubstr(R"("st":"granted")"));
    EXPECT_EQ(payload("havenguard_info_v2"), R"({"wb":42})");
    EXPECT_THAT(payload("restart_info"), HasSubstr(R"("tn":1)"));
    EXPECT_THAT(payload("usb_info"), HasSubstr(R"("cc":0,"ut":1,"vi":"0781","pi":"5567")"));
    EXPECT_EQ(node.daemon.stop(), 0);
}

} // namespace
