// Bad and unusual sources of the cloud record; what it is in a sound home, the home's records show.
#include "cloud_info.h"

#include <sys/stat.h>

#include <gmock/gmock.h>

#include "collectors.h"
#include "sysroot.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_uci.h"

using testing::Contains;

namespace {

constexpr char kHeartbeats[] = "/tmp/cloud_heartbeat_timeout_count";
constexpr char kMeshList[] = "/tmp/sync-server/mesh_dev_list";

class CloudInfo : public SysrootTest {
  protected:
    CloudInfo() {
        telemetry_debug_level = TELEMETRY_LOG_ERROR;
        root.write_backup("");
        root.write_profile("");
        root.add_command("saveconfig", "echo \"$@\" >>\"$TELEMETRY_SYSROOT/saved\"");
    }
    // The record of one cycle: its payload, empty without one.
    std::string cycle() {
        const JsonPtr payload(cJSON_CreateObject());
        uint32_t count = 0;
        EXPECT_EQ(collect_cloud_info(nullptr, payload.get(), &count), 0);
        EXPECT_EQ(count, static_cast<uint32_t>(cJSON_GetArraySize(payload.get()))) << "one item a member";
        return count == 0 ? "" : telemetry_json_print(payload.get()).get();
    }
    std::string recorded(const char *node) {
        char version[128] = "none";
        telemetry_get_uci_value("telemetry_info", node, "fwver", version, sizeof(version),
                                TELEMETRY_UCI_SYSTEM);
        return version;
    }
};

TEST_F(CloudInfo, ComparesVersions) {
    const std::string current = "curFw_ver is newer", newer = "newFw_ver is newer",
                      same = "curFw_ver is same to newFw_ver";
    const struct {
        const char *current, *newer;
        LoggedResult result;
    } cases[] = {
        {"1.2.10 Build 20240101",
         "1.2.9 Build 20250101",
         {-1, {" (curFw_ver, newFw_ver) == (1.2.10, 1.2.9) ", current}}},
        {"1.2", "1.2.0", {0, {" (curFw_ver, newFw_ver) == (1.2.0, 1.2.0) ", same}}},
        {"1.2.3 Build 1", "1.2.3 Build 2", {0, {" (curFw_ver, newFw_ver) == (1.2.3, 1.2.3) ", same}}},
        {"1.9.9", "2.0.0", {1, {" (curFw_ver, newFw_ver) == (1.9.9, 2.0.0) ", newer}}},
        {"1.3.0", "1.2.9", {-1, {" (curFw_ver, newFw_ver) == (1.3.0, 1.2.9) ", current}}},
        {"a.b.c", "0.0.1", {1, {" (curFw_ver, newFw_ver) == (0.0.0, 0.0.1) ", newer}}},
        {nullptr, "1", {1, {"cur_fwver is nil, newFw_ver is newer"}}},
        {"1", nullptr, {-1, {"newFw_ver is nil, curFw_ver is newer"}}},
        {nullptr, nullptr, {0, {"both fwver are nil, curFw_ver is same to newFw_ver"}}},
    };
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    for (const auto &one : cases)
        EXPECT_EQ(logged_result([&] { return telemetry_compare_fwver(one.current, one.newer); }), one.result);
}

TEST_F(CloudInfo, ReportsHeartbeatTimeoutsAndStartsAnew) {
    const struct {
        std::string content;
        const char *record;
        std::string left;
    } cases[] = {
        {"7", R"({"tch":7})", "0\n"},
        {"123\n", R"({"tch":123})", "0\n3\n"}, // the start of the file only
        {"0", "", "0"},
        {"-3\n", "", "-3\n"},
        {"", "", ""},
        {"many\n", "", "many\n"},
        {std::string(200, '9'), "", std::string(200, '9')},
    };
    for (const auto &one : cases) {
        root.write(kHeartbeats, one.content);
        EXPECT_EQ(cycle(), one.record) << one.content;
        EXPECT_EQ(root.read(kHeartbeats), one.left) << one.content;
    }
    root.remove(kHeartbeats);
    EXPECT_EQ(cycle(), "");
    EXPECT_EQ(mkfifo(root.path(kHeartbeats).c_str(), 0600), 0);
    EXPECT_EQ(cycle(), "") << "and does not wait for a writer";
    root.remove(kHeartbeats);
    std::filesystem::create_directories(root.path(kHeartbeats));
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(cycle(), ""); }),
                Contains("open file /tmp/cloud_heartbeat_timeout_count failed"));
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
        {"\n{\"A\":{\"fw_version\":\"2.0.0\"}}", none, "1.0.0", {unparsed}},
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
        root.write(kMeshList, one.list);
        telemetry_set_uci_value("telemetry_info", "cloud_info", "is_upgrade", "1", TELEMETRY_UCI_SYSTEM);
        EXPECT_EQ(logged_messages([&] { EXPECT_EQ(cycle(), one.record) << one.list; }), one.messages)
            << one.list.substr(0, 60);
        EXPECT_EQ(recorded("A"), one.version) << one.list;
    }
    EXPECT_EQ(recorded("C"), "none") << "a record is never made here";
    EXPECT_EQ(root.read("/saved"), "user-config\nuser-config\n");

    root.remove(kMeshList);
    EXPECT_EQ(cycle(), "") << "nobody started an upgrade";
    telemetry_set_uci_value("telemetry_info", "cloud_info", "is_upgrade", "1", TELEMETRY_UCI_SYSTEM);
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(cycle(), none); }),
                Contains("can not open file: /tmp/sync-server/mesh_dev_list, wait first probe of sync"));
    EXPECT_EQ(mkfifo(root.path(kMeshList).c_str(), 0600), 0);
    telemetry_set_uci_value("telemetry_info", "cloud_info", "is_upgrade", "1", TELEMETRY_UCI_SYSTEM);
    EXPECT_EQ(cycle(), none) << "and does not wait for a writer";
}

TEST_F(CloudInfo, ReportsAutomaticUpgradeWhenItChanges) {
    const auto settings = [](const char *enable, const char *begin, const char *end) {
        return std::string("config a 'setting'\n\toption enable '") + enable +
               "'\nconfig a 'time'\n\toption begin '" + begin + "'\n\toption end '" + end + "'\n";
    };
    const std::string on = settings("on", "3", "5");
    const struct {
        const char *support;
        std::string settings;
        const char *record;
    } story[] = {
        {"no", on, ""},
        {"yes", on, R"({"ase":1,"atb":3,"ate":5})"},
        {"yes", on, ""},
        {"yes", settings("on", "3", "99999999999999999999"), R"({"ase":1,"atb":3,"ate":-1})"},
        {"yes", settings("off", "3", "5"), R"({"ase":0})"},
        {"yes", settings("off", "2", "5"), R"({"ase":0})"},
        {"no", on, ""}, // not compared meanwhile
        {"yes", on, R"({"ase":1,"atb":3,"ate":5})"},
        {"yes", "", R"({"ase":0})"}, // sections without options, below
    };
    for (const auto &one : story) {
        root.write_profile("config auto_upgrade\n\toption support '" + std::string(one.support) + "'\n");
        root.write_config("auto_upgrade",
                          one.settings.empty() ? "config a 'setting'\nconfig a 'time'\n" : one.settings);
        EXPECT_EQ(cycle(), one.record) << one.support << " " << one.settings;
    }
}

} // namespace
