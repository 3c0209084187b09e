#include "telemetry_main.h"

#include <regex>

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

// --- The subsystems that start-up calls, as the test wants them --------------------------------------------

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

// --- Fixture -----------------------------------------------------------------------------------------------

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
        OutputCapture capture;
        printf("%s", root.read("/dev/console").c_str());
        return capture.messages();
    }
    void load_strategy(const std::string &options) {
        root.write_config("telemetry", "config strategy 'strategy'\n" + options);
        EXPECT_EQ(telemetry_load_uci_config(&ctx), 0);
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

// --- Steps -------------------------------------------------------------------------------------------------

TEST_F(TelemetryMain, InitFillsTheRecord) {
    uloop_init();
    memset(&ctx, 0x5a, sizeof(ctx));
    EXPECT_EQ(telemetry_init_ctx(&ctx), 0);
    EXPECT_STREQ(ctx.dev_id, "value of DEV_ID");
    EXPECT_STREQ(ctx.hw_id, "value of HW_ID");
    EXPECT_STREQ(ctx.hw_version, "value of HARDVERSION");
    EXPECT_STREQ(ctx.oem_id, "value of OEM_ID");
    EXPECT_STREQ(ctx.firmware, "value of SOFTVERSION");
    EXPECT_STREQ(ctx.model, "value of MODEL");
    EXPECT_STREQ(ctx.dev_mac, "AABBCCDDEE0F");
    EXPECT_STREQ(ctx.post_api, "https://cloud.test:8443");
    EXPECT_STREQ(ctx.access_key, "key");
    EXPECT_STREQ(ctx.access_secret, "secret");
    EXPECT_STREQ(ctx.strategy_id, "id");
    EXPECT_EQ(ctx.collect_interval_strategy1, 300000u);
    EXPECT_EQ(ctx.collect_interval_strategy2, 3600000u);
    EXPECT_EQ(ctx.collect_interval_periodic, 14400000u);
    EXPECT_EQ(ctx.post_interval, 7200000u);
    EXPECT_EQ(ctx.collect_list, nullptr);
    EXPECT_EQ(ctx.collect_count, 0u);
    EXPECT_TRUE(ctx.collect_timer.pending);
    EXPECT_LE(uloop_timeout_remaining64(&ctx.collect_timer), 300000);
    EXPECT_FALSE(ctx.post_timer.pending);
    EXPECT_EQ(ctx.collect_timer.cb, telemetry_collect_data);
    EXPECT_EQ(ctx.post_timer.cb, telemetry_post_data);
    EXPECT_TRUE(root.exists("/tmp/telemetry/telemetry"));
}

TEST_F(TelemetryMain, MissingOptionsHaveDefaults) {
    root.remove("/etc/config/telemetry");
    EXPECT_EQ(logged_messages([this] { EXPECT_EQ(telemetry_load_uci_config(&ctx), 0); }),
              (Messages{"uci_get_value buffer error", "uci_get_value access_key error",
                        "uci_get_value access_secret error", "uci_get_value startegyId error",
                        "uci_get_value collect_interval error", "uci_get_value collect_interval error",
                        "uci_get_value post_interval error"}));
    EXPECT_STREQ(ctx.post_api, "https://telemetry.example.net");
    EXPECT_STREQ(ctx.access_key, "");
    EXPECT_EQ(ctx.collect_interval_strategy1, 900000u);
    EXPECT_EQ(ctx.collect_interval_strategy2, 86400000u);
    EXPECT_EQ(ctx.post_interval, 14400000u);
    EXPECT_EQ(logged_messages([] { EXPECT_EQ(telemetry_load_uci_config(nullptr), -1); }),
              Messages{"param error"});
}

TEST_F(TelemetryMain, LoadedValuesAreShownAtDebugLevel) {
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    EXPECT_EQ(logged_messages([this] { telemetry_load_uci_config(&ctx); }),
              (Messages{"post_api:https://cloud.test:8443", "access_key:key", "access_secret:secret",
                        "strategyId:id", "collect_interval_strategy1:300000",
                        "collect_interval_strategy2:3600000", "post_interval:7200000"}));
}

TEST_F(TelemetryMain, CloudUrls) {
    const struct {
        std::string option;
        std::string expected;
    } cases[] = {
        {"host", "https://host"},
        {"http://host", "http://host"},
        {"https://host/x", "https://host/x"},
        {"httpd.test", "httpd.test"},
        {"HTTP://host", "https://HTTP://host"},
        {std::string(2040, 'a'), "https://" + std::string(2040, 'a')},
        {std::string(2041, 'a'), "https://" + std::string(2040, 'a')},
        {std::string(4000, 'a'), "https://" + std::string(2040, 'a')},
        {"http" + std::string(4000, 'a'), "http" + std::string(2043, 'a')},
    };
    for (const auto &c : cases) {
        root.write_config("telemetry", "config cloud 'cloud'\n\toption cloud_url '" + c.option + "'\n");
        const OutputCapture log;
        telemetry_load_uci_config(&ctx);
        EXPECT_EQ(ctx.post_api, c.expected);
        EXPECT_EQ(log.has("the rest is cut off"), c.option.size() > 2040);
    }
}

TEST_F(TelemetryMain, AccessTextsAreCutTo127Characters) {
    const std::string text(500, 'k');
    root.write_config("telemetry", "config cloud 'cloud'\n\toption accessKey '" + text + "'\n");
    memset(ctx.access_secret, 'x', sizeof(ctx.access_secret) - 1);
    EXPECT_EQ(telemetry_load_uci_config(&ctx), 0);
    EXPECT_EQ(ctx.access_key, text.substr(0, 127));
    EXPECT_STREQ(ctx.access_secret, ""); // cleared
}

TEST_F(TelemetryMain, IntervalsAreMinutesIn32Bits) {
    const struct {
        const char *minutes;
        uint32_t ms;
        bool usable;
    } cases[] = {
        {"5", 300000, true},          {"5min", 300000, true},
        {"35791", 2147460000, true},  {"0", 0, false},
        {"often", 0, false},          {"-1", 0xffff15a0, false},
        {"35792", 2147520000, false}, {"2147483647", 0xffff15a0, false},
        {"71583", 12704, false},
    };
    for (const auto &c : cases) {
        const OutputCapture log;
        load_strategy(std::string("\toption collect_interval '") + c.minutes + "'\n");
        EXPECT_EQ(ctx.collect_interval_strategy1, c.ms) << c.minutes;
        EXPECT_EQ(log.has("collect_interval is not a usable number of minutes"), !c.usable) << c.minutes;
        EXPECT_EQ(ctx.collect_interval_periodic, 14400000u);
    }
}

TEST_F(TelemetryMain, WhateverTheFirmwareToolPrintsFits) {
    const struct {
        const char *mac; // shell command
        std::string dev_mac;
        const char *message;
    } cases[] = {
        {"printf '%5000s' x", std::string(64, ' '), "getfirm MAC prints more than 64 characters"},
        {"true", "", "getfirm MAC prints nothing"},
        {"printf 'a\\001b\\000c'", "A\001B", "getfirm MAC prints bytes that are no plain text"},
        {"printf '\\377\\200'", "\xff\x80", "getfirm MAC prints bytes that are no plain text"},
        {"head -c 5000 /dev/zero", "", "getfirm MAC prints nothing"},
        {"printf '%64s' x", std::string(63, ' ') + "X", nullptr},
        {"printf '%65s' x", std::string(64, ' '), "getfirm MAC prints more than 64 characters"},
    };
    for (const auto &c : cases) {
        add_getfirm(c.mac);
        const Messages messages = logged_messages([this] { EXPECT_EQ(telemetry_get_device_info(&ctx), 0); });
        EXPECT_EQ(messages, c.message == nullptr ? Messages{} : Messages{c.message});
        EXPECT_EQ(ctx.dev_mac, c.dev_mac);
        EXPECT_STREQ(ctx.model, "value of MODEL");
    }
}

TEST_F(TelemetryMain, AFailingCallOfTheFirmwareToolDoesNotStopTheOthers) {
    const std::pair<const char *, const char *> cases[] = {
        {"DEV_ID", "dev_id"},
        {"HW_ID", "hw_id"},
        {"HARDVERSION", "hw_version"},
        {"OEM_ID", "oem_id"},
        {"SOFTVERSION", "firm_version"},
        {"MODEL", "device_model"},
        {"MAC", "device_model"},
    };
    for (const auto &[argument, word] : cases) {
        memset(&ctx, 0, sizeof(ctx));
        popen_fails_for = std::string("getfirm ") + argument;
        EXPECT_EQ(logged_messages([this] { EXPECT_EQ(telemetry_get_device_info(&ctx), -1); }),
                  (Messages{"error: popen exe [" + popen_fails_for + "] failed",
                            std::string("shell_get_value ") + word + " error"}));
        const int filled = (*ctx.dev_id != 0) + (*ctx.hw_id != 0) + (*ctx.hw_version != 0) +
                           (*ctx.oem_id != 0) + (*ctx.firmware != 0) + (*ctx.model != 0) +
                           (*ctx.dev_mac != 0);
        EXPECT_EQ(filled, 6);
    }
}

TEST_F(TelemetryMain, OtherServicesMayUseTheFiles) {
    const mode_t mask = umask(0);
    EXPECT_EQ(telemetry_init_tmp_backup_config(), 0);
    telemetry_create_heartbeat_timeout_file();
    umask(mask);
    for (const char *path : {"/tmp/telemetry", "/tmp/cloud_heartbeat_timeout_count"})
        EXPECT_EQ(std::filesystem::status(root.path(path)).permissions(), std::filesystem::perms(0777))
            << path;
}

TEST_F(TelemetryMain, TheBackupFileSurvivesARestart) {
    EXPECT_EQ(telemetry_init_tmp_backup_config(), 0);
    EXPECT_EQ(root.read("/tmp/telemetry/telemetry"), "");
    root.write_backup("config device 'a_b'\n");
    EXPECT_EQ(telemetry_init_tmp_backup_config(), 0);
    EXPECT_EQ(root.read("/tmp/telemetry/telemetry"), "config device 'a_b'\n");

    root.remove("/tmp");
    EXPECT_EQ(logged_messages([] { EXPECT_EQ(telemetry_init_tmp_backup_config(), -1); }),
              Messages{"mkdir /tmp/telemetry failed"});
    root.write("/tmp/telemetry", "a file in the place of the directory");
    EXPECT_EQ(logged_messages([] { EXPECT_EQ(telemetry_init_tmp_backup_config(), -1); }),
              Messages{"create /tmp/telemetry/telemetry failed"});
}

TEST_F(TelemetryMain, TheHeartbeatFileStartsAtZero) {
    const char path[] = "/tmp/cloud_heartbeat_timeout_count";
    telemetry_create_heartbeat_timeout_file();
    EXPECT_EQ(root.read(path), "0");
    root.write(path, "1234\n");
    telemetry_create_heartbeat_timeout_file();
    EXPECT_EQ(root.read(path), "0\n");
    telemetry_remove_heartbeat_timeout_file();
    EXPECT_FALSE(root.exists(path));
    telemetry_remove_heartbeat_timeout_file();

    const Messages failed = {"init /tmp/cloud_heartbeat_timeout_count failed"};
    std::filesystem::create_symlink("/dev/full", root.path(path));
    EXPECT_EQ(logged_messages(telemetry_create_heartbeat_timeout_file), failed);
    root.remove("/tmp");
    EXPECT_EQ(logged_messages(telemetry_create_heartbeat_timeout_file), failed);
}

TEST_F(TelemetryMain, OutputStaysWhereItWasWhenThereIsNoConsole) {
    const OutputCapture out;
    const OutputCapture err(stderr);
    root.remove("/dev");
    EXPECT_EQ(telemetry_redirect_output("/dev/console"), -1);
    printf("still here");
    EXPECT_EQ(err.text(), "Failed to redirect stdout/stderr to /dev/console: No such file or directory");
    EXPECT_EQ(out.text(), "still here");
    EXPECT_EQ(logged_messages([] { EXPECT_EQ(telemetry_redirect_output(nullptr), -1); }),
              Messages{"param error"});
}

// --- The whole ---------------------------------------------------------------------------------------------

TEST_F(TelemetryMain, AFailingStepIsNamed) {
    EXPECT_EQ(logged_messages([] { EXPECT_EQ(telemetry_init_ctx(nullptr), -2); }), Messages{"param error"});

    pool_fails = true;
    EXPECT_EQ(logged_messages([this] { EXPECT_EQ(telemetry_init_ctx(&ctx), -2); }),
              Messages{"telemetry_init_post_request error"});
    EXPECT_STREQ(ctx.post_api, ""); // later steps did not run

    pool_fails = false;
    popen_fails_for = "getfirm OEM_ID";
    EXPECT_EQ(logged_messages([this] { EXPECT_EQ(telemetry_init_ctx(&ctx), -2); }).back(),
              "telemetry_get_device_info error");
    EXPECT_FALSE(ctx.collect_timer.pending);

    calls.clear();
    root.remove("/tmp");
    EXPECT_EQ(logged_messages([this] { EXPECT_EQ(telemetry_init_ctx(&ctx), -2); }),
              (Messages{"mkdir /tmp/telemetry failed", "telemetry_init_tmp_backup_config error"}));
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
    calls.clear();
    uloop_done(); // the collect timer of the first run is in the record that the second one zeroes
    root.write("/dev/console", "booted\n");
    EXPECT_EQ(run_main(),
              (Messages{"booted", "telemetry_init_post_request error", "telemetry_init_ctx error, stop"}));
    const std::regex lines(
        "booted\n"
        "\\[telemetry\\]\\[[0-9]+\\]\\[telemetry_main\\.cpp\\] telemetry_init_ctx\\([0-9]+\\): "
        "telemetry_init_post_request error\n"
        "\\[telemetry\\]\\[[0-9]+\\]\\[telemetry_main\\.cpp\\] [a-z_]+\\([0-9]+\\): "
        "telemetry_init_ctx error, stop\n");
    EXPECT_TRUE(std::regex_match(root.read("/dev/console"), lines)) << root.read("/dev/console");
    EXPECT_EQ(calls, Messages{"pool"});
}
