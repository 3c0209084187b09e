// The daemon's driver code against faults of the simulated driver, preloaded as in the lab: the program
// starts itself again with the library in front. What the driver answers without faults shows in a home's
// records.
#include <cstring>
#include <unistd.h>

#include <gtest/gtest.h>

#include "telemetry_platform_mtk.h"
#include "sysroot.h"
#include "telemetry_log.h"

namespace {

constexpr char kScenario[] = R"({"interfaces": {
    "ra0": {"channel": 6},
    "apclix0": {"utilisation": 12},
    "rax2": {"stations": [{"mac": "02-00-00-00-02-01", "tx": 866, "rx": 780, "phymode": 4},
                          {"mac": "02:00:00:00:02:02", "tx": 6, "rx": 7, "phymode": 0}]}}})";

class FakeWifi : public SysrootTest {
  protected:
    FakeWifi() {
        telemetry_debug_level = TELEMETRY_LOG_ERROR;
        set_scenario(kScenario);
        list.capacity = 100;
        list.stations = stations;
    }
    // As the lab does it: a new file in the place of the old one.
    void set_scenario(const std::string &text) {
        root.write("/tmp/fakewifi.new", text);
        std::filesystem::rename(root.path("/tmp/fakewifi.new"), root.path("/tmp/fakewifi.json"));
    }
    void set_fault(const std::string &member, const std::string &fault) {
        const std::string faults = "\"faults\": {\"" + member + "\": \"" + fault + "\"}, ";
        std::string text = kScenario;
        for (const char *name : {"ra0\": {", "apclix0\": {", "rax2\": {"})
            text.insert(text.find(name) + strlen(name), faults);
        set_scenario(text);
    }
    ClientStaInfo stations[100] = {};
    ClientStaList list = {};
    uint32_t count = 0;
    uint32_t number = 0;
    uint8_t byte = 0;
};

TEST_F(FakeWifi, FaultsComeAndGoWhileTheProgramRuns) {
    for (const char *fault : {"nodev", "busy"}) {
        for (const char *member : {"all", "utilisation"}) {
            set_fault(member, fault);
            EXPECT_EQ(wlan_get_channel_util("apclix0", &byte, 3, 1), 0) << fault << member;
            EXPECT_EQ(wlan_get_backhaul_ap_channel(0, &number), strcmp(member, "all") == 0 ? 0 : 1) << fault;
        }
    }
    set_fault("stations", "count");
    EXPECT_EQ(wlan_get_band_client_sta_info("rax2", &list, &count), 1);
    EXPECT_EQ(count, 64U) << "kept of 65535";
    count = 0;
    set_fault("all", "silent");
    EXPECT_EQ(wlan_get_band_client_sta_info("rax2", &list, &count), 1);
    EXPECT_EQ(wlan_get_channel_util("apclix0", &byte, 3, 1), 1);
    EXPECT_EQ(std::to_string(count) + " " + std::to_string(byte), "2 12");

    set_scenario("{]");
    EXPECT_EQ(wlan_get_backhaul_ap_channel(0, &number), 0);
    root.remove("/tmp/fakewifi.json");
    EXPECT_EQ(wlan_get_backhaul_ap_channel(0, &number), 0);
    set_scenario(kScenario);
    EXPECT_EQ(wlan_get_backhaul_ap_channel(0, &number), 1);
}

} // namespace

int main(int argc, char **argv) {
    const std::string library = std::string(TEST_BIN_DIR) + "/libfakewifi.so";
    if (getenv("FAKEWIFI_PRELOADED") == nullptr) {
        setenv("FAKEWIFI_PRELOADED", "1", 1);
        setenv("LD_PRELOAD", library.c_str(), 1);
        const char *options = getenv("ASAN_OPTIONS");
        setenv("ASAN_OPTIONS",
               (std::string(options == nullptr ? "" : options) + ":verify_asan_link_order=0").c_str(), 1);
        execv("/proc/self/exe", argv);
        perror("execv");
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
