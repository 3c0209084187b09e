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
using testing::EndsWith;
using testing::HasSubstr;

namespace {

struct FakeDriver {
    std::vector<uint8_t> answer = {};
    int error = 0;     // errno of the refusal
    int answered = -1; // length told back, -1: as asked
    bool socket_fails = false, memory_fails = false;
    std::string asked = {}; // socket kind, request, interface, subcommand, length
} driver;

} // namespace

extern "C" int ioctl(int, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    iwreq *block = va_arg(arguments, iwreq *);
    va_end(arguments);
    iw_point &data = block->u.data;
    driver.asked += std::to_string(request) + " " + block->ifr_name + " " + std::to_string(data.flags) + " " +
                    std::to_string(data.length);
    errno = driver.error;
    std::copy_n(driver.answer.begin(), std::min<size_t>(driver.answer.size(), data.length),
                static_cast<uint8_t *>(data.pointer));
    if (driver.answered >= 0)
        data.length = static_cast<uint16_t>(driver.answered);
    return driver.error != 0 ? -1 : 0;
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
    driver.asked = std::to_string(domain) + std::to_string(type) + std::to_string(protocol) + " ";
    errno = EMFILE;
    return driver.socket_fails ? -1 : static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return driver.memory_fails ? nullptr : ::operator new(size);
}

namespace {

// A value at a byte offset of the answer, as the driver lays it out.
template <typename T> void put(size_t offset, T value) {
    driver.answer.resize(std::max(driver.answer.size(), offset + sizeof(T)));
    memcpy(&driver.answer[offset], &value, sizeof(value));
}

void put_stations(uint16_t count) {
    driver = {};
    put(2055, '\0');
    put(0, count);
    for (size_t i = 0, entry = 8; i < 64; i++, entry += 32) {
        put<uint8_t>(entry, 2);
        put(entry + 5, static_cast<uint8_t>(i));
        put<uint64_t>(entry + 8, 1000 + i);
        put<uint64_t>(entry + 16, 2000 + i);
        put<uint16_t>(entry + 26, 1);
    }
}

std::ptrdiff_t open_descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

class PlatformMtk : public SysrootTest {
  protected:
    PlatformMtk() {
        driver = {};
        telemetry_debug_level = TELEMETRY_LOG_ERROR;
        wlan_platform_ops = &wlan_platform_ops_mtk;
    }
    ClientStaInfo stations[200] = {};
    ClientStaList list = {0, 200, stations};
    uint32_t count = 0, number = 77;
    double temperature = 77;
    uint8_t byte = 77;
    BackhaulStats stats = {};
};

TEST_F(PlatformMtk, AsksTheDriverAndReleasesEverythingOnEveryPath) {
    const struct {
        std::function<int()> run;
        std::string name;
        const char *asked; // interface, subcommand, length
        std::string no_socket = "create socket error", refused = "ioctl error";
    } operations[] = {
        {[&] { return wlan_get_device_temperature("wifi2", &temperature); },
         "wlan_get_device_temperature_mtk: ", "ra0 2465 4"},
        {[&] { return wlan_get_channel_util("apclix0", &byte, 3, 1); },
         "wlan_get_channel_util_mtk: ", "apclix0 1968 1"},
        {[&] { return wlan_get_band_client_sta_info("rax4", &list, &count); },
         "wlan_get_band_client_sta_info_mtk: ", "rax4 1969 2056", "creat socket failed", "ioctl failed."},
        {[&] { return wlan_get_backhaul_ap_channel(0, &number); },
         "wlan_get_backhaul_ap_channel_mtk: ", "ra0 1970 1"},
        {[&] { return wlan_get_backhaul_ap_channel(1, &number); },
         "wlan_get_backhaul_ap_channel_mtk: ", "rax0 1970 1"},
        {[&] { return wlan_get_wifi_bandwidth(&number); }, "wlan_get_wifi_bandwidth_mtk: ", "rax0 1971 1"},
        {[&] { return wlan_get_uplink_rate("apcli0", &stats, &byte); },
         "wlan_get_uplink_rate_mtk: ", "apcli0 1972 32", "creat socket failed", "ioctl failed."},
    };
    const auto open_before = open_descriptors();
    for (const auto &operation : operations) {
        SCOPED_TRACE(operation.asked);
        temperature = number = byte = 77;
        const auto run = [&](const FakeDriver &how, int result) {
            driver = how;
            const OutputCapture capture;
            EXPECT_EQ(operation.run(), result);
            return capture.text();
        };
        EXPECT_THAT(run({.socket_fails = true}, 0),
                    HasSubstr((operation.name.find("util") == std::string::npos ? operation.name : "): ") +
                              operation.no_socket));
        EXPECT_EQ(driver.asked, "220 ") << "AF_INET, SOCK_DGRAM";
        EXPECT_THAT(run({.error = ENODEV}, 0), HasSubstr(operation.name + operation.refused));
        EXPECT_TRUE(temperature == 77 && number == 77 && byte == 77 && count == 0) << "results stay";
        EXPECT_EQ(run({.answered = 0}, 1), "") << "some drivers do not tell a length";
        EXPECT_EQ(driver.asked, std::string("220 35809 ") + operation.asked);
        EXPECT_EQ(open_descriptors(), open_before);
    }
}

TEST_F(PlatformMtk, SaysThatMemoryIsShort) {
    driver.memory_fails = true;
    EXPECT_THAT(logged_messages([&] {
                    wlan_get_device_temperature("wifi0", &temperature);
                    wlan_get_band_client_sta_info("ra2", &list, &count);
                }),
                ElementsAre(testing::MatchesRegex("wlan_get_device_temperature_mtk [0-9]+ alloc fail"),
                            testing::MatchesRegex("wlan_get_band_client_sta_info_mtk [0-9]+ alloc fail")));
    EXPECT_EQ(driver.asked, "");
}

TEST_F(PlatformMtk, ConvertsTheAnswers) {
    put<int32_t>(0, -7);
    wlan_get_device_temperature("wifi0", &temperature);
    EXPECT_EQ(temperature, -7.0);
    driver.answer = {165};
    wlan_get_backhaul_ap_channel(1, &number);
    wlan_get_channel_util("apcli0", &byte, 2, 1);
    EXPECT_TRUE(number == 165 && byte == 165);

    const std::pair<uint8_t, uint32_t> bandwidths[] = {{0, 20}, {1, 40}, {2, 80}, {3, 160}, {4, 0}, {255, 0}};
    for (const auto &[code, megahertz] : bandwidths) {
        driver.answer = {code};
        EXPECT_EQ(logged_messages([&] { wlan_get_wifi_bandwidth(&number); }).size(), code == 4 ? 1U : 0U);
        EXPECT_EQ(number, megahertz) << +code;
    }
    uint32_t code = 0;
    for (const uint32_t reported : {3, 0, 1, 2, 6, 5})
        EXPECT_EQ(fix_phymode(code++), reported) << code;

    const std::pair<int8_t, uint8_t> signals[] = {{-92, 0}, {-40, 52}, {-100, 248}, {127, 219}, {-128, 220}};
    put<uint8_t>(0, 2);
    put<uint8_t>(5, 9);
    put<uint64_t>(8, 0x1000000000001234ULL);
    put<uint64_t>(16, 255);
    for (const auto &[dbm, stored] : signals) {
        put(24, dbm);
        EXPECT_EQ(wlan_get_uplink_rate("apclix0", &stats, &byte), 1);
        EXPECT_EQ(byte, stored) << +dbm;
    }
    EXPECT_TRUE(stats.tx == 0x1234 && stats.rx == 255);
    EXPECT_THAT(stats.mac, ElementsAre(2, 0, 0, 0, 0, 9));
}

TEST_F(PlatformMtk, NamesInterfaces) {
    char name[16];
    std::string names;
    for (int i = 0; i < 6; ++i)
        names += wlan_get_band_if_name(i / 3, i % 3, name, 16) == 1 ? std::string(name) + " " : "failed ";
    for (const auto &[band, size] : {std::pair{0, 16}, {1, 16}, {1, 6}}) // cut to the caller's size
        names += wlan_get_sta_if_name(band, name, size) == 1 ? std::string(name) + " " : "failed ";
    EXPECT_EQ(names, "ra2 ra4 ra5 rax2 rax4 rax5 apcli0 apclix0 apcli ");
    int result = 0;
    const auto said = logged_messages([&] {
        for (const auto &[band, type] : {std::pair{2, 0}, {-1, 1}, {0, 3}, {1, -1}})
            result |= wlan_get_band_if_name(band, type, name, 16);
        result |= wlan_get_sta_if_name(2, name, 16) | wlan_get_backhaul_ap_channel(2, &number);
    });
    EXPECT_THAT(said,
                ElementsAre(EndsWith(" Error band : 2"), EndsWith(" Error band : -1"),
                            EndsWith(" Error network_type : 3"), EndsWith(" Error network_type : -1"),
                            EndsWith(" Error band : 2"), "wlan_get_backhaul_ap_channel_mtk Error band : 2"));
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(name, "apcli");
}

TEST_F(PlatformMtk, AppendsStationsWithinEveryBound) {
    memset(stations[5].mld_mac, 0xEE, sizeof(stations[5].mld_mac));
    const struct {
        const char *what;
        uint16_t told;
        uint32_t capacity, used;
        uint32_t after;
        bool cut;
    } cases[] = {
        {"some behind others", 3, 200, 5, 8, false},
        {"a full table", 64, 200, 100, 164, false},
        {"a count beyond the table", 65535, 200, 0, 64, true},
        {"no room for all", 10, 12, 5, 12, true},
        {"a count beyond the list", 1, 12, 4000000000U, 4000000000U, true},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.what);
        put_stations(one.told);
        list.capacity = one.capacity;
        count = one.used;
        const auto said =
            logged_messages([&] { EXPECT_EQ(wlan_get_band_client_sta_info("rax2", &list, &count), 1); });
        EXPECT_EQ(count, one.after);
        EXPECT_EQ(said.size(), one.cut ? 1U : 0U);
        if (one.used == 5 && one.told == 3) {
            const ClientStaInfo &third = stations[7];
            EXPECT_THAT(third.mac, ElementsAre(2, 0, 0, 0, 0, 2));
            EXPECT_TRUE(third.txrate == 1002 && third.rxrate == 2002 && third.phymode == 0);
            EXPECT_EQ(stations[5].mld_mac[0], 0xEE) << "not the driver's to set";
            EXPECT_EQ(stations[8].txrate, 0U);
        }
    }
}

TEST_F(PlatformMtk, ReadsTwoCharactersOfTheThermalZone) {
    const char kZone[] = "/sys/class/thermal/thermal_zone0/temp";
    const std::pair<const char *, double> cases[] = {{"45123\n", 45}, {"105000\n", 10}, {"7\n", 7},
                                                     {"-5000\n", -5}, {"", 0},          {"hot\n", 0}};
    for (const auto &[content, degrees] : cases) {
        root.write(kZone, content);
        EXPECT_EQ(wlan_get_cpu_temperature(&temperature), 1);
        EXPECT_EQ(temperature, degrees) << content;
    }
    root.remove(kZone);
    EXPECT_EQ(logged_messages([&] { EXPECT_EQ(wlan_get_cpu_temperature(&temperature), 0); }).back(),
              std::string("open file ") + kZone + " failed");
    EXPECT_EQ(temperature, -1.0);
}

TEST_F(PlatformMtk, GenericEntriesJudgeTheLowByte) {
    WlanPlatformOps ops = {};
    wlan_platform_ops = &ops;
    EXPECT_EQ(wlan_get_wifi_bandwidth(&number), 0) << "an empty slot";
    static int result;
    ops.get_wifi_bandwidth = [](uint32_t *) { return result; };
    const std::pair<int, int> cases[] = {{0, 0}, {-1, 1}, {256, 0}, {257, 1}};
    for (const auto &[given, expected] : cases) {
        result = given;
        EXPECT_EQ(wlan_get_wifi_bandwidth(&number), expected) << result;
    }
    wlan_platform_ops = nullptr;
    EXPECT_EQ(wlan_get_cpu_temperature(&temperature), 0);
}

} // namespace
