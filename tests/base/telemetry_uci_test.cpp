// Configuration access on real files.
#include "telemetry_uci.h"

#include <cstring>

#include "sysroot.h"
#include "telemetry_handles.h"
#include "telemetry_log.h"

namespace {

using Messages = std::vector<std::string>;

class TelemetryUciTest : public SysrootTest {
  protected:
    TelemetryUciTest() {
        telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    }
    ~TelemetryUciTest() override {
        telemetry_debug_level = TELEMETRY_LOG_INFO;
    }
};

TEST_F(TelemetryUciTest, ReadsAnOption) {
    root.write_config("p", "config a 's'\n\toption o 'value'\n\toption e ''\n\tlist l 'x'\n\tlist l 'y z'\n");
    root.write_config("bad", "config a 's\n");
    const struct {
        const char *package, *section, *option;
        int size;
        int result;
        const char *buffer; // untouched ("#") after a failure
        Messages log;
    } cases[] = {
        {"p", "s", "o", 16, 0, "value", {}},
        {"p", "s", "o", 4, 0, "val", {}},
        {"p", "s", "o", 1, 0, "", {}},
        {"p", "s", "l", 16, 0, "x y z", {}},
        {"none", "s", "o", 16, -1, "#", {"uci_load failed: none"}},
        {"bad", "s", "o", 16, -1, "#", {"uci_load failed: bad"}},
        {"../p", "s", "o", 16, -1, "#", {"uci_load failed: ../p"}},
        {"p", "t", "o", 16, -2, "#", {"uci_lookup_section failed: t"}},
        {"p", "s", "q", 16, -3, "#", {"uci_lookup_option failed: q"}},
        {"p", "s", "e", 16, -3, "#", {"uci_lookup_option failed: e"}},
        {"", "s", "o", 16, -1, "#", {"param error"}},
        {"p", nullptr, "o", 16, -1, "#", {"param error"}},
        {"p", "s", "o", 0, -1, "#", {"param error"}},
    };
    const UciContextPtr uci(telemetry_uci_alloc_context(TELEMETRY_UCI_SYSTEM));
    for (const auto &c : cases) {
        SCOPED_TRACE(c.log.empty() ? c.buffer : c.log[0]);
        char buffer[16] = "#";
        EXPECT_EQ(logged_result([&] {
                      return uci_get_value(uci.get(), c.package, c.section, c.option, buffer, c.size);
                  }),
                  LoggedResult(c.result, c.log));
        EXPECT_STREQ(buffer, c.buffer);
        // The self-contained reader adds its own line, and knows one failure only.
        Messages log = c.log;
        if (c.result != 0 && log[0] != "param error")
            log.push_back("uci_get_value " + std::string(c.package) + "." + c.section + "." + c.option +
                          " error");
        EXPECT_EQ(logged_result([&] {
                      return telemetry_get_uci_value(c.package, c.section, c.option, buffer, c.size,
                                                     TELEMETRY_UCI_SYSTEM);
                  }),
                  LoggedResult(c.result == 0 ? 0 : -1, log));
    }
    EXPECT_TRUE(uci_list_empty(&uci->root)); // nothing stays loaded
}

TEST_F(TelemetryUciTest, SourcesAreDirectories) {
    const struct {
        uint32_t source;
        const char *path, *value;
    } cases[] = {{TELEMETRY_UCI_BACKUP, "/tmp/telemetry/telemetry", "backup"},
                 {TELEMETRY_UCI_SYSTEM, "/etc/config/telemetry", "system"},
                 {TELEMETRY_UCI_PROFILE, "/etc/profile.d/telemetry", "profile"}};
    for (const auto &c : cases)
        root.write(c.path, "config a s\noption o " + std::string(c.value) + "\n");
    for (const auto &c : cases) {
        char buffer[16] = "";
        EXPECT_EQ(telemetry_get_uci_value("telemetry", "s", "o", buffer, sizeof(buffer), c.source), 0);
        EXPECT_STREQ(buffer, c.value);
    }
    // Writers know two.
    EXPECT_EQ(telemetry_set_uci_value("telemetry", "s", "o", "b2", TELEMETRY_UCI_BACKUP), 0);
    EXPECT_EQ(telemetry_set_uci_value("telemetry", "s", "o", "s2", TELEMETRY_UCI_PROFILE), 0);
    EXPECT_EQ(root.read(cases[0].path), "\nconfig a 's'\n\toption o 'b2'\n\n");
    EXPECT_EQ(root.read(cases[1].path), "\nconfig a 's'\n\toption o 's2'\n\n");
    EXPECT_EQ(root.read(cases[2].path), "config a s\noption o profile\n");
}

TEST_F(TelemetryUciTest, SetsAnOption) {
    const std::string before = "config a 's'\n\toption o 'v'\n";
    const struct {
        const char *section, *option, *value;
        int result;
        const char *file; // null: as before
        Messages log;
    } cases[] = {
        {"s", "o", "it's", 0, "\nconfig a 's'\n\toption o 'it'\\''s'\n\n", {}},
        {"s", "n", "a=b.c", 0, "\nconfig a 's'\n\toption o 'v'\n\toption n 'a=b.c'\n\n", {}},
        {"s", "o", "", 0, "\nconfig a 's'\n\n", {}},
        {"s", "n", "", 0, nullptr, {}},
        {"t", "o", "w", -1, nullptr, {"uci_set p.t.o=w failed", "uci_set_value [w] error"}},
        {"s", "o-p", "w", -1, nullptr, {"uci_set p.s.o-p=w failed", "uci_set_value [w] error"}},
        {"s", "o", nullptr, -1, nullptr, {"param error"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.option + std::string("=") + (c.value ? c.value : ""));
        root.write_config("p", before);
        EXPECT_EQ(logged_result([&] {
                      return telemetry_set_uci_value("p", c.section, c.option, c.value, TELEMETRY_UCI_SYSTEM);
                  }),
                  LoggedResult(c.result, c.log));
        EXPECT_EQ(root.read("/etc/config/p"), c.file ? c.file : before);
    }
    // Committed only when asked, and as far as it can be.
    const UciContextPtr uci(telemetry_uci_alloc_context(TELEMETRY_UCI_SYSTEM));
    root.write_config("p", "config a 's'\n");
    EXPECT_EQ(uci_set_value(uci.get(), "p", "s", "o", "1", 0), 0);
    EXPECT_EQ(root.read("/etc/config/p"), "config a 's'\n");
    root.remove("/tmp/.uci");
    root.write("/tmp/.uci", "no directory");
    EXPECT_EQ(logged_result([&] { return uci_set_value(uci.get(), "p", "s", "o", "1", 1); }),
              LoggedResult(-1, {"uci_commit failed"}));
}

TEST_F(TelemetryUciTest, SetCreatesTheSection) {
    const char *const add = "failed to find the specified section! add now";
    const struct {
        const char *file, *section, *type;
        const char *expected; // null: fails, and the file stays
        Messages log;
    } cases[] = {
        {"", "s", nullptr, "\nconfig config 's'\n\toption o 'v'\n\n", {add}},
        {"", "s", "device", "\nconfig device 's'\n\toption o 'v'\n\n", {add}},
        {"config a s\n", "s", "device", "\nconfig a 's'\n\toption o 'v'\n\n", {}},
        {"config a\nconfig a\n", "@a[1]", nullptr, "\nconfig a\n\nconfig a\n\toption o 'v'\n\n", {}},
        {"", "s t", nullptr, nullptr, {add, "uci_rename p.cfg016c7b=s t failed"}},
        {"config a 's\n", "s", nullptr, nullptr, {add, "Failed to uci_load package p"}},
    };
    const UciContextPtr uci(telemetry_uci_alloc_context(TELEMETRY_UCI_SYSTEM));
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.file) + c.section);
        root.write_config("p", c.file);
        EXPECT_EQ(logged_result([&] {
                      return uci_set_value_with_create(uci.get(), "p", c.section, "o", "v", c.type, 1);
                  }),
                  LoggedResult(c.expected ? 0 : -1, c.log));
        EXPECT_EQ(root.read("/etc/config/p"), c.expected ? c.expected : c.file);
        EXPECT_TRUE(uci_list_empty(&uci->root));
    }
    root.write_config("telemetry", "");
    EXPECT_EQ(telemetry_set_uci_value_in_telemetry_config("s", "o", "v"), 0);
    EXPECT_EQ(root.read("/etc/config/telemetry"), "\nconfig device 's'\n\toption o 'v'\n\n");
}

TEST_F(TelemetryUciTest, ReadsEnabledValues) {
    const Messages none, error = {"value enabled error"};
    const struct {
        const char *value;
        int expected;
        Messages log;
    } cases[] = {
        {"on", 1, none},    {"1", 1, none},
        {"true", 1, none},  {"off", 0, none},
        {"0", 0, none},     {"false", 0, none},
        {"TRUE", 0, error}, {"on ", 0, error},
        {"one", 0, error},  {"", 0, {"uci_lookup_option failed: enable", "uci_get_value enabled error"}},
    };
    for (const auto &[value, expected, log] : cases) {
        const std::string file = "config a s\noption enable '" + std::string(value) + "'\n";
        root.write_config("telemetry", file);
        root.write_backup(file);
        for (uint32_t source : {TELEMETRY_UCI_BACKUP, TELEMETRY_UCI_SYSTEM, TELEMETRY_UCI_PROFILE})
            EXPECT_EQ(logged_result([&, v = source] {
                          return telemetry_get_uci_enabled_value("telemetry", "s", "enable", v);
                      }),
                      LoggedResult(expected, log))
                << value;
    }
}

TEST_F(TelemetryUciTest, ReadsTheProfile) {
    root.write_profile(
        "config other\nconfig feature\noption support 'yes_always'\nconfig feature\noption support no\n"
        "config a_type_with_a_name_that_fills_the_path\noption support yes\n");
    const struct {
        const char *type, *option;
        int size;
        const char *buffer; // "#" after a failure
        Messages log;
    } cases[] = {
        {"feature", "support", 16, "yes_always", {}},
        {"feature", "support", 4, "yes", {}},
        {"feature", "none", 16, "#", {"lookup ptr failed"}},
        {"none", "support", 16, "#", {"lookup ptr failed"}},
        {"other", "support", 16, "#", {"lookup ptr failed"}},
        // "profile.@a_type...[0].support" is cut to 49 characters.
        {"a_type_with_a_name_that_fills_the_path", "support", 16, "#", {"lookup ptr failed"}},
        {"feature", nullptr, 16, "#", {"invalid input!"}},
        {"feature", "support", 0, "#", {"invalid input!"}},
    };
    char buffer[16];
    for (const auto &c : cases) {
        strcpy(buffer, "#");
        EXPECT_EQ(logged_result([&] { return uci_get_profile_option(c.type, c.option, buffer, c.size); }),
                  LoggedResult(c.buffer[0] == '#' ? -1 : 0, c.log));
        EXPECT_STREQ(buffer, c.buffer);
    }
    root.remove("/etc/profile.d/profile");
    EXPECT_EQ(logged_result([&] { return uci_get_profile_option("feature", "support", buffer, 4); }),
              LoggedResult(-1, {"uci load profile failed"}));
}

TEST_F(TelemetryUciTest, TraversesSectionsInOrder) {
    root.write_config("p", "config a x\noption mac 1\nconfig b\nconfig a y\noption mac 2\n");
    std::string walked;
    const auto note = [](void *user, uci_context *uci, uci_element *section) {
        const char *mac = uci_lookup_option_string(uci, uci_to_section(section), "mac");
        *static_cast<std::string *>(user) +=
            std::string(uci_to_section(section)->type) + (mac ? mac : "-") + " ";
        return -1;
    };
    EXPECT_EQ(telemetry_traverse_config_section_and_do("p", note, &walked), 0);
    EXPECT_EQ(walked, "a1 b- a2 ");
    EXPECT_EQ(telemetry_traverse_config_section_and_do("p", nullptr, &walked), -1);
    EXPECT_EQ(logged_result([&] { return telemetry_traverse_config_section_and_do("none", note, &walked); }),
              LoggedResult(-1, {"load uci package failed."}));
}

} // namespace
