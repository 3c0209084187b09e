// The network daemon misbehaves under a running daemon, differently in every cycle, over the real bus.
#include <gmock/gmock.h>

#include "stepped_lab.h"

using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST(FurtherFaults, TheNetworkDaemonAnswersBadly) {
    SteppedLab day;
    lab::LabNode &node = day.node;
    day.boot();
    long cycle = 0;
    for (const std::string kind : {"", "absent", "silent", "status", "no_data", "empty", "types", "nonsense",
                                   "garbage", "huge", "slow", ""}) {
        SCOPED_TRACE(kind);
        const std::string fault = R"({"kind":")" + kind + R"(","delay_ms":300})";
        node.set_faults(kind.empty() ? "{}"
                                     : R"({"network.interface.wan":)" + fault +
                                           R"(,"network.interface.wan6":)" + fault + "}");
        // Leaving the bus and coming back takes the services a moment.
        ASSERT_TRUE(lab::wait_until(
            [&] { return node.wait_for_object("network.interface.wan6", 0) == (kind != "absent"); }, 10000));
        ASSERT_EQ(node.call("collect_all_next_time").status, 0);
        const size_t before = day.log.size();
        day.approach_cycle();
        std::map<std::string, std::string> payloads;
        for (const HeldRecord &record : day.run_cycle(++cycle).list)
            if (record.ct == day.now())
                payloads[record.eid] = record.payload;
        const std::string &internet = payloads["internet_info"];
        if (cycle == 1) {
            EXPECT_THAT(internet,
                        StartsWith(R"({"np":"dynamic","pr":"dhcp","mtu":1500,"pd":1,"p6":"dhcpv6","up":1)"));
        } else if (kind == "huge" || kind == "slow" || kind.empty()) { // a huge name is no device's
            EXPECT_THAT(internet, StartsWith(std::string(R"({"up":1,"ut":86400,"u6":1,)") +
                                             (kind == "huge" ? R"("d4":)" : R"("rb":73124881932,)")));
            EXPECT_LT(internet.size(), 300U);
        } else {
            EXPECT_EQ(internet, "");
            EXPECT_THAT(day.log.substr(before), HasSubstr("network.interface.wan"));
        }
        EXPECT_NE(payloads["afc_info"], "") << "the modules behind it run";
    }
    EXPECT_EQ(node.daemon.stop(), 0);
}
