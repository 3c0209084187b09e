#include "telemetry_utils.h"

#include <climits>
#include <dlfcn.h>
#include <sys/stat.h>

#include "sysroot.h"

// Stands before the C library's: the test says when a command cannot be started.
static bool popen_fails;

extern "C" FILE *popen(const char *command, const char *mode) {
    if (popen_fails)
        return nullptr;
    const auto real = reinterpret_cast<FILE *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, "popen"));
    return real(command, mode);
}

using Messages = std::vector<std::string>;

class TelemetryUtils : public SysrootTest {
  protected:
    void TearDown() override {
        popen_fails = false;
    }
};

TEST(TelemetryText, IntegersWrapInsteadOfOverflowing) {
    const std::pair<const char *, int32_t> cases[] = {
        {nullptr, 0}, {"x9", 0}, {" 42x", 42}, {"2147483648", INT_MIN}, {"99999999999999999999999", -1}};
    for (const auto &[text, value] : cases)
        EXPECT_EQ(telemetry_text_to_int(text), value);
}

TEST(TelemetryMac, Conversions) {
    const struct {
        int (*convert)(char *, const char *);
        std::string source;
        const char *expected;
    } cases[] = {
        {mac_to_format, "aa:bb:cc-dd-ee:ff", "AABBCCDDEEFF"},
        {mac_to_format, "a.b:z_{", "A.BZ_{"},
        {mac_to_short_line, "aAbBc", "aA-bB-c"},
        {mac_to_short_line, "", ""},
        {mac_to_upper_short_line, "aabb:c", "AA-BB-C"},
        // Whatever comes, 17 characters at most.
        {mac_to_upper_short_line, std::string(5000, 'a'), "AA-AA-AA-AA-AA-AA"},
        {mac_to_upper_short_line, std::string(5000, ':') + "abc", "AB-C"},
    };
    for (const auto &c : cases) {
        char output[18];
        EXPECT_EQ(c.convert(output, c.source.c_str()), 0);
        EXPECT_STREQ(output, c.expected);
        EXPECT_EQ(c.convert(output, nullptr), -1);
        EXPECT_EQ(c.convert(nullptr, "a"), -1);
    }
    const uint8_t mac[6] = {0x00, 0x1a, 0xff, 0x80, 0x09, 0xc3};
    char output[13];
    EXPECT_EQ(mac_uint8_to_char(output, 13, mac, 6), 0);
    EXPECT_STREQ(output, "001aff8009c3");
    for (const auto &[room, length] : {std::pair<size_t, size_t>{12, 6}, {0, 0}, {13, SIZE_MAX}})
        EXPECT_EQ(mac_uint8_to_char(output, room, mac, length), -1);
}

TEST_F(TelemetryUtils, ShellValueIsCutAndPadded) {
    const struct {
        const char *command;
        size_t size;
        std::string expected; // zeroes follow to the end of the buffer
    } cases[] = {
        {"printf 'abc\\r\\n'", 8, "abc\r"},
        {"printf 'abc\\n\\n'", 8, "abc\n"},
        {"printf abcdef", 4, "abcd"},
        {"printf '\\n'", 2, ""},
        {"exit 3", 3, ""},
        {"printf 'a\\0bc'", 4, "a"},
        {"printf '\\377\\001'", 4, "\xff\x01"},
        {"printf '%5000s' x", 4096, std::string(2048, ' ')}, // one read
    };
    for (const auto &c : cases) {
        std::string output(c.size, '#');
        EXPECT_EQ(shell_get_value(c.command, output.data(), static_cast<int>(c.size)), 0) << c.command;
        EXPECT_EQ(output, c.expected + std::string(c.size - c.expected.size(), '\0')) << c.command;
    }
    char output[4] = "old";
    for (const auto &[command, size] : {std::pair<const char *, int>{nullptr, 4}, {"", 4}, {"true", 0}})
        EXPECT_EQ(shell_get_value(command, output, size), -1);
    popen_fails = true;
    EXPECT_EQ(logged_result([&] { return shell_get_value("board x", output, 4); }),
              LoggedResult(-1, {"error: popen exe [board x] failed"}));
    EXPECT_STREQ(output, "old");
}

TEST_F(TelemetryUtils, FilesAreReadIntoAZeroedBuffer) {
    root.write("/tmp/text", "0123456789");
    ASSERT_EQ(mkfifo(root.path("/tmp/pipe").c_str(), 0600), 0);
    const struct {
        const char *path;
        size_t size;
        int result;
        std::string expected;
    } cases[] = {{"/tmp/text", 16, 0, "0123456789"},
                 {"/tmp/text", 4, 0, "012"},
                 {"/tmp/none", 4, -1, "####"},
                 {"/tmp/text", 0, -1, ""},
                 // Nothing to read, and nothing to wait for.
                 {"/tmp/pipe", 16, 0, ""},
                 {"/tmp", 16, 0, ""}};
    for (const auto &c : cases) {
        std::string buffer(16, '#');
        EXPECT_EQ(telemetry_parse_file(c.path, buffer.data(), c.size), c.result);
        EXPECT_EQ(buffer.substr(0, c.size), c.expected + std::string(c.size - c.expected.size(), '\0'));
    }
}

TEST_F(TelemetryUtils, OnlyTheWorkModeFapIsTheMainNode) {
    const struct {
        const char *content; // null: no file
        int is_fap;
        Messages messages;
    } cases[] = {
        {"{\"work_mode\":\"FAP\"}\n", 1, {}},
        {"{\"work_mode\":\"fap\"}", 0, {}},
        {"{\"work_mode\":\"FAPs\"}", 0, {}},
        {"{\"work_mode\":1}", 0, {}},
        {"[\"FAP\"]", 0, {}},
        {"{\"work_mode\":\"FA", 0, {"parse work_mode"}},
        {nullptr, 0, {"error: open file /tmp/work_mode failed", "parse file /tmp/work_mode failed"}},
    };
    for (const auto &c : cases) {
        root.remove("/tmp/work_mode");
        if (c.content != nullptr)
            root.write("/tmp/work_mode", c.content);
        EXPECT_EQ(logged_result(check_if_device_is_FAP), LoggedResult(c.is_fap, c.messages));
    }
}

TEST_F(TelemetryUtils, CollectionNeedsEnableClockAndMainNode) {
    for (int present = 0; present < 8; present++) {
        root.clean();
        root.write_config("telemetry", std::string("config basic 'basic'\n\toption enable '") +
                                           ((present & 1) != 0 ? "on" : "off") + "'\n");
        if ((present & 2) != 0)
            root.write("/tmp/run/ntpd.uptime", "");
        root.write("/tmp/work_mode",
                   (present & 4) != 0 ? "{\"work_mode\":\"FAP\"}" : "{\"work_mode\":\"RE\"}");
        EXPECT_EQ(telemetry_check_collect_condition(), present == 7) << present;
    }
    // The first that fails ends it: no word about the missing work mode.
    root.clean();
    root.write_config("telemetry", "config basic 'basic'\n\toption enable '1'\n");
    EXPECT_EQ(logged_result(telemetry_check_collect_condition), LoggedResult(0, {}));
}

TEST_F(TelemetryUtils, FeaturesComeFromTheProfile) {
    const struct {
        const char *type;
        int (*check)();
        int unreadable;
    } features[] = {
        {"tm_shn", check_is_tm_shn_support, 1},
        {"afc", check_is_afc_support, 0},
        {"eco_mode", check_is_eco_mode_support, 0},
        {"auto_upgrade", check_is_auto_upgrade_support, 0},
    };
    for (const auto &feature : features) {
        const auto supported_by = [&](const std::string &value) {
            root.write_profile("config " + std::string(feature.type) + "\n\toption support '" + value +
                               "'\n");
            return feature.check();
        };
        root.clean();
        EXPECT_EQ(feature.check(), feature.unreadable);
        EXPECT_EQ(supported_by("yes, since 2"), 1);
        EXPECT_EQ(supported_by("no"), 0);
        EXPECT_EQ(supported_by(std::string(500, 'y')), 0);
    }
    // The security suite does not run over DS-Lite.
    root.write_profile("config tm_shn\n\toption support 'yes'\n");
    for (const auto &[type, supported] : {std::pair("dslite_v2", 0), {"dslit", 1}}) {
        root.write_config("network",
                          "config interface 'wan'\n\toption wan_type '" + std::string(type) + "'\n");
        EXPECT_EQ(check_is_tm_shn_support(), supported) << type;
    }
}

TEST(TelemetryHost, OnlyAddressesAndNamesPass) {
    for (const char *host : {"192.168.0.1", "fe80::1", "::ffff:1.2.3.4", "router", "a-b.example.net"})
        EXPECT_EQ(telemetry_is_host(host), 1) << host;
    for (const char *host :
         {"", "-c1", "a b", "1.2.3.4;reboot", "$(reboot)", "a|b", "fe80::1%lan", "a\nb", "`a`", "a_b"})
        EXPECT_EQ(telemetry_is_host(host), 0) << host;
    EXPECT_EQ(telemetry_is_host(nullptr), 0);
    EXPECT_EQ(telemetry_is_host(std::string(253, 'a').c_str()), 1);
    EXPECT_EQ(telemetry_is_host(std::string(254, 'a').c_str()), 0);
}

TEST_F(TelemetryUtils, PingDelayIsAFieldOfTheSummary) {
    const std::string log = root.path("/tmp/arguments");
    root.add_command("ping", "echo \"$@\" > " + log + "\necho 'round-trip min/avg/max = 1.5/2.25/3 ms'");
    root.add_command("ping6", "echo six \"$@\" > " + log + "\necho 'round-trip min/avg/max = 1.5/2.25/3 ms'");
    char output[128];
    EXPECT_EQ(telemetry_ping_delay_v4(output, "192.168.0.2"), 0);
    EXPECT_STREQ(output, "2.250000");
    EXPECT_EQ(root.read("/tmp/arguments"), "-c 3 192.168.0.2\n");
    EXPECT_EQ(telemetry_ping_delay_v6(output, "fe80::2"), 0);
    EXPECT_STREQ(output, "3.000000");
    EXPECT_EQ(root.read("/tmp/arguments"), "six -c 3 fe80::2\n");

    // What no address or name is, and what does not fit the command, runs nothing.
    root.remove("/tmp/arguments");
    for (const std::string &host : {std::string("1.2.3.4;touch x"), std::string("-f"), std::string(250, 'a')})
        EXPECT_EQ(logged_result([&] { return telemetry_ping_delay_v4(output, host.c_str()); }),
                  LoggedResult(-1, {"params error"}));
    EXPECT_EQ(telemetry_ping_delay_v4(output, nullptr), -1);
    EXPECT_EQ(telemetry_ping_delay_v6(nullptr, "::1"), -1);
    EXPECT_FALSE(root.exists("/tmp/arguments"));
    popen_fails = true;
    EXPECT_EQ(telemetry_ping_delay_v4(output, "192.168.0.2"), 0);
    EXPECT_STREQ(output, "3.000000"); // as it was
    popen_fails = false;

    root.add_command("ping", "echo unreachable >&2; exit 1");
    EXPECT_EQ(telemetry_ping_delay_v4(output, "192.168.0.2"), 0);
    EXPECT_STREQ(output, "0.000000");
    root.add_command("ping", "echo '///1e300'");
    EXPECT_EQ(telemetry_ping_delay_v4(output, "192.168.0.2"), 0);
    EXPECT_EQ(strlen(output), 127u);
}
