#include "telemetry_main.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "sysroot.h"

#include "telemetry_collect.h"
#include "telemetry_log.h"
#include "telemetry_post.h"
#include "telemetry_ubus.h"

using Messages = std::vector<std::string>;

int telemetry_main();

// --- The subsystems that start-up calls, as the test wants them ---

static std::vector<std::string> calls;
static bool pool_fails;
static bool bus_fails;
static std::string popen_fails_for;
static uloop_timeout far_timer; // armed until the loop is taken down
static int free_descriptor;     // the lowest one when the bus is connected

extern "C" FILE *popen(const char *command, const char *mode) {
    if (!popen_fails_for.empty() && popen_fails_for == command)
        return nullptr;
    const auto real = reinterpret_cast<FILE *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, "popen"));
    return real(command, mode);
}

int telemetry_init_post_request(TelemetryCtx *) {
    calls.push_back("pool");
    return pool_fails ? -1 : 0;
}

int telemetry_init_ubus(TelemetryCtx *) {
    calls.push_back("bus");
    free_descriptor = open("/dev/null", O_RDONLY);
    close(free_descriptor);
    return bus_fails ? -1 : 0;
}

void telemetry_free_ubus() {
    calls.push_back(far_timer.pending ? "free bus in the loop" : "free bus");
}

void telemetry_post_state_FSM(TelemetryCtx *) {
    calls.push_back("state machine");
    static uloop_timeout end_timer;
    end_timer.cb = [](uloop_timeout *) { uloop_end(); };
    uloop_timeout_set(&end_timer, 0);
    uloop_timeout_set(&far_timer, 1000000);
}

void telemetry_post_data(uloop_timeout *) {}

void telemetry_collect_data(uloop_timeout *) {}

// --- Fixture ---

class TelemetryMain : public SysrootTest {
  protected:
    void SetUp() override {
        calls.clear();
        pool_fails = false;
        bus_fails = false;
        popen_fails_for.clear();
        memset(&ctx, 0, sizeof(ctx));
        add_getfirm("echo aa:bb:cc:dd:ee:0f");
        root.write_config("telemetry", kConfig);
    }
    void TearDown() override {
        telemetry_debug_level = TELEMETRY_LOG_INFO;
        uloop_done();
    }
    // A tool that names its argument, and runs `mac` for the MAC.
    void add_getfirm(const std::string &mac) {
        root.add_command("getfirm", "[ $1 = MAC ] && { " + mac + "; exit; }\necho \"value of $1\"");
    }
    // Runs main with its output going to the console of the root: the messages there.
    Messages run_main() {
        fflush(stdout);
        fflush(stderr);
        const int out = dup(STDOUT_FILENO);
        const int err = dup(STDERR_FILENO);
        EXPECT_EQ(telemetry_main(), 0);
        fflush(stdout);
        fflush(stderr);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        close(out);
        close(err);
        return logged_messages([&] { printf("%s", root.read("/dev/console").c_str()); });
    }
    // Loads a configuration of one option: whether a line said so.
    bool load(const std::string &section, const std::string &option, const std::string &value) {
        root.write_config("telemetry",
                          "config a '" + section + "'\n\toption " + option + " '" + value + "'\n");
        const OutputCapture log;
        EXPECT_EQ(telemetry_load_uci_config(&ctx), 0);
        return log.has(option +
                       (section == "cloud" ? " has room for " : " is not a usable number of minutes"));
    }
    static constexpr char kConfig[] = "config cloud 'cloud'\n"
                                      "\toption cloud_url 'cloud.test:8443'\n"
                                      "\toption accessKey 'key'\n"
                                      "\toption accessSecret 'secret'\n"
                                      "config strategy 'strategy'\n"
                                      "\toption strategyID 'id'\n"
                                      "\toption collect_interval '5'\n"
                                      "\toption collect_interval_2 '60'\n"
                                      "\toption post_interval '120'\n";
    TelemetryCtx ctx;
};

// --- Steps ---

TEST_F(TelemetryMain, InitFillsTheRecord) {
    uloop_init();
    memset(&ctx, 0x5a, sizeof(ctx));
    EXPECT_EQ(telemetry_init_ctx(&ctx), 0);
    EXPECT_EQ(
        std::string(ctx.dev_id) + ctx.hw_id + ctx.hw_version + ctx.oem_id + ctx.firmware + ctx.model,
        "value of DEV_IDvalue of HW_IDvalue of HARDVERSIONvalue of OEM_IDvalue of SOFTVERSIONvalue of MODEL");
    EXPECT_STREQ(ctx.dev_mac, "AABBCCDDEE0F");
    EXPECT_STREQ(ctx.post_api, "https://cloud.test:8443");
    EXPECT_EQ(std::string(ctx.access_key) + ctx.access_secret + ctx.strategy_id, "keysecretid");
    EXPECT_EQ(ctx.collect_interval_strategy1, 300000u);
    EXPECT_EQ(ctx.collect_interval_strategy2, 3600000u);
    EXPECT_EQ(ctx.collect_interval_periodic, 14400000u);
    EXPECT_EQ(ctx.post_interval, 7200000u);
    EXPECT_EQ(ctx.collect_list, nullptr);
    EXPECT_TRUE(ctx.collect_timer.pending);
    EXPECT_FALSE(ctx.post_timer.pending);
    EXPECT_EQ(ctx.post_timer.cb, telemetry_post_data);
}

TEST_F(TelemetryMain, MissingOptionsHaveDefaults) {
    root.remove("/etc/config/telemetry");
    memset(ctx.access_secret, 'x', sizeof(ctx.access_secret) - 1);
    EXPECT_EQ(logged_messages([this] { EXPECT_EQ(telemetry_load_uci_config(&ctx), 0); }).size(), 7u);
    EXPECT_STREQ(ctx.post_api, "https://telemetry.example.net");
    EXPECT_STREQ(ctx.access_secret, "");
    EXPECT_EQ(ctx.collect_interval_strategy1, 900000u);
    EXPECT_EQ(ctx.collect_interval_strategy2, 86400000u);
    EXPECT_EQ(ctx.post_interval, 14400000u);
}

TEST_F(TelemetryMain, TextsOfTheCloudAreCutToTheirRoom) {
    const struct {
        std::string url;
        std::string expected;
    } cases[] = {
        {"http://host", "http://host"},
        {"httpd.test", "httpd.test"},
        {"HTTP://host", "https://HTTP://host"},
        {std::string(2040, 'a'), "https://" + std::string(2040, 'a')},
        {std::string(2041, 'a'), "https://" + std::string(2040, 'a')},
        {"http" + std::string(4000, 'a'), "http" + std::string(2043, 'a')},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(load("cloud", "cloud_url", c.url), c.url.size() > 2040);
        EXPECT_EQ(ctx.post_api, c.expected);
    }
    load("cloud", "accessKey", std::string(500, 'k'));
    EXPECT_EQ(ctx.access_key, std::string(127, 'k'));
}

TEST_F(TelemetryMain, IntervalsAreMinutesIn32Bits) {
    const struct {
        const char *minutes;
        uint32_t ms;
        bool usable;
    } cases[] = {{"5min", 300000, true},       {"35791", 2147460000, true},      {"0", 0, false},
                 {"often", 0, false},          {"-1", 0xffff15a0, false},        {"71583", 12704, false},
                 {"35792", 2147520000, false}, {"2147483647", 0xffff15a0, false}};
    for (const auto &c : cases) {
        EXPECT_EQ(load("strategy", "collect_interval", c.minutes), !c.usable) << c.minutes;
        EXPECT_EQ(ctx.collect_interval_strategy1, c.ms) << c.minutes;
    }
}

TEST_F(TelemetryMain, WhateverTheFirmwareToolPrintsFits) {
    const struct {
        const char *mac; // shell command
        std::string dev_mac;
        const char *message;
    } cases[] = {
        {"printf '%5000s' x", std::string(64, ' '), "getfirm MAC prints more than 64 characters"},
        {"printf '%64s' x", std::string(63, ' ') + "X", nullptr},
        {"head -c 5000 /dev/zero", "", "getfirm MAC prints nothing"},
        {"printf 'a\\001b\\000c'", "A\001B", "getfirm MAC prints bytes that are no plain text"},
        {"printf '\\377\\200'", "\xff\x80", "getfirm MAC prints bytes that are no plain text"},
    };
    for (const auto &c : cases) {
        add_getfirm(c.mac);
        const Messages messages = logged_messages([this] { EXPECT_EQ(telemetry_get_device_info(&ctx), 0); });
        EXPECT_EQ(messages, c.message == nullptr ? Messages{} : Messages{c.message});
        EXPECT_EQ(ctx.dev_mac, c.dev_mac);
        EXPECT_STREQ(ctx.model, "value of MODEL");
    }
}

// Other services use both as well.
TEST_F(TelemetryMain, BackupAndHeartbeatFile) {
    const char heartbeats[] = "/tmp/cloud_heartbeat_timeout_count";
    const mode_t mask = umask(0);
    EXPECT_EQ(telemetry_init_tmp_backup_config(), 0);
    telemetry_create_heartbeat_timeout_file();
    umask(mask);
    for (const char *path : {"/tmp/telemetry", heartbeats})
        EXPECT_EQ(std::filesystem::status(root.path(path)).permissions(), std::filesystem::perms(0777));
    EXPECT_EQ(root.read(heartbeats), "0");
    EXPECT_TRUE(root.exists("/tmp/telemetry/telemetry"));

    root.write_backup("config device 'a_b'\n");
    root.write(heartbeats, "1234\n");
    EXPECT_EQ(telemetry_init_tmp_backup_config(), 0);
    telemetry_create_heartbeat_timeout_file();
    EXPECT_EQ(root.read("/tmp/telemetry/telemetry"), "config device 'a_b'\n"); // survives a restart
    EXPECT_EQ(root.read(heartbeats), "0\n");

    const Messages failed = {"init /tmp/cloud_heartbeat_timeout_count failed"};
    root.remove(heartbeats);
    std::filesystem::create_symlink("/dev/full", root.path(heartbeats));
    EXPECT_EQ(logged_messages(telemetry_create_heartbeat_timeout_file), failed);
    root.remove("/tmp");
    EXPECT_EQ(logged_messages(telemetry_create_heartbeat_timeout_file), failed);
    root.write("/tmp/telemetry", "a file in the place of the directory");
    EXPECT_EQ(logged_result(telemetry_init_tmp_backup_config),
              LoggedResult(-1, {"create /tmp/telemetry/telemetry failed"}));
}

TEST_F(TelemetryMain, OutputStaysWhereItWasWhenThereIsNoConsole) {
    const OutputCapture out;
    const OutputCapture err(stderr);
    root.remove("/dev");
    EXPECT_EQ(telemetry_redirect_output("/dev/console"), -1);
    printf("still here");
    EXPECT_EQ(err.text(), "Failed to redirect stdout/stderr to /dev/console: No such file or directory");
    EXPECT_EQ(out.text(), "still here");
}

// --- The whole ---

TEST_F(TelemetryMain, AFailingStepIsNamedAndTheLast) {
    const auto init = [this] { return logged_result([this] { return telemetry_init_ctx(&ctx); }); };
    pool_fails = true;
    EXPECT_EQ(init(), LoggedResult(-2, {"telemetry_init_post_request error"}));
    EXPECT_STREQ(ctx.post_api, "");

    pool_fails = false;
    popen_fails_for = "getfirm OEM_ID";
    EXPECT_EQ(init(), LoggedResult(-2, {"error: popen exe [getfirm OEM_ID] failed",
                                        "shell_get_value oem_id error", "telemetry_get_device_info error"}));
    EXPECT_STREQ(ctx.oem_id, "");
    EXPECT_STREQ(ctx.dev_mac, "AABBCCDDEE0F"); // one tool's call does not stop the others
    EXPECT_FALSE(ctx.collect_timer.pending);

    calls.clear();
    root.remove("/tmp");
    EXPECT_EQ(init(),
              LoggedResult(-2, {"mkdir /tmp/telemetry failed", "telemetry_init_tmp_backup_config error"}));
    EXPECT_TRUE(calls.empty());
}

TEST_F(TelemetryMain, MainStartsRunsAndEnds) {
    EXPECT_EQ(run_main(), Messages{});
    EXPECT_EQ(calls, (Messages{"pool", "bus", "state machine", "free bus"}));
    EXPECT_TRUE(root.exists("/tmp/telemetry/restart"));
    EXPECT_FALSE(root.exists("/tmp/cloud_heartbeat_timeout_count"));
}

TEST_F(TelemetryMain, TheLogReachesNoSocketWhenTheOutputIsClosed) {
    root.remove("/dev");
    bus_fails = true;
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
            close(fd);
        telemetry_main();
        _exit(free_descriptor > STDERR_FILENO ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(TelemetryMain, MainEndsWithoutLoopWhenStartUpFails) {
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    bus_fails = true;
    const Messages log = run_main();
    ASSERT_GE(log.size(), 3u);
    EXPECT_EQ(log.front(), "telemetry start");
    EXPECT_EQ(log[log.size() - 2], "telemetry_init_ctx error, stop");
    EXPECT_EQ(log.back(), "telemetry end");
    EXPECT_EQ(calls, (Messages{"pool", "bus"}));
    EXPECT_EQ(root.read("/tmp/cloud_heartbeat_timeout_count"), "0");

    telemetry_debug_level = TELEMETRY_LOG_INFO;
    pool_fails = true;
    uloop_done(); // the collect timer of the first run is in the record that the second one zeroes
    root.write("/dev/console", "booted\n");
    EXPECT_EQ(run_main(),
              (Messages{"booted", "telemetry_init_post_request error", "telemetry_init_ctx error, stop"}));
}
