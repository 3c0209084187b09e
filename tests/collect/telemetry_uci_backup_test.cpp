// What was reported is remembered, and only changes count.
#include "telemetry_uci.h"
#include "telemetry_uci_backup.h"

#include <csignal>
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
// From now on new data finds no room; with fail_sync what is staged still fits.
bool disk_full = false, fail_sync = false;

bool fails(bool full) {
    if (calls_to_live >= 0 && calls_to_live-- == 0)
        raise(SIGKILL);
    errno = ENOSPC;
    return full;
}

} // namespace

extern "C" ssize_t write(int fd, const void *data, size_t size) {
    return fails(disk_full) ? -1 : syscall(SYS_write, fd, data, size);
}
extern "C" int fsync(int fd) {
    return fails(fail_sync) ? -1 : static_cast<int>(syscall(SYS_fsync, fd));
}
extern "C" int rename(const char *from, const char *to) noexcept {
    return fails(false) ? -1 : static_cast<int>(syscall(SYS_rename, from, to));
}
extern "C" int ftruncate(int fd, off_t size) noexcept {
    return fails(false) ? -1 : static_cast<int>(syscall(SYS_ftruncate, fd, size));
}

namespace {

constexpr TelemetryIndexEntry kTable[] = {
    {0, "np", 3, TELEMETRY_UCI_SYSTEM, 0, "network", "wan", "wan_type", TELEMETRY_VALUE_STRING},
    {1, "ase", 3, TELEMETRY_UCI_SYSTEM, 0, "auto_upgrade", "setting", "enable", TELEMETRY_VALUE_INT},
    {2, "other", 3, TELEMETRY_UCI_PROFILE, 0, "network", "wan", "extra", TELEMETRY_VALUE_STRING},
};
constexpr int kRows = 3;
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

TEST_F(TelemetryUciBackupTest, OperatorsStagedChangesAndStrayFilesAreNotItsOwn) {
    // Staged for the system's package of the same name, by `uci set` without a commit.
    const std::string staged = "telemetry.network_wan='config'\ntelemetry.network_wan.wan_type='staged'\n";
    root.write_config("telemetry", "config basic 'basic'\n");
    root.write("/tmp/.uci/telemetry", staged);
    root.write("/tmp/telemetry/post_done", "1");
    root.write("/tmp/telemetry/.telemetry.uci-a1B2c3", "config a 'half");
    root.write("/tmp/telemetry/.uci/telemetry", "telemetry.network_wan.wan_type='x\n");
    root.write("/tmp/telemetry/.uci/other", "other.a.b='c'\n");
    EXPECT_EQ(report(), kBoth);
    EXPECT_EQ(report(), "");
    EXPECT_EQ(root.read("/tmp/telemetry/.uci/other"), "other.a.b='c'\n");
    EXPECT_EQ(root.read("/tmp/.uci/telemetry"), staged);
    EXPECT_EQ(root.read("/etc/config/telemetry"), "config basic 'basic'\n");
    EXPECT_EQ(backup().find("staged"), std::string::npos);
    // On a live option they count, as for every program.
    root.write("/tmp/.uci/network", "network.wan.wan_type='static'\n");
    EXPECT_EQ(report(), R"({"np":"static","ase":1} 2)");
    EXPECT_EQ(root.read("/tmp/.uci/network"), "network.wan.wan_type='static'\n");
}

TEST_F(TelemetryUciBackupTest, BackupThatCannotBeWrittenCostsOneLineARow) {
    const std::string old = "\nconfig config 'network_wan'\n\toption wan_type 'old'\n\n"
                            "config config 'auto_upgrade_setting'\n\toption enable 'off'\n\n";
    enum Trouble { kNoDirectory, kFull, kFullAfterStaging };
    const struct {
        std::string backup;
        Trouble trouble;
        const char *line; // once for each row
        bool recorded;
    } cases[] = {
        {old, kNoDirectory, "uci_commit failed", false},
        {"", kNoDirectory, "uci commit failed!", false},
        {old, kFull, "uci_commit failed", false},
        {"", kFull, "uci commit failed!", false},
        {"config 'broken", kNoDirectory, "Failed to uci_load package telemetry", false},
        // The directory takes no new file, the staged changes fit.
        {old, kFullAfterStaging, "uci_commit failed", true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.backup + std::to_string(c.trouble));
        root.write_backup(c.backup);
        root.remove("/tmp/telemetry/.uci");
        if (c.trouble == kNoDirectory)
            root.write("/tmp/telemetry/.uci", "no directory, as if nothing could be created");
        const JsonPtr payload(cJSON_CreateObject());
        uint32_t count = 0;
        std::vector<std::string> said;
        {
            const OutputCapture capture;
            disk_full = c.trouble == kFull;
            fail_sync = c.trouble == kFullAfterStaging;
            telemetry_collect_watched_rows(kTable, 2, "count %d", payload.get(), &count);
            disk_full = fail_sync = false;
            said = capture.messages();
        }
        EXPECT_EQ(said, std::vector<std::string>(2, c.line));
        EXPECT_STREQ(telemetry_json_print(payload.get()).get(),
                     c.recorded ? R"({"np":"dhcp","ase":1})" : "{}")
            << "no old value as a new one";
        EXPECT_EQ(backup(), c.backup);
        // Once it can be written again, what was missed is reported, once.
        if (c.trouble == kNoDirectory)
            root.remove("/tmp/telemetry/.uci");
        if (c.backup[0] == 'c')
            root.write_backup("");
        EXPECT_EQ(report(), c.recorded ? "" : kBoth);
        EXPECT_EQ(report(), "");
    }
}

TEST_F(TelemetryUciBackupTest, KilledAnywhereLeavesABackupThatTheNextRunCompletes) {
    const std::string first = "\nconfig config 'network_wan'\n\toption wan_type 'dhcp'\n\n";
    const std::string second = "config config 'auto_upgrade_setting'\n\toption enable 'on'\n\n";
    const std::string empty_second = "config config 'auto_upgrade_setting'\n\n";
    int killed = 0;
    for (int calls = 0;; calls++) {
        SCOPED_TRACE(calls);
        root.write_backup("");
        root.remove("/tmp/telemetry/.uci");
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
        EXPECT_THAT(backup(), ::testing::AnyOf("", "\nconfig config 'network_wan'\n\n", first,
                                               first + empty_second, first + second));
        report();
        EXPECT_EQ(recorded(), kBoth);
        EXPECT_EQ(report(), "");
        // Another write applies what is still staged: no change twice, no section that nobody named.
        ASSERT_EQ(telemetry_set_uci_value_in_tmp_backup_config("network", "wan", "extra", "x"), 0);
        EXPECT_EQ(backup(), first.substr(0, first.size() - 1) + "\toption extra 'x'\n\n" + second);
    }
    EXPECT_GE(killed, 16) << "four commits of four steps";
}

TEST_F(TelemetryUciBackupTest, DigestOfAnObject) {
    const auto changed = [](const char *name, const char *json) {
        return telemetry_update_tmp_backup_config_md5("wireless", name, JsonPtr(cJSON_Parse(json)).get());
    };
    EXPECT_EQ(changed("host", R"({"a":1,"b":2})"), 1);
    EXPECT_EQ(changed("host", R"({"a":1,"b":2})"), 0);
    EXPECT_EQ(changed("host", R"({"b":2,"a":1})"), 1); // the order counts
    EXPECT_EQ(changed("guest", R"({"b":2,"a":1})"), 1);
    EXPECT_EQ(changed("host", "no object"), 0);
    const std::string digest = "9915965eb40d343a8fe26e4e341d1a05";
    EXPECT_EQ(backup(), "\nconfig config 'wireless_host'\n\toption md5 '" + digest +
                            "'\n\nconfig config 'wireless_guest'\n\toption md5 '" + digest + "'\n\n");
}

} // namespace
