// The driver's operations against an ioctl() of this file: what is asked, what becomes of the answer, what is
// said and released when it fails.
#include "telemetry_platform_mtk.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <iterator>
#include <linux/wireless.h>
#include <new>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <gmock/gmock.h>

#include "sysroot.h"
#include "telemetry_log.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

namespace {

struct FakeDriver {
    std::vector<uint8_t> answer;
    int error = 0;     // errno of the refusal
    int answered = -1; // length told back, -1: as asked
    bool socket_fails = false, memory_fails = false;
    int calls = 0;
    std::string socket_kind, ifname;
    unsigned long request = 0;
    unsigned flags = 0, length = 0;
};

FakeDriver driver;

} // namespace

extern "C" int ioctl(int, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    iwreq *block = va_arg(arguments, iwreq *);
    va_end(arguments);
    driver.calls++;
    driver.request = request;
    driver.ifname = block->ifr_name;
    driver.flags = block->u.data.flags;
    driver.length = block->u.data.length;
    if (driver.error != 0) {
        errno = driver.error;
        return -1;
    }
    std::copy_n(driver.answer.begin(), std::min<size_t>(driver.answer.size(), driver.length),
                static_cast<uint8_t *>(block->u.data.pointer));
    if (driver.answered >= 0)
        block->u.data.length = static_cast<uint16_t>(driver.answered);
    return 0;
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
    driver.socket_kind = std::to_string(domain) + " " + std::to_string(type) + " " + std::to_string(protocol);
    if (driver.socket_fails) {
        errno = EMFILE;
        return -1;
    }
    return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return driver.memory_fails ? nullptr : ::operator new(size);
}

namespace {

// An answer with values at byte offsets, as the driver lays it out.
class Answer {
  public:
    explicit Answer(size_t size) : bytes_(size) {}
    template <typename T> Answer &at(size_t offset, T value) {
        memcpy(&bytes_.at(offset + sizeof(T) - 1) - (sizeof(T) - 1), &value, sizeof(value));
        return *this;
    }
    operator std::vector<uint8_t>() const {
        return bytes_;
    }

  private:
    std::vector<uint8_t> bytes_;
};

Answer station_table(uint16_t count) {
    Answer answer(2056);
    answer.at<uint16_t>(0, count);
    for (size_t i = 0; i < 64; i++) {
        const size_t entry = 8 + 32 * i;
        answer.at<uint8_t>(entry, 2).at<uint8_t>(entry + 5, static_cast<uint8_t>(i));
        answer.at<uint64_t>(entry + 8, 1000 + i)
            .at<uint64_t>(entry + 16, 2000 + i)
            .at<uint16_t>(entry + 26, 1);
    }
    return answer;
}

size_t open_descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

class PlatformMtk : public SysrootTest {
  protected:
    PlatformMtk() {
        driver = {};
        telemetry_debug_level = TELEMETRY_LOG_ERROR;
        wlan_platform_ops = &wlan_platform_ops_mtk;
        list.capacity = 200;
        list.stations = stations;
    }
    ClientStaInfo stations[200] = {};
    ClientStaList list = {};
    uint32_t count = 0;
    double temperature = 77;
    uint32_t number = 77;
    uint8_t byte = 77;
    BackhaulStats stats = {};
};

struct Operation {
    const char *name;
    std::function<int()> run;
    const char *ifname;
    unsigned subcommand, length;
    const char *socket_error, *ioctl_error;
};

TEST_F(PlatformMtk, AsksTheDriverAndReleasesEverythingOnEveryPath) {
    const struct {
        std::function<int()> run;
        const char *ifname;
        unsigned subcommand, length;
        std::string socket_error, ioctl_error;
    } operations[] = {
        {[&] { return wlan_get_device_temperature("wifi2", &temperature); }, "ra0", 0x9A1, 4,
         "wlan_get_device_temperature_mtk: create socket error",
         "wlan_get_device_temperature_mtk: ioctl error"},
        {[&] { return wlan_get_channel_util("apclix0", &byte, 3, 1); }, "apclix0", 0x7B0, 1,
         "create socket error", "wlan_get_channel_util_mtk: ioctl error"},
        {[&] { return wlan_get_band_client_sta_info("rax4", &list, &count); }, "rax4", 0x7B1, 2056,
         "wlan_get_band_client_sta_info_mtk: creat socket failed",
         "wlan_get_band_client_sta_info_mtk: ioctl failed."},
        {[&] { return wlan_get_backhaul_ap_channel(0, &number); }, "ra0", 0x7B2, 1,
         "wlan_get_backhaul_ap_channel_mtk: create socket error",
         "wlan_get_backhaul_ap_channel_mtk: ioctl error"},
        {[&] { return wlan_get_backhaul_ap_channel(1, &number); }, "rax0", 0x7B2, 1,
         "wlan_get_backhaul_ap_channel_mtk: create socket error",
         "wlan_get_backhaul_ap_channel_mtk: ioctl error"},
        {[&] { return wlan_get_wifi_bandwidth(&number); }, "rax0", 0x7B3, 1,
         "wlan_get_wifi_bandwidth_mtk: create socket error", "wlan_get_wifi_bandwidth_mtk: ioctl error"},
        {[&] { return wlan_get_uplink_rate("apcli0", &stats, &byte); }, "apcli0", 0x7B4, 32,
         "wlan_get_uplink_rate_mtk: creat socket failed", "wlan_get_uplink_rate_mtk: ioctl failed."},
    };
    const size_t open_before = open_descriptors();
    for (const auto &operation : operations) {
        SCOPED_TRACE(operation.ioctl_error + operation.ifname);
        FakeDriver without_socket, refusing, short_of_words;
        without_socket.socket_fails = true;
        refusing.error = ENODEV;
        short_of_words.answered =
            static_cast<int>(operation.length / 512); // 0, or half of the table's header
        const std::pair<FakeDriver, std::string> failures[] = {{without_socket, operation.socket_error},
                                                               {refusing, operation.ioctl_error},
                                                               {short_of_words, "short answer"}};
        temperature = 77;
        number = byte = 77;
        for (const auto &[how, message] : failures) {
            driver = how;
            EXPECT_THAT(logged_messages([&] { EXPECT_EQ(operation.run(), 0); }),
                        ElementsAre(HasSubstr(message)));
            EXPECT_EQ(driver.calls, how.socket_fails ? 0 : 1);
        }
        EXPECT_TRUE(temperature == 77 && number == 77 && byte == 77 && count == 0)
            << "a failure leaves the result alone";

        driver = {};
        EXPECT_THAT(logged_messages([&] { EXPECT_EQ(operation.run(), 1); }), IsEmpty());
        EXPECT_EQ(driver.calls, 1);
        EXPECT_EQ(driver.request, 35809UL);
        EXPECT_EQ(driver.ifname, operation.ifname);
        EXPECT_EQ(driver.flags, operation.subcommand);
        EXPECT_EQ(driver.length, operation.length);
        EXPECT_EQ(driver.socket_kind, "2 2 0") << "AF_INET, SOCK_DGRAM";
        EXPECT_EQ(open_descriptors(), open_before);
    }
}

TEST_F(PlatformMtk, RefusesMissingArguments) {
    const std::function<int()> calls[] = {
        [&] { return wlan_get_device_temperature(nullptr, &temperature); },
        [&] { return wlan_get_device_temperature("wifi0", nullptr); },
        [&] { return wlan_get_cpu_temperature(nullptr); },
        [&] { return wlan_get_backhaul_ap_channel(0, nullptr); },
        [&] { return wlan_get_uplink_rate(nullptr, &stats, &byte); },
        [&] { return wlan_get_uplink_rate("apcli0", nullptr, &byte); },
        [&] { return wlan_get_uplink_rate("apcli0", &stats, nullptr); },
        [&] { return wlan_get_channel_util("apcli0", nullptr, 2, 1); },
        [&] { return wlan_get_sta_if_name(0, nullptr, 16); },
        [&] { return wlan_get_band_if_name(0, 0, nullptr, 16); },
        [&] { return wlan_get_wifi_bandwidth(nullptr); },
        [&] { return wlan_get_band_client_sta_info(nullptr, &list, &count); },
        [&] { return wlan_get_band_client_sta_info("ra2", nullptr, &count); },
        [&] { return wlan_get_band_client_sta_info("ra2", &list, nullptr); },
    };
    for (const auto &call : calls)
        EXPECT_THAT(logged_messages([&] { EXPECT_EQ(call(), 0); }), ElementsAre(HasSubstr("invalid input")));
    driver.memory_fails = true;
    EXPECT_THAT(logged_messages([&] {
                    wlan_get_device_temperature("wifi0", &temperature);
                    wlan_get_band_client_sta_info("ra2", &list, &count);
                }),
                ElementsAre(MatchesRegex("wlan_get_device_temperature_mtk [0-9]+ alloc fail"),
                            MatchesRegex("wlan_get_band_client_sta_info_mtk [0-9]+ alloc fail")));
    EXPECT_EQ(driver.calls, 0);
}

TEST_F(PlatformMtk, ConvertsTheAnswers) {
    driver.answer = Answer(4).at<int32_t>(0, -7);
    EXPECT_EQ(wlan_get_device_temperature("wifi0", &temperature), 1);
    EXPECT_EQ(temperature, -7.0);

    driver.answer = {165};
    EXPECT_EQ(wlan_get_backhaul_ap_channel(1, &number), 1);
    EXPECT_EQ(number, 165U);
    EXPECT_EQ(wlan_get_channel_util("apcli0", &byte, 2, 1), 1);
    EXPECT_EQ(byte, 165);

    const std::pair<uint8_t, uint32_t> bandwidths[] = {{0, 20}, {1, 40}, {2, 80}, {3, 160}, {4, 0}, {255, 0}};
    for (const auto &[code, megahertz] : bandwidths) {
        driver.answer = {code};
        const auto said = logged_messages([&] { EXPECT_EQ(wlan_get_wifi_bandwidth(&number), 1); });
        EXPECT_EQ(said.size(), code == 4 ? 1U : 0U);
        EXPECT_EQ(number, megahertz) << +code;
    }
    const std::pair<uint32_t, uint32_t> phymodes[] = {{0, 3}, {1, 0}, {2, 1},    {3, 2},
                                                      {4, 6}, {5, 5}, {65535, 5}};
    for (const auto &[code, reported] : phymodes)
        EXPECT_EQ(fix_phymode(code), reported) << code;

    const std::pair<int8_t, uint8_t> signals[] = {{-92, 0}, {-40, 52}, {-100, 248}, {127, 219}, {-128, 220}};
    for (const auto &[dbm, stored] : signals) {
        driver.answer = Answer(32).at<uint8_t>(0, 2).at<uint8_t>(5, 9).at<uint64_t>(8, 0x1000000000001234ULL);
        driver.answer[24] = static_cast<uint8_t>(dbm);
        driver.answer[16] = 0xFF;
        EXPECT_EQ(wlan_get_uplink_rate("apclix0", &stats, &byte), 1);
        EXPECT_EQ(byte, stored) << +dbm;
        EXPECT_EQ(stats.tx, 0x1234);
        EXPECT_EQ(stats.rx, 255);
        EXPECT_THAT(stats.mac, ElementsAre(2, 0, 0, 0, 0, 9));
    }
    driver.answer.clear();
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(wlan_get_uplink_rate("apcli0", &stats, &byte), 1); }),
                ElementsAre(HasSubstr("ifname = apcli0, driver get rate fail!!!"),
                            HasSubstr("ifname = apcli0, rate->tx = 0, rate->rx = 0, rssi = 0 ")));
}

TEST_F(PlatformMtk, NamesInterfaces) {
    const auto band_name = [](int band, int type) {
        return [=](char *name) { return wlan_get_band_if_name(band, type, name, 16); };
    };
    const auto station_name = [](int band, int size) {
        return [=](char *name) { return wlan_get_sta_if_name(band, name, size); };
    };
    const struct {
        std::function<int(char *)> call;
        std::string expected; // a name, or the message of a refusal
    } cases[] = {{band_name(0, 0), "ra2"},
                 {band_name(0, 1), "ra4"},
                 {band_name(0, 2), "ra5"},
                 {band_name(1, 0), "rax2"},
                 {band_name(1, 1), "rax4"},
                 {band_name(1, 2), "rax5"},
                 {band_name(2, 0), "Error band : 2"},
                 {band_name(-1, 1), "Error band : -1"},
                 {band_name(0, 3), "Error network_type : 3"},
                 {band_name(1, -1), "Error network_type : -1"},
                 {station_name(0, 16), "apcli0"},
                 {station_name(1, 16), "apclix0"},
                 {station_name(1, 6), "apcli"}, // cut to the caller's size
                 {station_name(2, 16), "Error band : 2"},
                 {[&](char *) { return wlan_get_backhaul_ap_channel(2, &number); },
                  "wlan_get_backhaul_ap_channel_mtk Error band : 2"}};
    for (const auto &one : cases) {
        SCOPED_TRACE(one.expected);
        const bool refused = one.expected.find("Error") != std::string::npos;
        char name[16] = "before";
        const auto said = logged_messages([&] { EXPECT_EQ(one.call(name), refused ? 0 : 1); });
        EXPECT_EQ(name, refused ? "before" : one.expected);
        EXPECT_EQ(said.size(), refused ? 1U : 0U);
        EXPECT_TRUE(!refused || said[0].ends_with(one.expected)) << said[0];
    }
}

TEST_F(PlatformMtk, AppendsStationsWithinEveryBound) {
    driver.answer = station_table(3);
    count = 5;
    memset(stations[5].mld_mac, 0xEE, sizeof(stations[5].mld_mac));
    EXPECT_EQ(wlan_get_band_client_sta_info("rax2", &list, &count), 1);
    EXPECT_EQ(count, 8U);
    EXPECT_THAT(stations[7].mac, ElementsAre(2, 0, 0, 0, 0, 2));
    EXPECT_EQ(stations[7].txrate, 1002U);
    EXPECT_EQ(stations[7].rxrate, 2002U);
    EXPECT_EQ(stations[7].phymode, 0U);
    EXPECT_EQ(stations[5].mld_mac[0], 0xEE) << "not the driver's to set";
    EXPECT_EQ(stations[8].txrate, 0U);

    const struct {
        const char *what;
        uint16_t told;
        uint32_t capacity, used;
        int answered;
        uint32_t after;
        bool cut;
    } cases[] = {
        {"none", 0, 200, 9, -1, 9, false},
        {"a full table", 64, 200, 100, -1, 164, false},
        {"a count beyond the table", 65535, 200, 0, -1, 64, true},
        {"no room for all", 10, 12, 5, -1, 12, true},
        {"exactly the room", 7, 12, 5, -1, 12, false},
        {"a list that is full", 1, 12, 12, -1, 12, true},
        {"a count beyond the list", 1, 12, 4000000000U, -1, 4000000000U, true},
        {"an answer that ends in an entry", 10, 200, 0, 8 + 3 * 32 + 31, 3, true},
        {"an answer of the stations only", 3, 200, 0, 8 + 3 * 32, 3, false},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.what);
        driver.answer = station_table(one.told);
        driver.answered = one.answered;
        list.capacity = one.capacity;
        count = one.used;
        const auto said =
            logged_messages([&] { EXPECT_EQ(wlan_get_band_client_sta_info("rax2", &list, &count), 1); });
        EXPECT_EQ(count, one.after);
        EXPECT_EQ(said.size(), one.cut ? 1U : 0U);
    }
}

TEST_F(PlatformMtk, ReadsTwoCharactersOfTheThermalZone) {
    const std::pair<const char *, double> cases[] = {{"45123\n", 45}, {"105000\n", 10}, {"7\n", 7},
                                                     {"-5000\n", -5}, {"", 0},          {"hot\n", 0}};
    for (const auto &[content, degrees] : cases) {
        root.write("/sys/class/thermal/thermal_zone0/temp", content);
        EXPECT_EQ(wlan_get_cpu_temperature(&temperature), 1);
        EXPECT_EQ(temperature, degrees) << content;
    }
    root.remove("/sys/class/thermal/thermal_zone0/temp");
    const auto said = logged_messages([&] { EXPECT_EQ(wlan_get_cpu_temperature(&temperature), 0); });
    EXPECT_EQ(said.back(), "open file /sys/class/thermal/thermal_zone0/temp failed");
    EXPECT_EQ(temperature, -1.0);
}

int g_result;

TEST_F(PlatformMtk, GenericEntriesJudgeTheLowByte) {
    EXPECT_EQ(wlan_platform_ops_mtk.reserved, nullptr);
    WlanPlatformOps ops = {};
    wlan_platform_ops = &ops;
    EXPECT_EQ(wlan_get_wifi_bandwidth(&number), 0) << "an empty slot";
    ops.get_wifi_bandwidth = [](uint32_t *) { return g_result; };
    const std::pair<int, int> cases[] = {{0, 0}, {1, 1}, {-1, 1}, {256, 0}, {257, 1}, {0x7fffff00, 0}};
    for (const auto &[result, expected] : cases) {
        g_result = result;
        EXPECT_EQ(wlan_get_wifi_bandwidth(&number), expected) << result;
    }
    wlan_platform_ops = nullptr;
    EXPECT_EQ(wlan_get_cpu_temperature(&temperature), 0);
    EXPECT_EQ(wlan_get_sta_if_name(0, nullptr, 0), 0);
}

} // namespace
