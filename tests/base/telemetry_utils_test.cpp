#include "telemetry_utils.h"

#include <dlfcn.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "sysroot.h"
#include "telemetry_paths.h"

// Stands before the C library's: the test says with which errno no command can be started.
static int spawn_fails;

extern "C" int posix_spawnp(pid_t *pid, const char *file, const posix_spawn_file_actions_t *actions,
                            const posix_spawnattr_t *attributes, char *const argv[], char *const envp[]) {
    if (spawn_fails != 0)
        return spawn_fails;
    const auto real = reinterpret_cast<decltype(&posix_spawnp)>(dlsym(RTLD_NEXT, "posix_spawnp"));
    return real(pid, file, actions, attributes, argv, envp);
}

using Messages = std::vector<std::string>;

// A buffer's content: the text, and zeroes to its end.
static std::string padded(std::string text, size_t size) {
    text.resize(size, '\0');
    return text;
}

class TelemetryUtils : public SysrootTest {};

TEST_F(TelemetryUtils, MacConversions) {
    const std::tuple<int (*)(char *, const char *), std::string, const char *> cases[] = {
        {mac_to_format, "aa:bb:cc-dd-ee:ff", "AABBCCDDEEFF"},
        {mac_to_short_line, "aAbBc", "aA-bB-c"},
        // Whatever comes, 17 digits at most: 25 characters.
        {mac_to_upper_short_line, std::string(5000, 'a'), "AA-AA-AA-AA-AA-AA-AA-AA-A"},
        {mac_to_upper_short_line, std::string(5000, ':') + "abc", "AB-C"},
    };
    char output[kMacTextSize];
    for (const auto &[convert, source, expected] : cases) {
        EXPECT_EQ(convert(output, source.c_str()), 0);
        EXPECT_STREQ(output, expected);
        EXPECT_EQ(convert(output, nullptr), -1);
        EXPECT_EQ(convert(nullptr, "a"), -1);
    }
    const uint8_t mac[6] = {0x00, 0x1a, 0xff, 0x80, 0x09, 0xc3};
    EXPECT_EQ(mac_uint8_to_char(output, 13, mac, 6), 0);
    EXPECT_STREQ(output, "001aff8009c3");
    for (const auto &[room, length] : {std::pair<size_t, size_t>{12, 6}, {0, 0}, {13, SIZE_MAX}})
        EXPECT_EQ(mac_uint8_to_char(output, room, mac, length), -1);
}

TEST_F(TelemetryUtils, ShellValueIsCutAndPadded) {
    const std::tuple<const char *, size_t, std::string> cases[] = {
        {"printf 'abc\\r\\n'", 8, "abc\r"},
        {"printf abcdef", 4, "abcd"},
        {"printf '\\n'", 2, ""},
        {"printf 'a\\0bc'", 4, "a"},
        {"printf '%5000s' x", 4096, std::string(2048, ' ')}};
    for (const auto &[command, size, expected] : cases) {
        std::string output(size, '#');
        EXPECT_EQ(shell_get_value(command, output.data(), static_cast<int>(size)), 0) << command;
        EXPECT_EQ(output, padded(expected, size)) << command;
    }
    char output[4] = "old";
    for (const auto &[command, size] : {std::pair<const char *, int>{nullptr, 4}, {"", 4}, {"true", 0}})
        EXPECT_EQ(shell_get_value(command, output, size), -1);
    for (const int error : {EAGAIN, ENOMEM}) {
        spawn_fails = error;
        expect_logged(-1, {"error: popen exe [board x] failed"},
                      [&] { return shell_get_value("board x", output, 4); });
    }
    spawn_fails = 0;
    EXPECT_STREQ(output, "old");
}

TEST_F(TelemetryUtils, FilesAreReadIntoAZeroedBuffer) {
    root.write("/tmp/text", "0123456789");
    ASSERT_EQ(mkfifo(root.path("/tmp/pipe").c_str(), 0600), 0);
    const std::tuple<const char *, size_t, int, std::string> cases[] = {
        {"/tmp/text", 16, 0, "0123456789"}, {"/tmp/text", 4, 0, "012"},
        {"/tmp/none", 4, -1, "####"},       {"/tmp/text", 0, -1, ""},
        {"/tmp/pipe", 16, 0, ""},           {"/tmp", 16, 0, ""}}; // nothing to wait for
    for (const auto &[path, size, result, expected] : cases) {
        std::string buffer(16, '#');
        EXPECT_EQ(telemetry_parse_file(path, buffer.data(), size), result);
        EXPECT_EQ(buffer.substr(0, size), padded(expected, size));
    }
}

TEST_F(TelemetryUtils, OnlyTheWorkModeFapIsTheMainNode) {
    expect_logged(0, {"error: open file /tmp/work_mode failed", "parse file /tmp/work_mode failed"},
                  check_if_device_is_FAP);
    const std::tuple<const char *, int, Messages> cases[] = {{"{\"work_mode\":\"FAP\"}\n", 1, {}},
                                                             {"{\"work_mode\":\"FAPs\"}", 0, {}},
                                                             {"{\"work_mode\":1}", 0, {}},
                                                             {"[\"FAP\"]", 0, {}},
                                                             {"{\"work_mode\":\"FA", 0, {"parse work_mode"}}};
    for (const auto &[content, is_fap, messages] : cases) {
        root.write("/tmp/work_mode", content);
        expect_logged(is_fap, messages, check_if_device_is_FAP);
    }
}

// The package is not read again until one of its files changes, which is seen at once.
TEST_F(TelemetryUtils, EnabledUntilItsFilesChange) {
    const auto set = [this](const char *value) {
        root.write_config("telemetry", std::string("config b 'basic'\n\toption enable '") + value + "'\n");
    };
    set("1");
    usleep(1100000);
    rlimit none = {}, limits = {};
    getrlimit(RLIMIT_NOFILE, &limits);
    none.rlim_max = limits.rlim_max;
    for (const int known : {0, 1}) {
        setrlimit(RLIMIT_NOFILE, &none); // nothing can be opened
        EXPECT_EQ(check_telemetry_enable(), known);
        setrlimit(RLIMIT_NOFILE, &limits);
        EXPECT_EQ(check_telemetry_enable(), 1);
    }
    root.write("/tmp/.uci/telemetry", "telemetry.basic.enable='0'\n");
    EXPECT_EQ(check_telemetry_enable(), 0) << "staged";
    root.remove("/tmp/.uci/telemetry");
    for (const char *value : {"1", "0", "1"}) { // of the same length, in the same moment
        set(value);
        EXPECT_EQ(check_telemetry_enable(), value[0] - '0');
    }
}

TEST_F(TelemetryUtils, OnlyAddressesAndNamesPass) {
    for (const char *host : {"192.168.0.1", "fe80::1", "::ffff:1.2.3.4", "router", "a-b.example.net"})
        EXPECT_EQ(telemetry_is_host(host), 1) << host;
    for (const char *host :
         {"", "-c1", "a b", "1.2.3.4;reboot", "$(reboot)", "a|b", "fe80::1%lan", "a\nb", "`a`", "a_b"})
        EXPECT_EQ(telemetry_is_host(host), 0) << host;
    EXPECT_EQ(telemetry_is_host(nullptr), 0);
    EXPECT_EQ(telemetry_is_host(std::string(253, 'a').c_str()), 1);
    EXPECT_EQ(telemetry_is_host(std::string(254, 'a').c_str()), 0);
}

TEST(TelemetryRepeat, WhatATopicsLastRunSaidTooIsSaidAtDebugLevel) {
    const OutputCapture capture; // nothing was said before
    const auto say = [](int package) {
        return std::string(telemetry_repeat_check("no package %d", package) == TELEMETRY_LOG_ERROR ? "e"
                                                                                                   : "d");
    };
    // The topic, what it says, and whether it brought something.
    std::string said;
    for (const char *call : {"a121", "b1", "a", "a11", "b.", "b1", "a.", "a2", "a.1", "a2", "b1"}) {
        const TelemetryRepeatTopic topic(std::string(call, 1).c_str());
        for (const char *step = call + 1; *step != '\0'; ++step)
            *step == '.' ? topic.ran() : static_cast<void>(said += say(*step - '0'));
        said += '|';
    }
    EXPECT_EQ(said, "eee|e||dd||e||e|e|e|d|");
    said = say(1);
    said += say(1);
    EXPECT_EQ(said, "ee"); // outside of them
    // What finds no place is new again and again; what found one has it for a run.
    for (const char *expected : {"eee", "dee"}) {
        const TelemetryRepeatTopic topic("many");
        std::string first = say(1000);
        for (int i = 1001; i < 2999; ++i)
            say(i);
        first += say(2999);
        EXPECT_EQ(first + say(2999), expected);
    }
    telemetry_repeat_forget();
    EXPECT_EQ(say(1), "e");
}

TEST_F(TelemetryUtils, PingDelayIsAFieldOfTheSummary) {
    const auto answer = [&](const std::string &command) {
        for (const char *tool : {"ping", "ping6"})
            root.add_command(tool, "echo ${0##*/} \"$@\" > " + root.path("/tmp/ran") + "\n" + command);
    };
    const std::string summary = "echo 'round-trip min/avg/max = 1.5/2.25/3 ms'";
    // No delay: refused, because it is no address or name, or does not fit the command; nothing runs.
    const std::tuple<std::string, bool, std::string, std::string> cases[] = {
        {summary, false, "192.168.0.2", "2.250000"},
        {summary, true, "fe80::2", "3.000000"},
        {"echo unreachable >&2; exit 1", false, "192.168.0.2", "0.000000"},
        {summary, false, "1.2.3.4;touch x", ""},
        {summary, true, "-f", ""},
    };
    char output[128];
    for (const auto &[command, six, host, delay] : cases) {
        root.remove("/tmp/ran");
        answer(command);
        output[0] = '\0';
        EXPECT_EQ((six ? telemetry_ping_delay_v6 : telemetry_ping_delay_v4)(output, host.c_str()),
                  delay.empty() ? -1 : 0);
        EXPECT_EQ(output, delay);
        EXPECT_EQ(root.read("/tmp/ran"),
                  delay.empty() ? "" : (six ? "ping6 -c 3 " : "ping -c 3 ") + host + "\n");
    }
    EXPECT_EQ(telemetry_ping_delay_v4(output, nullptr), -1);
    answer("echo '///1e300'");
    EXPECT_EQ(telemetry_ping_delay_v4(output, "192.168.0.2"), 0);
    EXPECT_EQ(strlen(output), 127u);
    spawn_fails = EAGAIN;
    EXPECT_EQ(telemetry_ping_delay_v4(output, "192.168.0.2"), 0);
    spawn_fails = 0;
    EXPECT_EQ(strlen(output), 127u); // as it was
}

TEST(TelemetryPathsDeathTest, OnlyAPlainSysrootIsTaken) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto start = [] {
        setenv("TELEMETRY_SYSROOT", "/tmp/a;b", 1);
        telemetry_sysroot();
    };
    EXPECT_EXIT(start(), testing::ExitedWithCode(1), "has characters outside");
}
