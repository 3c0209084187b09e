// What was reported is remembered, and only changes count.
#include "telemetry_uci.h"
#include "telemetry_uci_backup.h"

#include <csignal>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <gmock/gmock.h>

#include "collector_patterns.h"
#include "sysroot.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_utils.h"

namespace {

// Calls that alter files, counted down in the place of the C library's: the process dies before the last one.
int calls_to_live = -1;

void count_call() {
    if (calls_to_live >= 0 && calls_to_live-- == 0)
        raise(SIGKILL);
}

} // namespace

extern "C" ssize_t write(int fd, const void *data, size_t size) {
    count_call();
    return syscall(SYS_write, fd, data, size);
}
extern "C" int fsync(int fd) {
    count_call();
    return static_cast<int>(syscall(SYS_fsync, fd));
}
extern "C" int rename(const char *from, const char *to) noexcept {
    count_call();
    return static_cast<int>(syscall(SYS_rename, from, to));
}
extern "C" int ftruncate(int fd, off_t size) noexcept {
    count_call();
    return static_cast<int>(syscall(SYS_ftruncate, fd, size));
}

namespace {

constexpr TelemetryIndexEntry kTable[] = {
    {0, "np", 3, TELEMETRY_UCI_SYSTEM, 0, "network", "wan", "wan_type", TELEMETRY_VALUE_STRING},
    {1, "ase", 3, TELEMETRY_UCI_SYSTEM, 0, "auto_upgrade", "setting", "enable", TELEMETRY_VALUE_INT},
    {2, "other", 3, TELEMETRY_UCI_PROFILE, 0, "network", "wan", "extra", TELEMETRY_VALUE_STRING},
};
constexpr int kRows = 3;
constexpr int kNotAllowed = 77;                        // exit status
constexpr char kBoth[] = R"({"np":"dhcp","ase":1} 2)"; // the report of everything

class TelemetryUciBackupTest : public SysrootTest {
  protected:
    TelemetryUciBackupTest() {
        root.write_config("network", "config interface wan\n\toption wan_type dhcp\n");
        root.write_config("auto_upgrade", "config a setting\n\toption enable on\n");
        root.write_backup("");
    }

    std::string backup() const {
        return root.read("/tmp/telemetry/telemetry");
    }

    // Runs `action` where the root's /tmp and /var/run are the machine's own, for that process only.
    template <typename Action> void in_router_places(Action action) const {
        const std::string again = root.path(root.root());
        std::filesystem::create_directories(again);
        fflush(stdout);
        const pid_t child = fork();
        if (child == 0) {
            const auto bind = [](const std::string &from, const std::string &to) {
                return mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
            };
            if ((unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) ||
                mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                !bind(root.root(), again) || !bind(root.path("/var/run"), "/var/run") ||
                !bind(root.path("/tmp"), "/tmp"))
                _exit(kNotAllowed);
            action();
            fflush(stdout);
            _exit(HasFailure() ? 1 : 0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == kNotAllowed)
            GTEST_SKIP() << "no mount namespace of our own is allowed here";
        EXPECT_EQ(status, 0);
    }

    // What the table's collector would report: the payload and the count, empty when nothing changed.
    static std::string report() {
        if (telemetry_update_tmp_backup_config_by_telemetry_index(kTable, kRows) != 1)
            return "";
        return recorded();
    }
    static std::string recorded() {
        uint32_t count = 0;
        const JsonPtr payload(cJSON_CreateObject());
        EXPECT_EQ(telemetry_get_tmp_backup_config_cJSON_object_by_telemetry_index(kTable, kRows, &count,
                                                                                  payload.get()),
                  0);
        return telemetry_json_print(payload.get()).get() + (" " + std::to_string(count));
    }
};

TEST_F(TelemetryUciBackupTest, ReportsChangesOnce) {
    EXPECT_EQ(report(), kBoth); // after boot everything counts as changed
    EXPECT_EQ(backup(), "\nconfig config 'network_wan'\n\toption wan_type 'dhcp'\n\n"
                        "config config 'auto_upgrade_setting'\n\toption enable 'on'\n\n");
    EXPECT_EQ(report(), "");
    root.write_config("network", "config interface wan\n\toption wan_type pppoe\n");
    EXPECT_EQ(report(), R"({"np":"pppoe","ase":1} 2)");
    EXPECT_EQ(report(), "");
    // An option that went is a change to empty, and leaves the backup.
    root.write_config("auto_upgrade", "config a setting\n");
    EXPECT_EQ(report(), R"({"np":"pppoe"} 1)");
    EXPECT_EQ(backup(), "\nconfig config 'network_wan'\n\toption wan_type 'pppoe'\n\n"
                        "config config 'auto_upgrade_setting'\n\n");
    EXPECT_EQ(report(), "");
    // A package that went is no change.
    root.remove("/etc/config/network");
    EXPECT_EQ(report(), "");
    // Rows of another source are not watched but reported when something is recorded.
    ASSERT_EQ(telemetry_set_uci_value_in_tmp_backup_config("network", "wan", "extra", "x"), 0);
    EXPECT_EQ(report(), "");
    EXPECT_EQ(recorded(), R"({"np":"pppoe","other":"x"} 2)");
    EXPECT_EQ(
        logged_result([] { return telemetry_update_tmp_backup_config_by_telemetry_index(kTable, kRows); }),
        LoggedResult(0, {"get network wan wan_type uci config failed!",
                         "get auto_upgrade setting enable uci option failed!"}));
    // Long values compare by their first part.
    root.write_config("network",
                      "config interface wan\n\toption wan_type '" + std::string(3000, 'x') + "'\n");
    EXPECT_NE(report(), "");
    EXPECT_EQ(report(), "");
}

TEST_F(TelemetryUciBackupTest, WhatAnAdministratorStagesOrOverridesIsNotItsOwn) {
    // For the system's package of the same name: by `uci set` without a commit, and by a file.
    const std::string staged = "telemetry.network_wan='config'\ntelemetry.network_wan.wan_type='staged'\n";
    const std::string over = "config config 'network_wan'\n\toption wan_type 'over'\n";
    root.write_config("telemetry", "config basic 'basic'\n");
    in_router_places([&] {
        root.write("/tmp/.uci/telemetry", staged);
        root.write("/var/run/uci/telemetry", over);
        root.write("/var/run/uci/profile", "config FEATURE\n\toption support 'over'\n");
        char support[16] = "none";
        uci_get_profile_option("FEATURE", "support", support, sizeof(support));
        EXPECT_STRNE(support, "over");
        EXPECT_EQ(report(), kBoth);
        EXPECT_EQ(report(), "");
        EXPECT_EQ(backup().find("staged") + backup().find("over"), 2 * std::string::npos);
        EXPECT_EQ(root.read("/tmp/.uci/telemetry"), staged);
        EXPECT_EQ(root.read("/var/run/uci/telemetry"), over);
        EXPECT_EQ(root.read("/etc/config/telemetry"), "config basic 'basic'\n");
        // On a live option they count, as for every program.
        root.write("/tmp/.uci/network", "network.wan.wan_type='static'\n");
        EXPECT_EQ(report(), R"({"np":"static","ase":1} 2)");
        EXPECT_EQ(root.read("/tmp/.uci/network"), "network.wan.wan_type='static'\n");
    });
}

TEST_F(TelemetryUciBackupTest, AFullDiskCostsOneLineARowAndNoChange) {
    const std::string old = "\nconfig config 'network_wan'\n\toption wan_type 'old'\n\n"
                            "config config 'auto_upgrade_setting'\n\toption enable 'off'\n\n";
    in_router_places([&] {
        ASSERT_EQ(mount("none", root.path("/tmp/telemetry").c_str(), "tmpfs", 0, "size=8k"), 0);
        root.write_backup(old);
        root.write("/tmp/telemetry/filler", std::string(8192, 'x'));
        const JsonPtr payload(cJSON_CreateObject());
        uint32_t count = 0;
        EXPECT_EQ(logged_messages([&] {
                      telemetry_collect_watched_rows(kTable, 2, "count %d", payload.get(), &count);
                  }).size(),
                  4u)
            << "a line and its reason a row";
        EXPECT_STREQ(telemetry_json_print(payload.get()).get(), "{}") << "no old value as a new one";
        // Once it can be written again, what was missed is reported, once.
        root.remove("/tmp/telemetry/filler");
        EXPECT_EQ(report(), kBoth);
        EXPECT_EQ(report(), "");
    });
}

TEST_F(TelemetryUciBackupTest, AFileThatIsNoneIsSetAside) {
    const std::string good = "config config 'network_wan'\n\toption wan_type 'dhcp'\n";
    const std::pair<std::string, const char *> cases[] = {
        {good + std::string(1, '\0'), "holds a zero byte"},
        {good + std::string(1 << 20, '#'), "is larger than 1 MiB"},
        {good + "\toption o 'cut", "cannot be read"},
    };
    for (const auto &[content, reason] : cases) {
        root.write_backup(content);
        std::string reported;
        EXPECT_EQ(logged_messages([&] { reported = report(); }).at(0),
                  std::string("/tmp/telemetry/telemetry ") + reason +
                      ": set aside as telemetry.broken, starting anew");
        EXPECT_EQ(reported, kBoth);
        EXPECT_EQ(report(), "");
        EXPECT_EQ(root.read("/tmp/telemetry/telemetry.broken"), content);
    }
}

TEST_F(TelemetryUciBackupTest, KilledAnywhereLeavesABackupThatTheNextRunCompletes) {
    const std::string first = "\nconfig config 'network_wan'\n\toption wan_type 'dhcp'\n\n";
    const std::string second = "config config 'auto_upgrade_setting'\n\toption enable 'on'\n\n";
    int killed = 0;
    for (int calls = 0;; calls++) {
        SCOPED_TRACE(calls);
        root.write_backup("");
        const pid_t child = fork();
        if (child == 0) {
            calls_to_live = calls;
            _exit(telemetry_update_tmp_backup_config_by_telemetry_index(kTable, kRows));
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (!WIFSIGNALED(status))
            break;
        killed++;
        EXPECT_THAT(backup(), ::testing::AnyOf("", first + second));
        report();
        EXPECT_EQ(recorded(), kBoth);
        EXPECT_EQ(report(), "");
    }
    EXPECT_GE(killed, 2) << "one commit of two steps or more";
}

TEST_F(TelemetryUciBackupTest, DigestOfAnObject) {
    const auto changed = [](const char *name, const char *json) {
        return telemetry_update_tmp_backup_config_md5("wireless", name, JsonPtr(cJSON_Parse(json)).get());
    };
    EXPECT_EQ(changed("host", R"({"a":1,"b":2})"), 1);
    EXPECT_EQ(changed("host", R"({"a":1,"b":2})"), 0);
    EXPECT_EQ(changed("host", R"({"b":2,"a":1})"), 1); // the order counts
    EXPECT_EQ(changed("guest", R"({"b":2,"a":1})"), 1);
    EXPECT_EQ(logged_result([&] { return changed("host", "no object"); }),
              LoggedResult(0, {"invalid input!"}));
    const std::string digest = "9915965eb40d343a8fe26e4e341d1a05";
    EXPECT_EQ(backup(), "\nconfig config 'wireless_host'\n\toption md5 '" + digest +
                            "'\n\nconfig config 'wireless_guest'\n\toption md5 '" + digest + "'\n\n");
}

} // namespace
