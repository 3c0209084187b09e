// A hundred cycles in which nothing changes: what is reported then is what is always reported.
#include <map>
#include <numeric>

#include <gtest/gtest.h>

#include "stepped_lab.h"

using Cycles = std::vector<long>;

TEST(Quiet, ReportsOnlyWhatIsAlwaysReported) {
    SteppedLab day;
    day.boot();
    Cycles every(100);
    std::iota(every.begin(), every.end(), 1);
    std::map<std::string, Cycles> reported;
    for (const long cycle : every) {
        day.approach_cycle();
        for (const HeldRecord &record : day.run_cycle(cycle).list)
            if (record.ct == day.now())
                reported[record.eid].push_back(cycle);
    }
    const Cycles first = {1}, periodic = {17, 33, 49, 65, 81, 97}, daily = {97};
    const std::map<std::string, Cycles> expected = {
        {"internet_info", every},      {"ecomode_info", first},
        {"iptv_info", first},          {"qos_info", first},
        {"quicksetup_info", first},    {"client_info", periodic},
        {"device_info", daily},        {"system_info", periodic},
        {"wireless_host_info", first}, {"wireless_guest_info", first},
        {"wireless_iot_info", first},  {"cloud_info", first},
        {"advanced_info", daily},      {"restart_info", daily},
        {"usb_info", first},           {"afc_info", daily},
        {"havenguard_info_v2", daily},
    };
    EXPECT_EQ(reported, expected);
    EXPECT_EQ(day.node.daemon.stop(), 0);
}
