// A hundred cycles in which nothing changes: what is reported then is what is always reported.
#include <map>

#include <gtest/gtest.h>

#include "stepped_lab.h"

namespace {

constexpr long kMidnight = 1767225600;
constexpr long kCycles = 100;

// The cycles that a module reported in.
struct Expected {
    const char *eid;
    std::vector<long> cycles;
};

std::vector<long> every_cycle() {
    std::vector<long> cycles;
    for (long cycle = 1; cycle <= kCycles; ++cycle)
        cycles.push_back(cycle);
    return cycles;
}

TEST(Quiet, ReportsOnlyWhatIsAlwaysReported) {
    SteppedLab day(kMidnight);
    day.boot();
    std::map<std::string, std::vector<long>> reported;
    for (long cycle = 1; cycle <= kCycles; ++cycle) {
        day.approach_cycle();
        day.wait_until_idle();
        const DaemonState state = day.run_cycle(cycle);
        for (const HeldRecord &record : state.list) {
            if (record.ct == day.now())
                reported[record.eid].push_back(cycle);
        }
    }
    const std::vector<long> first = {1}, periodic = {17, 33, 49, 65, 81, 97}, daily = {97};
    const Expected expected[] = {
        {"internet_info", every_cycle()},
        {"ecomode_info", first},
        {"iptv_info", first},
        {"qos_info", first},
        {"quicksetup_info", first},
        {"client_info", periodic},
        {"device_info", daily},
        {"system_info", periodic},
        {"wireless_host_info", first},
        {"wireless_guest_info", first},
        {"wireless_iot_info", first},
        {"cloud_info", first},
        {"advanced_info", daily},
        {"restart_info", daily},
        {"usb_info", first},
        {"afc_info", daily},
        {"havenguard_info_v2", daily},
    };
    for (const Expected &module : expected)
        EXPECT_EQ(reported[module.eid], module.cycles) << module.eid;
    EXPECT_EQ(reported.size(), std::size(expected));
    EXPECT_EQ(day.node.daemon.stop(), 0);
}

} // namespace
