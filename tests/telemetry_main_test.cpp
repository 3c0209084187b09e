#include "telemetry_main.h"

#include <csignal>
#include <dlfcn.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <openssl/crypto.h>
#include <openssl/kdf.h>

#include "sysroot.h"

#include "telemetry_ca.h"
#include "telemetry_collect.h"
#include "telemetry_handles.h"
#include "telemetry_key_owner.h"
#include "telemetry_log.h"
#include "telemetry_post.h"
#include "telemetry_reload.h"
#include "telemetry_ubus.h"

using Messages = std::vector<std::string>;

int telemetry_main();

// --- The subsystems that start-up calls, as the test wants them ---

static std::vector<std::string> calls;
static bool pool_fails, bus_fails, methods_fail;
static bool terminated; // while the bus is connected
static std::string spawn_fails_for;
static uloop_timeout far_timer; // armed until the loop is taken down
static int free_descriptor;     // the lowest one when the bus is connected

extern "C" int posix_spawnp(pid_t *pid, const char *file, const posix_spawn_file_actions_t *actions,
                            const posix_spawnattr_t *attributes, char *const argv[], char *const envp[]) {
    if (argv[1] != nullptr && spawn_fails_for == argv[1])
        return EAGAIN;
    const auto real = reinterpret_cast<decltype(&posix_spawnp)>(dlsym(RTLD_NEXT, "posix_spawnp"));
    return real(pid, file, actions, attributes, argv, envp);
}

// The address sanitizer refuses like the C library.
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1";
}

extern "C" EVP_KDF *EVP_KDF_fetch(OSSL_LIB_CTX *, const char *, const char *) {
    calls.push_back("methods");
    OPENSSL_free(OPENSSL_malloc(methods_fail ? PTRDIFF_MAX : 16));
    return nullptr;
}

int telemetry_init_post_request(TelemetryCtx *) {
    calls.push_back("pool");
    return pool_fails ? -1 : 0;
}

bool telemetry_post_uses_libcrypto() {
    return true;
}

int telemetry_init_ubus(TelemetryCtx *) {
    calls.push_back("bus");
    free_descriptor = open("/dev/null", O_RDONLY);
    close(free_descriptor);
    if (terminated)
        raise(SIGTERM);
    return bus_fails ? -1 : 0;
}

void telemetry_free_ubus() {
    calls.push_back(far_timer.pending ? "free bus in the loop" : "free bus");
}

void telemetry_post_state_FSM(TelemetryCtx *) {
    calls.push_back("state machine");
    static uloop_timeout end_timer;
    end_timer.cb = [](uloop_timeout *) {
        if (terminated)
            calls.push_back("the loop went on");
        uloop_end();
    };
    uloop_timeout_set(&end_timer, terminated ? 3000 : 0);
    uloop_timeout_set(&far_timer, 1000000);
}

void telemetry_post_data(uloop_timeout *) {}

void telemetry_collect_data(uloop_timeout *) {}

// --- Fixture ---

class TelemetryMain : public SysrootTest {
  protected:
    void SetUp() override {
        calls.clear();
        pool_fails = bus_fails = methods_fail = terminated = false;
        spawn_fails_for.clear();
        memset(&ctx, 0, sizeof(ctx));
        add_getfirm("echo aa:bb:cc:dd:ee:0f");
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
        {
            const OutputCapture out, err(stderr);
            EXPECT_EQ(telemetry_main(), 0);
        }
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
    TelemetryCtx ctx;
};

// --- Steps ---

TEST_F(TelemetryMain, InitFillsTheRecordFromToolAndDefaults) {
    uloop_init();
    memset(&ctx, 0x5a, sizeof(ctx));
    const auto [result, log] = logged_result([this] { return telemetry_init_ctx(&ctx); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(log.size(), 7u); // a line for each option
    EXPECT_EQ(
        std::string(ctx.dev_id) + ctx.hw_id + ctx.hw_version + ctx.oem_id + ctx.firmware + ctx.model,
        "value of DEV_IDvalue of HW_IDvalue of HARDVERSIONvalue of OEM_IDvalue of SOFTVERSIONvalue of MODEL");
    EXPECT_STREQ(ctx.dev_mac, "AABBCCDDEE0F");
    EXPECT_STREQ(ctx.post_api, "https://telemetry.example.net");
    EXPECT_EQ(std::string(ctx.access_key) + ctx.access_secret + ctx.strategy_id, "");
    EXPECT_EQ(ctx.collect_interval_strategy1, 900000u);
    EXPECT_EQ(ctx.collect_interval_strategy2, 86400000u);
    EXPECT_EQ(ctx.collect_interval_periodic, 14400000u);
    EXPECT_EQ(ctx.post_interval, 14400000u);
    EXPECT_EQ(ctx.collect_list, nullptr);
    EXPECT_TRUE(ctx.collect_timer.pending);
    EXPECT_FALSE(ctx.post_timer.pending);
    EXPECT_EQ(ctx.post_timer.cb, telemetry_post_data);
}

TEST_F(TelemetryMain, OptionsHaveRoomAndLimits) {
    const std::pair<std::string, std::string> urls[] = {
        {"http://host", "http://host"},
        {"HTTP://host", "https://HTTP://host"},
        {std::string(2040, 'a'), "https://" + std::string(2040, 'a')},
        {std::string(2041, 'a'), "https://" + std::string(2040, 'a')},
        {"http" + std::string(2043, 'a'), "http" + std::string(2043, 'a')},
        {"http" + std::string(2044, 'a'), "http" + std::string(2043, 'a')},
    };
    for (const auto &[url, post_api] : urls) {
        EXPECT_EQ(load("cloud", "cloud_url", url), post_api.find(url) == std::string::npos);
        EXPECT_EQ(ctx.post_api, post_api);
    }
    const std::tuple<const char *, const char *, char(&)[129]> texts[] = {
        {"cloud", "accessKey", ctx.access_key},
        {"cloud", "accessSecret", ctx.access_secret},
        {"strategy", "strategyID", ctx.strategy_id},
    };
    for (const auto &[section, option, field] : texts) {
        load(section, option, std::string(500, 'k'));
        EXPECT_EQ(field, std::string(127, 'k'));
    }

    const std::tuple<const char *, uint32_t, bool> intervals[] = {
        {"5min", 300000, true},       {"35791", 2147460000, true},      {"0", 0, false},
        {"often", 0, false},          {"-1", 0xffff15a0, false},        {"71583", 12704, false},
        {"35792", 2147520000, false}, {"2147483647", 0xffff15a0, false}};
    for (const auto &[minutes, ms, usable] : intervals) {
        EXPECT_EQ(load("strategy", "collect_interval", minutes), !usable) << minutes;
        EXPECT_EQ(ctx.collect_interval_strategy1, ms) << minutes;
    }
    load("strategy", "collect_interval_2", "60");
    EXPECT_EQ(ctx.collect_interval_strategy2, 3600000u);
    load("strategy", "post_interval", "120");
    EXPECT_EQ(ctx.post_interval, 7200000u);
}

TEST_F(TelemetryMain, WhateverTheFirmwareToolPrintsFits) {
    const Messages odd = {"getfirm MAC prints bytes that are no plain text"};
    const std::tuple<const char *, std::string, Messages> cases[] = {
        {"printf '%5000s' x", std::string(64, ' '), {"getfirm MAC prints more than 64 characters"}},
        {"printf '%64s' x", std::string(63, ' ') + "X", {}},
        {"head -c 5000 /dev/zero", "", {"getfirm MAC prints nothing"}},
        {"printf 'a\\001b\\000c'", "A\001B", odd},
        {"printf '\\377\\200'", "\xff\x80", odd},
    };
    for (const auto &[mac, dev_mac, log] : cases) {
        add_getfirm(mac);
        expect_logged(0, log, [this] { return telemetry_get_device_info(&ctx); });
        EXPECT_EQ(ctx.dev_mac, dev_mac);
        EXPECT_STREQ(ctx.model, "value of MODEL");
    }
}

// Other services use both as well.
TEST_F(TelemetryMain, BackupAndHeartbeatFile) {
    const char heartbeats[] = "/tmp/cloud_heartbeat_timeout_count";
    const auto create = [] {
        telemetry_create_heartbeat_timeout_file();
        return telemetry_init_tmp_backup_config();
    };
    const mode_t mask = umask(0);
    expect_logged(0, {}, create);
    umask(mask);
    for (const char *path : {"/tmp/telemetry", heartbeats})
        EXPECT_EQ(std::filesystem::status(root.path(path)).permissions(), std::filesystem::perms(0777));
    EXPECT_EQ(root.read(heartbeats), "0");
    EXPECT_TRUE(root.exists("/tmp/telemetry/telemetry"));

    root.write_backup("config device 'a_b'\n");
    root.write(heartbeats, "1234\n");
    expect_logged(0, {}, create);
    EXPECT_EQ(root.read("/tmp/telemetry/telemetry"), "config device 'a_b'\n"); // survives a restart
    EXPECT_EQ(root.read(heartbeats), "0\n");

    const std::string failed = "init /tmp/cloud_heartbeat_timeout_count failed";
    root.remove(heartbeats);
    std::filesystem::create_symlink("/dev/full", root.path(heartbeats));
    expect_logged(0, {failed}, create);
    root.remove(heartbeats);
    mkfifo(root.path(heartbeats).c_str(), 0600); // that nobody reads
    expect_logged(0, {failed}, create);
    root.remove("/tmp");
    expect_logged(-1, {failed, "mkdir /tmp/telemetry failed"}, create);
    root.write("/tmp/telemetry", "a file in the place of the directory");
    expect_logged(-1, {"create /tmp/telemetry/telemetry failed"}, create);
}

TEST_F(TelemetryMain, OutputStaysWhereItWasWhenThereIsNoConsole) {
    const OutputCapture out, err(stderr);
    root.remove("/dev");
    EXPECT_EQ(telemetry_redirect_output("/dev/console"), -1);
    printf("still here");
    EXPECT_EQ(err.text(), "Failed to redirect stdout/stderr to /dev/console: No such file or directory");
    EXPECT_EQ(out.text(), "still here");
}

// What is said of the certificates and the address, and which file transfers use.
TEST_F(TelemetryMain, CertificatesAndTheWayThere) {
    const std::string option = "config cloud 'cloud'\n\toption cloud_url 'https://x'\n\toption ca_file ";
    const std::string own = "/etc/certificate/2048_newroot.cer",
                      bundle = "/etc/ssl/certs/ca-certificates.crt";
    const std::string unreadable = "the certificates to check the cloud's with cannot be read: ";
    const struct {
        std::string value, file, used;
        Messages log;
    } cases[] = {
        {"''",
         "",
         own,
         {"no certificates to check the cloud's with: neither " + own + " nor " + bundle + " is there"}},
        {"''", bundle, bundle, {}},
        {"''", own, own, {}},
        {"'/ca'", "/ca", "/ca", {}},
        {"'ca'", own, own, {"telemetry.cloud.ca_file is no absolute path: ca"}},
        {"'/none'", own, "/none", {unreadable + "/none: No such file or directory"}},
        {"'/etc'", own, "/etc", {unreadable + "/etc: no regular file"}},
        {"'/empty'", own, "/empty", {unreadable + "/empty: empty"}},
        {"'/loop'", own, "/loop", {unreadable + "/loop: Too many levels of symbolic links"}},
    };
    root.write("/empty", "");
    std::filesystem::create_symlink("loop", root.path("/loop"));
    for (const auto &row : cases) {
        root.write_config("telemetry", option + row.value + "\n");
        if (!row.file.empty())
            root.write(row.file, "certificate");
        EXPECT_EQ(logged_messages(telemetry_load_ca_file), row.log) << row.value;
        EXPECT_EQ(telemetry_ca_file(), root.path(row.used)) << row.value;
    }
    root.write_config("telemetry", "");
    telemetry_load_ca_file();

    const std::pair<const char *, bool> urls[] = {
        {"https://h", false}, {"h", false}, {"http://h", true}, {"httpd.h", true}};
    for (const auto &[url, in_the_clear] : urls) {
        root.write_config("telemetry",
                          std::string("config cloud 'cloud'\n\toption cloud_url '") + url + "'\n");
        EXPECT_EQ(logged_messages([&] { telemetry_load_cloud_url(&ctx); }).size(), in_the_clear ? 1u : 0u)
            << url;
    }
}

TEST_F(TelemetryMain, AKeyThatABackupBroughtIsDropped) {
    const struct {
        const char *owner, *device, *key, *owner_after;
        bool dropped;
    } cases[] = {{"", "D1", "key", "D1", false},    {"D1", "D1", "key", "D1", false},
                 {"D10", "D1", "key", "D10", true}, {"", "D1", "", "", false},
                 {"", "", "key", "", false},        {"D2", "", "key", "D2", true},
                 {"-", "D1", "key", "-", true}};
    for (const auto &row : cases) {
        root.write_config("telemetry",
                          std::string("config cloud 'cloud'\n\toption accessDevice '") + row.owner + "'\n");
        copy_text(ctx.dev_id, row.device);
        copy_text(ctx.access_key, row.key);
        copy_text(ctx.access_secret, row.key);
        EXPECT_EQ(logged_messages([&] { telemetry_check_key_owner(&ctx); }).size(), row.dropped ? 1u : 0u);
        EXPECT_EQ(std::string(ctx.access_key) + ctx.access_secret,
                  row.dropped ? "" : std::string(row.key) + row.key)
            << row.owner;
        const auto expect_owner = [&](const std::string &text) {
            EXPECT_NE(root.read("/etc/config/telemetry").find("accessDevice '" + text + "'"),
                      std::string::npos);
        };
        expect_owner(row.owner); // a start writes nothing
        telemetry_note_key_owner(&ctx);
        expect_owner(row.owner_after);
    }
    // An owner that cannot be read stays as it is written, and the key serves on.
    root.write_config("telemetry", "config cloud 'cloud\n");
    copy_text(ctx.access_key, "key");
    EXPECT_EQ(logged_messages([&] { telemetry_check_key_owner(&ctx); }),
              std::vector<std::string>{"telemetry.cloud.accessDevice cannot be read"});
    EXPECT_STREQ(ctx.access_key, "key");
}

TEST_F(TelemetryMain, AHundredSignalsAreOneReloadInTheLoop) {
    uloop_init();
    telemetry_catch_reload_signal();
    telemetry_watch_reload(&ctx, telemetry_reload);
    root.write_config("telemetry", "config basic 'basic'\n\toption log_level 'loud'\n"
                                   "config cloud 'cloud'\n\toption cloud_url 'new.host'\n");
    root.write("/etc/certificate/2048_newroot.cer", "certificate");
    ctx.collect_list = cJSON_CreateArray();
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    const OutputCapture log;
    for (int i = 0; i < 100; i++)
        raise(SIGHUP);
    EXPECT_EQ(log.text(), "");
    uloop_run_timeout(20);
    EXPECT_EQ(log.messages(), (Messages{"telemetry.basic.log_level is none of debug, info, error: loud",
                                        "configuration read again, uploads go to https://new.host"}));
    EXPECT_NE(ctx.collect_list, nullptr);
    cJSON_Delete(ctx.collect_list);
    // While somebody writes the package, its defaults do not count.
    root.write_config("telemetry", "config cloud 'cloud'\n\toption cloud_url 'ne");
    raise(SIGHUP);
    uloop_run_timeout(20);
    EXPECT_STREQ(ctx.post_api, "https://new.host");
    telemetry_unwatch_reload();
}

// --- The whole ---

TEST_F(TelemetryMain, AFailingStepIsNamedAndTheLast) {
    const auto init = [this] { return telemetry_init_ctx(&ctx); };
    root.write_config("telemetry", "");
    pool_fails = true;
    expect_logged(-2, {"telemetry_init_post_request error"}, init);
    EXPECT_STREQ(ctx.post_api, "");

    pool_fails = false;
    spawn_fails_for = "OEM_ID";
    const auto [result, log] = logged_result(init);
    EXPECT_EQ(result, -2);
    EXPECT_EQ(Messages(log.end() - 3, log.end()),
              (Messages{"error: popen exe [getfirm OEM_ID] failed", "shell_get_value oem_id error",
                        "telemetry_get_device_info error"}));
    EXPECT_STREQ(ctx.oem_id, "");
    EXPECT_STREQ(ctx.dev_mac, "AABBCCDDEE0F"); // one tool's call does not stop the others
    EXPECT_FALSE(ctx.collect_timer.pending);

    calls.clear();
    root.remove("/tmp");
    expect_logged(-2, {"mkdir /tmp/telemetry failed", "telemetry_init_tmp_backup_config error"}, init);
    EXPECT_TRUE(calls.empty());
}

TEST_F(TelemetryMain, MainStartsRunsAndEnds) {
    run_main();
    EXPECT_EQ(calls, (Messages{"pool", "bus", "state machine", "free bus"}));
    EXPECT_TRUE(root.exists("/tmp/telemetry/restart"));
    EXPECT_FALSE(root.exists("/tmp/cloud_heartbeat_timeout_count"));

    calls.clear();
    root.write("/tmp/work_mode", R"({"work_mode":"FAP"})");
    terminated = true; // while the bus is waited for
    run_main();
    EXPECT_EQ(calls, (Messages{"pool", "methods", "bus", "free bus"}));
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
    root.write("/dev/console", "booted\n");
    const Messages log = run_main();
    ASSERT_GE(log.size(), 4u);
    EXPECT_EQ(log[0], "booted");
    EXPECT_EQ(log[1], "telemetry start");
    EXPECT_EQ(log[log.size() - 2], "telemetry_init_ctx error, stop");
    EXPECT_EQ(log.back(), "telemetry end");
    EXPECT_EQ(calls, (Messages{"pool", "bus"}));
    EXPECT_EQ(root.read("/tmp/cloud_heartbeat_timeout_count"), "0");
}

// The last one: a refused request stays counted.
TEST_F(TelemetryMain, MainEndsWhenLibcryptoFindsNoMemory) {
    root.write("/tmp/work_mode", R"({"work_mode":"FAP"})");
    methods_fail = true;
    const Messages log = run_main();
    EXPECT_EQ(log[log.size() - 2], "no memory for the start");
    EXPECT_EQ(calls, (Messages{"pool", "methods"}));
}
