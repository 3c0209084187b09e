// Configuration access on real files.
#include "telemetry_uci.h"

#include <cstring>
#include <functional>

#include "sysroot.h"
#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_uci_package.h"

// The linker sends the daemon's calls here: what another program does to the file between a load and the
// commit.
static std::function<void()> before_commit = [] {};
extern "C" int __real_uci_commit(uci_context *uci, uci_package **package, bool overwrite);
extern "C" int __wrap_uci_commit(uci_context *uci, uci_package **package, bool overwrite) {
    before_commit();
    return __real_uci_commit(uci, package, overwrite);
}

namespace {

using Messages = std::vector<std::string>;

class TelemetryUciTest : public SysrootTest {
  protected:
    TelemetryUciTest() {
        telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    }
    UciContextPtr uci{telemetry_uci_alloc_context(TELEMETRY_UCI_SYSTEM)};
};

TEST_F(TelemetryUciTest, ReadsAnOption) {
    root.write_config("p", "config a 's'\n\toption o 'value'\n\toption e ''\n\tlist l 'x'\n\tlist l 'y z'\n");
    root.write_config("bad", "config a 's\n");
    const struct {
        const char *package, *section, *option;
        int size, result;
        const char *buffer; // untouched ("#") after a failure
        Messages log;
    } cases[] = {
        {"p", "s", "o", 16, 0, "value", {}},
        {"p", "s", "o", 4, 0, "val", {}},
        {"p", "s", "l", 16, 0, "x y z", {}},
        {"none", "s", "o", 16, -1, "#", {"uci_load failed: none"}},
        {"bad", "s", "o", 16, -1, "#", {"uci_load failed: bad"}},
        {"p", "t", "o", 16, -2, "#", {"uci_lookup_section failed: t"}},
        {"p", "s", "q", 16, -3, "#", {"uci_lookup_option failed: q"}},
        {"p", "s", "e", 16, -3, "#", {"uci_lookup_option failed: e"}},
        {"", "s", "o", 16, -1, "#", {"param error"}},
        {"p", "s", "o", 0, -1, "#", {"param error"}},
    };
    char buffer[16];
    for (const auto &c : cases) {
        strcpy(buffer, "#");
        expect_logged(c.result, c.log, [&] {
            return uci_get_value(uci.get(), c.package, c.section, c.option, buffer, c.size);
        });
        EXPECT_STREQ(buffer, c.buffer);
    }
    EXPECT_TRUE(uci_list_empty(&uci->root)); // nothing stays loaded
    // The self-contained reader adds its own line, and knows one failure only.
    expect_logged(-1, {"uci_lookup_option failed: q", "uci_get_value p.s.q error"},
                  [&] { return telemetry_get_uci_value("p", "s", "q", buffer, 16, TELEMETRY_UCI_SYSTEM); });
}

TEST_F(TelemetryUciTest, SourcesAreDirectories) {
    const struct {
        uint32_t source;
        const char *path, *value, *written; // writers know two sources
    } cases[] = {{TELEMETRY_UCI_BACKUP, "/tmp/telemetry/telemetry", "backup", "b"},
                 {TELEMETRY_UCI_SYSTEM, "/etc/config/telemetry", "system", "p"},
                 {TELEMETRY_UCI_PROFILE, "/etc/profile.d/telemetry", "profile", "profile"}};
    char buffer[16] = "";
    for (const auto &c : cases)
        root.write(c.path, "config a s\noption o " + std::string(c.value) + "\n");
    for (const auto &c : cases) {
        EXPECT_EQ(telemetry_get_uci_value("telemetry", "s", "o", buffer, sizeof(buffer), c.source), 0);
        EXPECT_STREQ(buffer, c.value);
    }
    EXPECT_EQ(telemetry_set_uci_value("telemetry", "s", "o", "b", TELEMETRY_UCI_BACKUP), 0);
    EXPECT_EQ(telemetry_set_uci_value("telemetry", "s", "o", "p", TELEMETRY_UCI_PROFILE), 0);
    for (const auto &c : cases) {
        telemetry_get_uci_value("telemetry", "s", "o", buffer, sizeof(buffer), c.source);
        EXPECT_STREQ(buffer, c.written);
    }
}

TEST_F(TelemetryUciTest, SetsAnOptionAndCreatesItsSection) {
    const std::string v = "config a 's'\n\toption o 'v'\n";
    const char *const add = "failed to find the specified section! add now";
    const char *const failed = "uci_set_value [w] error";
    const struct {
        std::string file;
        const char *section, *option, *value;
        const char *type; // of a new section, "" the default; null: of an existing one only
        std::string after;
        Messages log;
        int result = 0;
    } cases[] = {
        {v, "s", "o", "it's", nullptr, "\nconfig a 's'\n\toption o 'it'\\''s'\n\n", {}},
        {v, "s", "n", "a=b.c", nullptr, "\nconfig a 's'\n\toption o 'v'\n\toption n 'a=b.c'\n\n", {}},
        {v, "s", "o", "", nullptr, "\nconfig a 's'\n\n", {}},
        {v, "t", "o", "w", nullptr, v, {"uci_set p.t.o=w failed", failed}, -1},
        {v, "s", "o", nullptr, nullptr, v, {"param error"}, -1},
        {"", "s", "o", "v", "device", "\nconfig device 's'\n\toption o 'v'\n\n", {add}},
        {"config a s\n", "s", "o", "v", "device", "\nconfig a 's'\n\toption o 'v'\n\n", {}},
        {"config a\nconfig a\n", "@a[1]", "o", "v", "", "\nconfig a\n\nconfig a\n\toption o 'v'\n\n", {}},
        {"", "s t", "o", "v", "", "", {add, "uci_rename p.cfg016c7b=s t failed"}, -1},
        {"config a 's\n", "s", "o", "v", "", "config a 's\n", {add, "Failed to uci_load package p"}, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file + c.section + c.option + "=" + (c.value ? c.value : ""));
        root.write_config("p", c.file);
        expect_logged(c.result, c.log, [&] {
            return c.type == nullptr
                       ? telemetry_set_uci_value("p", c.section, c.option, c.value, TELEMETRY_UCI_SYSTEM)
                       : uci_set_value_with_create(uci.get(), "p", c.section, c.option, c.value, c.type, 1);
        });
        EXPECT_EQ(root.read("/etc/config/p"), c.after);
        EXPECT_TRUE(uci_list_empty(&uci->root));
    }
    root.write_config("telemetry", "");
    EXPECT_EQ(telemetry_set_uci_value_in_telemetry_config("s", "o", "v"), 0);
    EXPECT_EQ(root.read("/etc/config/telemetry"), "\nconfig device 's'\n\toption o 'v'\n\n");
    // Committed only when asked, and as far as it can be.
    root.write_config("p", v);
    EXPECT_EQ(uci_set_value(uci.get(), "p", "s", "o", "1", 0), 0);
    EXPECT_EQ(root.read("/etc/config/p"), v);
    root.remove("/tmp/.uci");
    root.write("/tmp/.uci", "no directory");
    expect_logged(-1, {"uci_commit failed", "reason: p.s.o was not written"},
                  [&] { return uci_set_value(uci.get(), "p", "s", "o", "1", 1); });
}

// What a scope reads is read once, what it sets is stored together, and nobody else notices.
TEST_F(TelemetryUciTest, AScopeReadsOnceAndStoresTogether) {
    const auto value = [](const char *section, const char *option) {
        char buffer[16] = "-";
        telemetry_get_uci_value("p", section, option, buffer, sizeof(buffer), TELEMETRY_UCI_SYSTEM);
        return std::string(buffer);
    };
    const std::string file = "config a 's'\n\toption o 'v'\n\toption r '1'\n";
    root.write_config("p", file);
    {
        TelemetryUciScope outer, scope;
        const auto put = [&](const char *section, const char *option, const char *text) {
            return scope.put(TELEMETRY_UCI_SYSTEM, "p", section, option, text, "a");
        };
        EXPECT_EQ(value("s", "o"), "v");
        root.write_config("p", "config a 's'\n\toption o 'w'\n\toption r '1'\n"); // another program
        EXPECT_EQ(value("s", "o"), "v");
        // The last value of an option counts, a section that cannot be made leaves nothing.
        EXPECT_TRUE(put("s", "n", "1") && put("t", "n", "2") && put("s", "n", "3") && put("s", "r", ""));
        EXPECT_FALSE(put("s t", "n", "1") || put("s", "o-p", "1"));
        EXPECT_EQ(value("s", "n") + value("t", "n") + value("s", "r"), "32-");
        EXPECT_EQ(root.read("/etc/config/p").find("'3'"), std::string::npos);
        EXPECT_TRUE(scope.commit());
        const std::string stored =
            "\nconfig a 's'\n\toption o 'w'\n\toption n '3'\n\nconfig a 't'\n\toption n '2'\n\n";
        EXPECT_EQ(root.read("/etc/config/p"), stored);
        EXPECT_EQ(value("s", "o"), "w");
        // Who writes at once takes along what waits.
        EXPECT_TRUE(put("t", "m", "4"));
        EXPECT_EQ(telemetry_set_uci_value("p", "s", "o", "x", TELEMETRY_UCI_SYSTEM), 0);
        EXPECT_EQ(value("s", "o") + value("t", "m"), "x4");
        // What could not be stored is not there.
        const std::string before = root.read("/etc/config/p");
        root.remove("/tmp/.uci");
        root.write("/tmp/.uci", "no directory");
        EXPECT_TRUE(put("s", "o", "y") && put("u", "n", "1"));
        EXPECT_EQ(logged_messages([&] { scope.commit(); }),
                  (Messages{"uci_commit failed", "reason: p.s.o was not written", "uci_commit failed",
                            "reason: p.u.n was not written"}));
        EXPECT_EQ(value("s", "o") + value("u", "n"), "x-");
        EXPECT_EQ(root.read("/etc/config/p"), before);
        root.remove("/tmp/.uci");
        EXPECT_TRUE(put("s", "o", "z"));
    }
    EXPECT_EQ(value("s", "o") + value("s", "n"), "z3");
}

TEST_F(TelemetryUciTest, ACycleKeepsItsOwnDirectoriesUntilAnException) {
    const auto write = [&](const std::string &text) {
        for (const char *directory : {"/etc/config", "/tmp/telemetry"})
            root.write(std::string(directory) + "/p", "config a 's'\n\toption o '" + text + "'\n");
    };
    const auto values = [] { // the system's, the backup's
        std::string both;
        for (const uint32_t source : {TELEMETRY_UCI_SYSTEM, TELEMETRY_UCI_BACKUP}) {
            char buffer[16] = "-";
            telemetry_get_uci_value("p", "s", "o", buffer, sizeof(buffer), source);
            both += buffer;
        }
        return both;
    };
    const auto seen = [&] {
        const TelemetryUciScope scope;
        return values();
    };
    write("1");
    {
        const TelemetryUciCycle cycle, inner;
        EXPECT_EQ(seen(), "11");
        write("2");
        EXPECT_EQ(seen(), "21");
        try {
            TelemetryUciScope scope;
            EXPECT_TRUE(scope.put(TELEMETRY_UCI_BACKUP, "p", "s", "o", "9", "a"));
            EXPECT_EQ(values(), "29");
            throw 1;
        } catch (int) {
        }
        EXPECT_EQ(seen(), "22"); // read anew, without what waited
        write("3");
        EXPECT_EQ(seen(), "32");
    }
    EXPECT_EQ(seen(), "33");
}

// The library reads the file anew for a commit, and may have freed the package when that fails.
TEST_F(TelemetryUciTest, AFileThatIsSpoiledBeforeTheCommitCostsTheWriteOnly) {
    const auto spoil = [&] { root.write_config("telemetry", "option o 'nowhere'\n"); };
    const char *const add = "failed to find the specified section! add now";
    for (const std::string section : {"s", "t"}) {
        SCOPED_TRACE(section);
        root.write_config("telemetry", "config a 's'\n");
        before_commit = spoil;
        const auto said = logged_result(
            [&] { return telemetry_set_uci_value_in_telemetry_config(section.c_str(), "o", "v"); });
        before_commit = [] {};
        EXPECT_EQ(said, section == "s"
                            ? LoggedResult(-1, {"uci_commit failed", "reason: telemetry.s.o was not written"})
                            : LoggedResult(-1, {add, "uci commit failed!",
                                                "reason: section telemetry.t was not written"}));
        EXPECT_EQ(root.read("/etc/config/telemetry"), "option o 'nowhere'\n");
    }
}

TEST_F(TelemetryUciTest, ReadsEnabledValues) {
    const auto read = [&](const std::string &value, uint32_t source) {
        root.write_config("telemetry", "config a s\noption enable '" + value + "'\n");
        root.write_backup("config a s\noption enable '" + value + "'\n");
        return logged_result(
            [&] { return telemetry_get_uci_enabled_value("telemetry", "s", "enable", source); });
    };
    for (const uint32_t source : {TELEMETRY_UCI_BACKUP, TELEMETRY_UCI_SYSTEM, TELEMETRY_UCI_PROFILE}) {
        for (const char *on : {"on", "1", "true"})
            EXPECT_EQ(read(on, source), LoggedResult(1, {}));
        for (const char *off : {"off", "0", "false"})
            EXPECT_EQ(read(off, source), LoggedResult(0, {}));
        for (const char *other : {"TRUE", "on ", "one"})
            EXPECT_EQ(read(other, source), LoggedResult(0, {"value enabled error"}));
        EXPECT_EQ(read("", source).second.back(), "uci_get_value enabled error");
    }
}

TEST_F(TelemetryUciTest, ReadsTheProfile) {
    root.write_profile(
        "config other\nconfig feature\noption support 'yes_always'\nconfig feature\noption support no\n"
        "config a_type_with_a_name_that_fills_the_path\noption support yes\n");
    const Messages failed = {"lookup ptr failed"};
    const struct {
        const char *type, *option;
        int size;
        const char *buffer; // "#" after a failure
        Messages log;
    } cases[] = {
        {"feature", "support", 16, "yes_always", {}},
        {"feature", "support", 4, "yes", {}},
        {"feature", "none", 16, "#", failed},
        {"other", "support", 16, "#", failed},
        // "profile.@a_type...[0].support" is cut to 49 characters.
        {"a_type_with_a_name_that_fills_the_path", "support", 16, "#", failed},
        {"feature", nullptr, 16, "#", {"invalid input!"}},
    };
    for (const auto &c : cases) {
        char buffer[16] = "#";
        expect_logged(c.log.empty() ? 0 : -1, c.log,
                      [&] { return uci_get_profile_option(c.type, c.option, buffer, c.size); });
        EXPECT_STREQ(buffer, c.buffer);
    }
    root.remove("/etc/profile.d/profile");
    expect_logged(-1, {"uci load profile failed"},
                  [] { return uci_get_profile_option("feature", "support", std::string(4, 0).data(), 4); });
}

TEST_F(TelemetryUciTest, TraversesSectionsInOrder) {
    root.write_config("p", "config a x\noption mac 1\nconfig b\nconfig a y\noption mac 2\n");
    std::string walked;
    const auto note = [](void *user, uci_context *context, uci_element *section) {
        const char *mac = uci_lookup_option_string(context, uci_to_section(section), "mac");
        *static_cast<std::string *>(user) +=
            std::string(uci_to_section(section)->type) + (mac ? mac : "-") + " ";
        return -1;
    };
    EXPECT_EQ(telemetry_traverse_config_section_and_do("p", note, &walked), 0);
    EXPECT_EQ(walked, "a1 b- a2 ");
    EXPECT_EQ(telemetry_traverse_config_section_and_do("p", nullptr, &walked), -1);
    expect_logged(-1, {"load uci package failed."},
                  [&] { return telemetry_traverse_config_section_and_do("none", note, &walked); });
}

} // namespace
