// Load, memory, temperatures of this node from files of the root, the satellites' from answers on the bus.
// The 3 seconds between the two CPU samples are replaced by the second sample.
#include "system_info.h"

#include "collector_test.h"
#include "fake_services.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;

namespace {

constexpr char kStat[] = "/proc/stat";
constexpr char kMeminfo[] = "/proc/meminfo";
constexpr char kConntrack[] = "/proc/sys/net/netfilter/nf_conntrack_count";
constexpr char kCpuinfoFreq[] = "/sys/devices/system/cpu/cpufreq/policy0/cpuinfo_cur_freq";
constexpr char kScalingFreq[] = "/sys/devices/system/cpu/cpufreq/policy0/scaling_cur_freq";
constexpr char kMemory[] =
    "MemTotal: 1000 kB\nMemFree: 300 kB\nMemAvailable: 1 kB\nBuffers: 50 kB\nCached: 99 kB\n"
    "SwapCached: 1 kB\n";

std::string second_sample;
unsigned slept;

class SystemInfo : public CollectorTest {
  protected:
    SystemInfo() {
        ops.get_device_temperature = [](const char *ifname, double *temperature) {
            *temperature = 50 + (ifname[4] - '0') * 0.25;
            return strcmp(ifname, "wifi2") == 0 ? 0 : 1;
        };
        ops.get_cpu_temperature = [](double *temperature) {
            *temperature = 71;
            return 1;
        };
        wlan_platform_ops = &ops;
        fake_services.clear();
        fake_service_calls.clear();
        slept = 0;
        copy_text(ctx.dev_mac, "020000000001");
        root.write(kStat, "cpu  100 0 0 1000 0 0 0 0 0 0\n");
        second_sample = "cpu  130 0 0 1060 10 0 0 0 0 0\n";
        root.write(kMeminfo, kMemory);
        root.write(kConntrack, "417\n");
        root.write(kCpuinfoFreq, "1400000\n");
        root.write(kScalingFreq, "1300000\n");
        root.write_config("sysmode", "config sysmode 'sysmode'\n\toption mode 'router'\n");
    }
    // A mesh of nodes with these addresses; the first is the main node.
    void set_nodes(const std::vector<const char *> &macs) {
        ASSERT_EQ(telemetry_init_device_info_list(static_cast<int>(macs.size())), 0);
        for (size_t i = 0; i < macs.size(); ++i)
            copy_text(telemetry_pre_collect.devices[i].mac, macs[i]);
        telemetry_pre_collect.devices[0].is_fap = 1;
    }
    WlanPlatformOps ops = {};
};

} // namespace

extern "C" unsigned sleep(unsigned seconds) {
    slept += seconds;
    if (second_sample.empty())
        test_sysroot().remove(kStat);
    else
        test_sysroot().write(kStat, second_sample);
    return 0;
}

namespace {

TEST_F(SystemInfo, CpuUsageIsTheShareOfBusyTicks) {
    const std::string opening = "error: open file /proc/stat failed", failed = "get cpu info failed!";
    const struct {
        std::string first, second;
        int usage;
        std::vector<std::string> messages;
    } cases[] = {
        {"1 2 3 4 5 6 7 8 9 10", "2 3 4 4 5 7 8 9 10 11", 100, {}},
        {"1 2 3 4 5 6 7 8 9 10", "1 2 3 8 5 6 7 8 9 11", 20, {}}, // integer percent
        {"100 0 0 1000 0 0 0 0 0 0", "130 0 0 1060 10 0 0 0 0 0", 30, {}},
        {"100 0 0 1000 0 0 0 0 0 0", "90 0 0 1100 0 0 0 0 0 0", 0, {}},
        // Counters beyond 32 bits, and a sum that passes the largest signed and unsigned number in between.
        {"4294967296 0 0 9000000000 0 0 0 0 0 0", "4294967396 0 0 9000000300 0 0 0 0 0 0", 25, {}},
        {"100 0 0 4294967150 0 0 0 0 0 0", "150 0 0 4294967300 0 0 0 0 0 0", 25, {}},
        {"3000000000 0 0 0 0 0 0 0 0 0", "3000000100 0 0 300 0 0 0 0 0 0", 25, {}},
        {"1 2 3 4 5 6 7 8 9", "", -1, {failed}},
        {"", "", -1, {"fget failed!", failed}},
        {"1 2 3 4 5 6 7 8 9 10", "", -1, {opening, failed}},
    };
    for (const auto &one : cases) {
        root.write(kStat, one.first.empty() ? "" : "cpu  " + one.first);
        second_sample = one.second.empty() ? "" : "cpu  " + one.second;
        slept = 0;
        EXPECT_EQ(logged_result(telemetry_system_info_get_cpu_info), LoggedResult(one.usage, one.messages));
        EXPECT_TRUE(slept == 3 || (slept == 0 && one.usage == -1)) << one.first;
    }
}

TEST_F(SystemInfo, MemoryIsTheFirstLineOfEachWord) {
    // MemTotal, MemFree, Buffers, then Cached and SwapCached in this order.
    const auto text = [](int total, int free, int buffers, const std::string &rest) {
        return "MemTotal: " + std::to_string(total) + " kB\nMemFree: " + std::to_string(free) +
               " kB\nBuffers: " + std::to_string(buffers) + " kB\n" + rest;
    };
    const struct {
        std::string text;
        int total, usage, available;
    } cases[] = {
        {kMemory, 1000, 55, 300},
        {std::string(600, 'x') + "\nMemTotal: 1000 kB\n" +
             text(7, 900, 0, "Cached: 0 kB\nSwapCached: 0 kB\n"),
         1000, 10, 900},
        // "SwapCached" holds the word "Cached", and here it comes first.
        {text(1000, 300, 50, "SwapCached: 10 kB\nCached: 500 kB\n"), 1000, 63, 300},
        {text(1000, 300, 50, "Cached: 100 kB\n"), 1000, -1, 300},
        {"MemTotal: many kB\n", -1, -1, -1},
    };
    for (const auto &one : cases) {
        root.write(kMeminfo, one.text);
        EXPECT_EQ(telemetry_system_info_get_mem_info(0), one.total) << one.text;
        EXPECT_EQ(telemetry_system_info_get_mem_info(1), one.usage) << one.text;
        EXPECT_EQ(telemetry_system_info_get_mem_info(2), one.available) << one.text;
    }
    root.remove(kMeminfo);
    EXPECT_THAT(logged_messages([] { EXPECT_EQ(telemetry_system_info_get_mem_info(1), -1); }),
                ElementsAre("invalid read meminfo"));
}

TEST_F(SystemInfo, DoesWithoutTheSourcesOfThisNode) {
    set_nodes({"02-00-00-00-00-01"});
    root.write(kCpuinfoFreq, "<unknown>\n");
    fake_services["low_power.telemetry_get"].json =
        R"({"res":"busy","associate_time":5,"associate_duration":140})";
    EXPECT_THAT(collect(collect_system_info),
                HasSubstr(R"("cfq":1300000,"mt":1000,"mu":55,"mf":300,"natn":417,"lat":0,"lad":0,)"
                          R"("tem":{"w0":50,"w1":50.25,"w2":-1,"cpu":71}}]})"));
    ASSERT_EQ(fake_service_calls.size(), 1U) << "there is nobody else to ask";
    EXPECT_EQ(fake_service_calls[0].timeout_ms, 1000);

    for (const char *path : {kStat, kMeminfo, kConntrack, kCpuinfoFreq, kScalingFreq, "/etc/config/sysmode"})
        root.remove(path);
    fake_services.clear();
    EXPECT_THAT(collect(collect_system_info),
                HasSubstr(R"("wm":"","cu":-1,"cfq":0,"mt":-1,"mu":-1,"mf":-1,"natn":0,"lat":0,"lad":0)"));
    EXPECT_THAT(said, IsSupersetOf({"open file /proc/sys/net/netfilter/nf_conntrack_count failed",
                                    "ubus call lowpower error!"}));
}

TEST_F(SystemInfo, TakesWhatSatellitesAnswer) {
    const std::string huge(300, 'm'), no_lowpower = "re_low_power info err";
    const std::string nothing = R"("wm":"","cu":0,"cfq":0,"mt":0,"mu":0,"mf":0,"natn":0,"lat":0,"lad":0,)";
    const struct {
        std::string result, entry;
        std::vector<std::string> messages;
    } cases[] = {
        {R"("mac":"02:00:00:00:00:02","sys_mode":"ap","cpu_usage":7.5,"cpu_freq":900,"mem_total":11,)"
         R"("mem_usage":12,"mem_free":13,"wifi0_temp":14,"wifi1_temp":-1,"wifi2_temp":16,"cpu_temp":17,)"
         R"("nat_num":18,"lowpower":{"res":"success","associate_time":19,"associate_duration":20})",
         R"("wm":"ap","cu":7.50,"cfq":900,"mt":11,"mu":12,"mf":13,"natn":18,"lat":19,)"
         R"("lad":20,"tem":{"w0":14,"w1":-1,"w2":16,"cpu":17}}]})",
         {}},
        // The library prints an infinite number as no JSON: the whole answer is lost.
        {R"("mac":"020000000002","mem_free":5,"cpu_usage":1e999)", nothing, {"cJSON Parse failed"}},
        {R"("mac":"020000000002","sys_mode":")" + huge + '"',
         R"("wm":")" + huge.substr(0, 127) + R"(","cu")",
         {no_lowpower}},
        {R"("mac":")" + huge + R"(","cpu_usage":5)", nothing, {}},
    };
    fake_services["low_power.telemetry_get"].json = R"({"res":"busy"})";
    for (const auto &one : cases) {
        set_nodes({"02-00-00-00-00-01", "02-00-00-00-00-02"});
        fake_services["sync.request"].json = R"({"success":1,"data":{"result":{)" + one.result + "}}}";
        EXPECT_THAT(collect(collect_system_info), HasSubstr(one.entry)) << one.result;
        EXPECT_EQ(said, one.messages) << one.result;
        EXPECT_EQ(count, 2U);
    }
    EXPECT_THAT(fake_service_calls.back().arguments, HasSubstr("50948"));
    fake_services.erase("sync.request");
    EXPECT_NE(collect(collect_system_info), "") << "own figures stay";
    EXPECT_THAT(said, Contains("get re system info failed"));
}

TEST_F(SystemInfo, ReportsNothingWithoutItsTurnOrItsNodes) {
    // Own figures go to the node of this address, else to the main node.
    copy_text(ctx.dev_mac, "02000000000F");
    set_nodes({"02-00-00-00-00-01", "02-00-00-00-00-02"});
    telemetry_pre_collect.devices[0].is_fap = 0;
    telemetry_pre_collect.devices[1].is_fap = 1;
    EXPECT_THAT(collect(collect_system_info),
                testing::ContainsRegex(R"("cpu":0\}\},\{"dm".*"cpu":71\}\}\]\})"));

    set_nodes({"02-00-00-00-00-01", ""});
    EXPECT_EQ(collect(collect_system_info), "");
    EXPECT_THAT(said, IsSupersetOf({"cJSON_Add Mac Md5 failed", "add system info failed"}));
    telemetry_free_pre_collect_info();
    collect(collect_system_info);
    EXPECT_THAT(said, ElementsAre("get device list error"));
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    ctx.collect_periodic_now = 0;
    slept = 0;
    collect(collect_system_info);
    EXPECT_THAT(said, ElementsAre("no need to collect system info"));
    EXPECT_EQ(slept, 0U);
}

} // namespace
