#include "telemetry_utils.h"

#include <climits>
#include <dlfcn.h>
#include <sys/stat.h>

#include "sysroot.h"

#include "telemetry_log.h"

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
        telemetry_debug_level = TELEMETRY_LOG_INFO;
    }
    // The message of a condition at debug level.
    static Messages debug_messages(int (*condition)(), int expected) {
        telemetry_debug_level = TELEMETRY_LOG_DEBUG;
        Messages messages = logged_messages([&] { EXPECT_EQ(condition(), expected); });
        telemetry_debug_level = TELEMETRY_LOG_INFO;
        return messages;
    }
};

TEST(TelemetryText, IntegersWrapInsteadOfOverflowing) {
    const struct {
        const char *text;
        int32_t value;
    } cases[] = {
        {nullptr, 0},
        {"", 0},
        {"x9", 0},
        {" 42x", 42},
        {"-5", -5},
        {"2147483647", INT_MAX},
        {"2147483648", INT_MIN},
        {"4294967301", 5},
        {"99999999999999999999999", -1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(telemetry_text_to_int(c.text), c.value);
}

TEST(TelemetryMac, Conversions) {
    const struct {
        int (*convert)(char *, const char *);
        const char *source;
        const char *expected;
    } cases[] = {
        {mac_to_format, "aa:bb:cc:dd:ee:ff", "AABBCCDDEEFF"},
        {mac_to_format, "aa-bb-cc-dd-ee-ff", "AABBCCDDEEFF"},
        {mac_to_format, "a.b:z_{", "A.BZ_{"},
        {mac_to_format, "", ""},
        {mac_to_short_line, "AABBCCDDEEFF", "AA-BB-CC-DD-EE-FF"},
        {mac_to_short_line, "aAbBc", "aA-bB-c"},
        {mac_to_short_line, "ab", "ab"},
        {mac_to_short_line, "", ""},
        {mac_to_upper_short_line, "aa:bb:cc:dd:ee:ff", "AA-BB-CC-DD-EE-FF"},
        {mac_to_upper_short_line, "aabbccddeeff", "AA-BB-CC-DD-EE-FF"},
        {mac_to_upper_short_line, "aabbc", "AA-BB-C"},
    };
    for (const auto &c : cases) {
        char output[18];
        EXPECT_EQ(c.convert(output, c.source), 0);
        EXPECT_STREQ(output, c.expected);
    }
}

TEST(TelemetryMac, TheShortLineNeverLeavesItsBuffer) {
    for (const std::string &source :
         {std::string(5000, 'a'), std::string(5000, ':') + "abc", std::string(13, 'a')}) {
        char output[19];
        output[18] = '#';
        EXPECT_EQ(mac_to_upper_short_line(output, source.c_str()), 0);
        EXPECT_STREQ(output, source[0] == 'a' ? "AA-AA-AA-AA-AA-AA" : "AB-C");
        EXPECT_EQ(output[18], '#');
    }
}

TEST(TelemetryMac, NullArguments) {
    char output[18];
    EXPECT_EQ(logged_messages([&] { EXPECT_EQ(mac_to_format(output, nullptr), -1); }),
              Messages{"params error"});
    EXPECT_EQ(logged_messages([&] { EXPECT_EQ(mac_to_short_line(nullptr, "a"), -1); }),
              Messages{"params error"});
    EXPECT_EQ(logged_messages([&] { EXPECT_EQ(mac_to_upper_short_line(output, nullptr), -1); }),
              (Messages{"params error", "-----mac to format----------"}));
    EXPECT_EQ(logged_messages([&] { EXPECT_EQ(mac_to_upper_short_line(nullptr, "a"), -1); }),
              (Messages{"params error", "-----mac_to_short_line----------"}));
}

TEST(TelemetryMac, BytesNeedRoomForTheTerminator) {
    const uint8_t mac[6] = {0x00, 0x1a, 0xff, 0x80, 0x09, 0xc3};
    char output[13];
    EXPECT_EQ(mac_uint8_to_char(output, 13, mac, 6), 0);
    EXPECT_STREQ(output, "001aff8009c3");
    EXPECT_EQ(logged_messages([&] { EXPECT_EQ(mac_uint8_to_char(output, 12, mac, 6), -1); }),
              Messages{"target len is not enough"});
    EXPECT_EQ(mac_uint8_to_char(output, 0, mac, 0), -1);
    EXPECT_EQ(mac_uint8_to_char(output, 13, mac, SIZE_MAX), -1);
}

TEST_F(TelemetryUtils, ShellValueIsCutAndPadded) {
    const struct {
        const char *command;
        int size;
        std::string expected; // all bytes of the buffer
    } cases[] = {
        {"printf 'abc\\r\\n'", 8, std::string("abc\r\0\0\0\0", 8)},
        {"printf 'abc\\n\\n'", 8, std::string("abc\n\0\0\0\0", 8)},
        {"printf abc", 4, std::string("abc\0", 4)},
        {"printf abcd", 4, "abcd"},
        {"printf abcdef", 4, "abcd"},
        {"printf '\\n'", 2, std::string("\0\0", 2)},
        {"true", 3, std::string("\0\0\0", 3)},
        {"exit 3", 3, std::string("\0\0\0", 3)},
        {"printf 'a\\0bc'", 4, std::string("a\0\0\0", 4)},
    };
    for (const auto &c : cases) {
        std::string output(static_cast<size_t>(c.size), '#');
        EXPECT_EQ(shell_get_value(c.command, output.data(), c.size), 0) << c.command;
        EXPECT_EQ(output, c.expected) << c.command;
    }
}

TEST_F(TelemetryUtils, ShellOutputBeyondTheFirstReadIsDropped) {
    std::string output(4096, '#');
    EXPECT_EQ(shell_get_value("printf '%5000s' x", output.data(), 4096), 0);
    EXPECT_EQ(output, std::string(2048, ' ') + std::string(2048, '\0'));
    root.write("/tmp/binary", std::string("\xff\x01\x80\xfe", 4));
    EXPECT_EQ(shell_get_value(("cat " + root.path("/tmp/binary")).c_str(), output.data(), 8), 0);
    EXPECT_EQ(output.substr(0, 8), std::string("\xff\x01\x80\xfe\0\0\0\0", 8));
}

TEST_F(TelemetryUtils, ShellValueFailures) {
    char output[4] = "old";
    for (const auto &bad : {std::pair<const char *, int>{nullptr, 4}, {"", 4}, {"true", 0}, {"true", -1}})
        EXPECT_EQ(logged_messages([&] { EXPECT_EQ(shell_get_value(bad.first, output, bad.second), -1); }),
                  Messages{"param error"});
    EXPECT_EQ(shell_get_value("true", nullptr, 4), -1);
    popen_fails = true;
    EXPECT_EQ(logged_messages([&] { EXPECT_EQ(shell_get_value("board x", output, 4), -1); }),
              Messages{"error: popen exe [board x] failed"});
    EXPECT_STREQ(output, "old");
}

TEST_F(TelemetryUtils, ParseFile) {
    root.write("/tmp/text", "0123456789");
    char buffer[16];
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(telemetry_parse_file("/tmp/text", buffer, sizeof(buffer)), 0);
    EXPECT_EQ(std::string(buffer, sizeof(buffer)), std::string("0123456789\0\0\0\0\0\0", 16));
    EXPECT_EQ(telemetry_parse_file("/tmp/text", buffer, 4), 0);
    EXPECT_STREQ(buffer, "012");
    EXPECT_EQ(logged_messages([&] { EXPECT_EQ(telemetry_parse_file("/tmp/none", buffer, 4), -1); }),
              Messages{"error: open file /tmp/none failed"});
    EXPECT_EQ(logged_messages([&] { EXPECT_EQ(telemetry_parse_file(nullptr, buffer, 4), -1); }),
              Messages{"invalid input"});
    EXPECT_EQ(telemetry_parse_file("/tmp/text", buffer, 0), -1);
    // Nothing to read, and nothing to wait for.
    ASSERT_EQ(mkfifo(root.path("/tmp/pipe").c_str(), 0600), 0);
    for (const char *path : {"/tmp/pipe", "/tmp"}) {
        memset(buffer, '#', sizeof(buffer));
        EXPECT_EQ(telemetry_parse_file(path, buffer, sizeof(buffer)), 0);
        EXPECT_EQ(std::string(buffer, sizeof(buffer)), std::string(sizeof(buffer), '\0'));
    }
}

TEST_F(TelemetryUtils, OnlyTheWorkModeFapIsTheMainNode) {
    const struct {
        const char *content; // null: no file
        int is_fap;
        Messages messages;
    } cases[] = {
        {"{\"work_mode\":\"FAP\"}", 1, {}},
        {"{\"work_mode\":\"FAP\"}\n", 1, {}},
        {"{\"work_mode\":\"fap\"}", 0, {}},
        {"{\"work_mode\":\"FAPs\"}", 0, {}},
        {"{\"work_mode\":\"RE\"}", 0, {}},
        {"{\"work_mode\":1}", 0, {}},
        {"{\"WORK_MODE\":\"FAP\"}", 0, {}},
        {"{}", 0, {}},
        {"[\"FAP\"]", 0, {}},
        {"{\"work_mode\":\"FA", 0, {"parse work_mode"}},
        {"", 0, {"parse work_mode"}},
        {nullptr, 0, {"error: open file /tmp/work_mode failed", "parse file /tmp/work_mode failed"}},
    };
    for (const auto &c : cases) {
        root.remove("/tmp/work_mode");
        if (c.content != nullptr)
            root.write("/tmp/work_mode", c.content);
        EXPECT_EQ(logged_messages([&] { EXPECT_EQ(check_if_device_is_FAP(), c.is_fap); }), c.messages);
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
    root.write_config("telemetry", "config basic 'basic'\n\toption enable '0'\n");
    EXPECT_EQ(debug_messages(telemetry_check_collect_condition, 0), Messages{"telemetry disable!"});
    root.write_config("telemetry", "config basic 'basic'\n\toption enable '1'\n");
    EXPECT_EQ(logged_messages([] { EXPECT_EQ(telemetry_check_collect_condition(), 0); }), Messages{});
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
        const std::string name = feature.type;
        const auto last_message = [&](int expected) {
            return debug_messages(feature.check, expected).back();
        };
        const std::string supported = "device support " + name + "!";
        const std::string not_supported = "device not support " + name + "!";

        root.clean();
        EXPECT_EQ(last_message(feature.unreadable), feature.unreadable ? supported : not_supported);
        root.write_profile("config " + name + "\n\toption support 'yes, since 2'\n");
        EXPECT_EQ(last_message(1), supported);
        root.write_profile("config " + name + "\n\toption support 'no'\n");
        EXPECT_EQ(last_message(0), not_supported);
        root.write_profile("config " + name + "\n\toption support '" + std::string(500, 'y') + "'\n");
        EXPECT_EQ(last_message(0), not_supported);
    }
}

TEST_F(TelemetryUtils, TheSecuritySuiteDoesNotRunOverDslite) {
    root.write_profile("config tm_shn\n\toption support 'yes'\n");
    root.write_config("network", "config interface 'wan'\n\toption wan_type 'dslite_v2'\n");
    EXPECT_EQ(debug_messages(check_is_tm_shn_support, 0), Messages{"device not support tm_shn!"});
    root.write_config("network", "config interface 'wan'\n\toption wan_type 'dslit'\n");
    EXPECT_EQ(check_is_tm_shn_support(), 1);
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
    EXPECT_EQ(telemetry_is_ip_address("router"), 0);
    EXPECT_EQ(telemetry_is_ip_address("1.2.3.256"), 0);
    EXPECT_EQ(telemetry_is_ip_address("2001:db8::1"), 1);
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

    root.add_command("ping", "echo unreachable >&2; exit 1");
    EXPECT_EQ(telemetry_ping_delay_v4(output, "192.168.0.2"), 0);
    EXPECT_STREQ(output, "0.000000");
    root.add_command("ping", "echo '///1e300'");
    EXPECT_EQ(telemetry_ping_delay_v4(output, "192.168.0.2"), 0);
    EXPECT_EQ(strlen(output), 127u);
}

TEST_F(TelemetryUtils, PingLeavesTheOutputWhenItCannotRun) {
    root.add_command("ping", "touch " + root.path("/tmp/ran"));
    char output[128] = "old";
    for (const std::string &host : {std::string("1.2.3.4;touch x"), std::string("-f"), std::string(250, 'a')})
        EXPECT_EQ(logged_messages([&] { EXPECT_EQ(telemetry_ping_delay_v4(output, host.c_str()), -1); }),
                  Messages{"params error"});
    EXPECT_EQ(telemetry_ping_delay_v4(output, nullptr), -1);
    EXPECT_EQ(telemetry_ping_delay_v6(nullptr, "::1"), -1);
    EXPECT_FALSE(root.exists("/tmp/ran"));
    popen_fails = true;
    EXPECT_EQ(telemetry_ping_delay_v4(output, "192.168.0.2"), 0);
    EXPECT_STREQ(output, "old");
}

TEST_F(TelemetryUtils, PostDoneMarker) {
    EXPECT_EQ(telemetry_post_done, -1);
    EXPECT_EQ(logged_messages([] { EXPECT_EQ(write_post_done_to_file(2), -1); }),
              Messages{"Failed to open /tmp/telemetry/post_done"});
    root.write("/tmp/telemetry/post_done", "a longer text\n");
    EXPECT_EQ(write_post_done_to_file(2), 0);
    EXPECT_EQ(root.read("/tmp/telemetry/post_done"), "1\n");
    EXPECT_EQ(write_post_done_to_file(1), 0);
    EXPECT_EQ(root.read("/tmp/telemetry/post_done"), "0\n");
    EXPECT_EQ(telemetry_post_done, 0);
    root.remove("/tmp/telemetry/post_done");
    std::filesystem::create_symlink("/dev/full", root.path("/tmp/telemetry/post_done"));
    EXPECT_EQ(logged_messages([] { EXPECT_EQ(write_post_done_to_file(2), -1); }),
              Messages{"Failed to write /tmp/telemetry/post_done"});
}
