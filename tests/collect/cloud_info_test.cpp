// Bad and unusual sources of the cloud record; what it is in a sound home, the home's records show.
#include "cloud_info.h"

#include "collector_test.h"
#include "telemetry_memory.h"
#include "telemetry_uci.h"
#include "telemetry_uci_package.h"

namespace {

constexpr char kHeartbeats[] = "/tmp/cloud_heartbeat_timeout_count";
constexpr char kMeshList[] = "/tmp/sync-server/mesh_dev_list";

class CloudInfo : public CollectorTest {
  protected:
    CloudInfo() {
        root.write_profile("");
        root.add_command("saveconfig", "echo \"$@\" >>\"$TELEMETRY_SYSROOT/saved\"");
    }
    // The record of one cycle: its payload.
    std::string cycle(bool upgrade = false) {
        if (upgrade)
            telemetry_set_uci_value("telemetry_info", "cloud_info", "is_upgrade", "1", TELEMETRY_UCI_SYSTEM);
        const std::string payload = collect(collect_cloud_info);
        EXPECT_EQ(count, std::count(payload.begin(), payload.end(), ':')) << "one item a member";
        return payload;
    }
    // Cycles without the file, and with a directory in its place.
    void expect_no_file(const char *path, const char *payload, const char *message, bool upgrade) {
        root.remove(path);
        EXPECT_EQ(cycle(upgrade), payload);
        const std::string absent = log;
        std::filesystem::create_directories(root.path(path));
        EXPECT_EQ(cycle(upgrade), payload);
        EXPECT_THAT(absent + log, testing::HasSubstr(message));
    }
};

TEST_F(CloudInfo, ComparesVersions) {
    const std::string numbers = " (curFw_ver, newFw_ver) == ", current = "|curFw_ver is newer",
                      newer = "|newFw_ver is newer", same = "|curFw_ver is same to newFw_ver";
    const struct {
        const char *current, *newer;
        int result;
        std::string messages;
    } cases[] = {
        {"1.2.10 Build 20240101", "1.2.9 Build 20250101", -1, numbers + "(1.2.10, 1.2.9) " + current},
        {"1.2", "1.2.0", 0, numbers + "(1.2.0, 1.2.0) " + same},
        {"1.3.0", "1.2.9", -1, numbers + "(1.3.0, 1.2.9) " + current},
        {"a.b.c", "0.0.1", 1, numbers + "(0.0.0, 0.0.1) " + newer},
        {nullptr, "1", 1, "cur_fwver is nil, newFw_ver is newer"},
        {"1", nullptr, -1, "newFw_ver is nil, curFw_ver is newer"},
        {nullptr, nullptr, 0, "both fwver are nil, curFw_ver is same to newFw_ver"},
    };
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    for (const auto &one : cases) {
        const auto [result, lines] =
            logged_result([&] { return telemetry_compare_fwver(one.current, one.newer); });
        EXPECT_EQ(result, one.result) << one.messages;
        EXPECT_EQ(lines[0] + (lines.size() > 1 ? "|" + lines[1] : ""), one.messages);
    }
}

TEST_F(CloudInfo, ReportsHeartbeatTimeoutsAndStartsAnew) {
    const struct {
        std::string content;
        const char *record;
        std::string left;
    } cases[] = {
        {"7", R"({"tch":7})", "0\n"},
        {"123\n", R"({"tch":123})", "0\n3\n"}, // the start of the file only
        {"0", "{}", "0"},
        {"many\n", "{}", "many\n"},
        {std::string(200, '9'), "{}", std::string(200, '9')},
    };
    for (const auto &one : cases) {
        root.write(kHeartbeats, one.content);
        EXPECT_EQ(cycle(), one.record) << one.content;
        EXPECT_EQ(root.read(kHeartbeats), one.left) << one.content;
    }
    {
        const TelemetryUciScope given_up;
        root.write(kHeartbeats, "7\n");
        EXPECT_EQ(cycle(), cases[0].record);
        root.write(kHeartbeats, "2\n"); // counted meanwhile
        telemetry_memory_refused();
    }
    EXPECT_EQ(root.read(kHeartbeats), "9\n");
    expect_no_file(kHeartbeats, "{}", "open file /tmp/cloud_heartbeat_timeout_count failed", false);
}

TEST_F(CloudInfo, CountsUpgradesOfKnownNodes) {
    const std::string none = R"({"tcu":1})", idle = R"({"tcu":1,"tus":0})", done = R"({"tcu":1,"tus":1})";
    const std::string unparsed = "can not parse cJSON";
    const struct {
        std::string list, record, version; // of node A afterwards
        std::vector<std::string> messages;
    } story[] = {
        {"", none, "1.0.0", {unparsed}},
        {"{\"A\":{\"fw_ver", none, "1.0.0", {unparsed}},
        {std::string(17000, ' ') + R"({"A":{"fw_version":"2.0.0"}})", none, "1.0.0", {unparsed}}, // too late
        {R"([{"fw_version":"2.0.0"}])", idle, "1.0.0", {}},
        {R"({"A":{"fw_version":2},"B":7,"":{"fw_version":"1"}})", idle, "1.0.0", {"param error"}},
        {R"({"C":{"fw_version":"9.9.9"},"A":{"fw_version":"1.0.0 Build 2"}})", idle, "1.0.0", {}},
        {R"({"A":{"fw_version":"2.0.10"},"B":{"fw_version":"1.0.0"}})", done, "2.0.10", {}},
        {R"({"A":{"fw_version":"2.0.9"}})", idle, "2.0.10", {}}, // a step back
        {R"({"A":{"fw_version":"3.0.0'\n\toption x '1"}})", done, "3.0.0'\n\toption x '1", {}},
    };
    root.write_config("telemetry_info",
                      "config c 'cloud_info'\n"
                      "config d 'A'\n\toption fwver '1.0.0'\nconfig d 'B'\n\toption fwver '1.0.0'\n");
    for (const auto &one : story) {
        SCOPED_TRACE(one.list.substr(0, 60));
        root.write(kMeshList, one.list);
        EXPECT_EQ(cycle(true), one.record);
        EXPECT_EQ(said, one.messages);
        char version[128] = {};
        telemetry_get_uci_value("telemetry_info", "A", "fwver", version, sizeof(version),
                                TELEMETRY_UCI_SYSTEM);
        EXPECT_EQ(version, one.version);
    }
    EXPECT_EQ(root.read("/etc/config/telemetry_info").find("9.9.9"), std::string::npos)
        << "no record is made";
    EXPECT_EQ(root.read("/saved"), "user-config\nuser-config\n");

    expect_no_file(kMeshList, none.c_str(),
                   "can not open file: /tmp/sync-server/mesh_dev_list, wait first probe of sync", true);
    EXPECT_EQ(cycle(), "{}") << "nobody started an upgrade";
}

TEST_F(CloudInfo, ReportsAutomaticUpgradeWhenItChanges) {
    const std::string all = R"({"ase":1,"atb":3,"ate":5})";
    const struct {
        const char *support, *enable, *begin, *end;
        std::string record;
    } story[] = {
        {"no", "on", "3", "5", "{}"},
        {"yes", "on", "3", "5", all},
        {"yes", "on", "3", "5", "{}"},
        {"yes", "on", "3", "99999999999999999999", R"({"ase":1,"atb":3,"ate":-1})"},
        {"yes", "off", "3", "5", R"({"ase":0})"},
        {"yes", "on", "3", "5", all},
        {"yes", "", "", "", R"({"ase":0})"}, // sections without options
    };
    for (const auto &one : story) {
        root.write_profile("config auto_upgrade\n\toption support '" + std::string(one.support) + "'\n");
        const auto option = [](const char *name, std::string value) {
            return value.empty() ? value : "\toption " + (name + (" '" + value + "'\n"));
        };
        root.write_config("auto_upgrade", "config a 'setting'\n" + option("enable", one.enable) +
                                              "config a 'time'\n" + option("begin", one.begin) +
                                              option("end", one.end));
        EXPECT_EQ(cycle(), one.record) << one.support << one.enable << one.end;
    }
}

} // namespace
