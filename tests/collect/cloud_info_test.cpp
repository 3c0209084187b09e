// What the cloud client and the updater left behind is reported once; upgrades are counted once; settings
// when they change.
#include "collect/cloud_info.h"

#include <gmock/gmock.h>

#include "collect/collectors.h"
#include "sysroot.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_uci.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr char kHeartbeats[] = "/tmp/cloud_heartbeat_timeout_count";
constexpr char kMeshList[] = "/tmp/sync-server/mesh_dev_list";
constexpr char kAutoUpgrade[] = "config a 'setting'\n\toption enable 'on'\n"
                                "config a 'time'\n\toption begin '3'\n\toption end '5'\n";

class CloudInfo : public SysrootTest {
  protected:
    CloudInfo() {
        telemetry_debug_level = TELEMETRY_LOG_ERROR;
        root.write_profile("config auto_upgrade\n\toption support 'yes'\n");
        root.write_backup("");
        root.add_command("saveconfig", "echo \"$@\" >>\"$TELEMETRY_SYSROOT/saved\"");
    }
    // The record of one cycle: payload and count, empty without one.
    std::string cycle() {
        TelemetryCtx ctx = {};
        const JsonPtr list(cJSON_CreateArray());
        telemetry_collect_data_by_module(&ctx, list.get(), "cloud_info", collect_cloud_info);
        const cJSON *record = list->child;
        if (record == nullptr)
            return "";
        EXPECT_EQ(ctx.data_collect_count,
                  static_cast<uint32_t>(cJSON_GetArraySize(cJSON_GetObjectItem(record, "ep"))))
            << "one item a member";
        return telemetry_json_print(cJSON_GetObjectItem(record, "ep")).get();
    }
    void set_mesh(const std::vector<std::pair<const char *, const char *>> &nodes) {
        const JsonPtr list(cJSON_CreateObject());
        for (const auto &[id, version] : nodes)
            cJSON_AddStringToObject(cJSON_AddObjectToObject(list.get(), id), "fw_version", version);
        root.write(kMeshList, telemetry_json_print(list.get()).get() + std::string("\n"));
    }
    void start_upgrade() {
        TestSysroot &files = root;
        std::string text = files.read("/etc/config/telemetry_info");
        files.write_config("telemetry_info", text + "\nconfig c 'cloud_info'\n\toption is_upgrade '1'\n");
    }
    std::string recorded(const char *node) {
        char version[128] = "none";
        telemetry_get_uci_value("telemetry_info", node, "fwver", version, sizeof(version),
                                TELEMETRY_UCI_SYSTEM);
        return version;
    }
};

TEST_F(CloudInfo, ComparesVersions) {
    const struct {
        const char *current, *newer;
        int result;
        const char *message;
    } cases[] = {
        {"1.2.10 Build 20240101", "1.2.9 Build 20250101", -1, "curFw_ver is newer"},
        {"1.2.9 Build 20250101", "1.2.10 Build 20240101", 1, "newFw_ver is newer"},
        {"1.2", "1.2.0", 0, "curFw_ver is same to newFw_ver"},
        {"1.2.3 Build 1", "1.2.3 Build 2", 0, "curFw_ver is same to newFw_ver"},
        {"1.9.9", "2.0.0", 1, "newFw_ver is newer"},
        {"1.3.0", "1.2.9", -1, "curFw_ver is newer"},
        {"", "0.0.1", 1, "newFw_ver is newer"},
        {"garbage", "", 0, "curFw_ver is same to newFw_ver"},
        {nullptr, "1", 1, "cur_fwver is nil, newFw_ver is newer"},
        {"1", nullptr, -1, "newFw_ver is nil, curFw_ver is newer"},
        {nullptr, nullptr, 0, "both fwver are nil, curFw_ver is same to newFw_ver"},
    };
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    for (const auto &one : cases) {
        const auto said =
            logged_messages([&] { EXPECT_EQ(telemetry_compare_fwver(one.current, one.newer), one.result); });
        EXPECT_EQ(said.back(), one.message);
    }
    EXPECT_THAT(logged_messages([] { telemetry_compare_fwver("1.2.10 Build", "3"); }),
                Contains(" (curFw_ver, newFw_ver) == (1.2.10, 3.0.0) "));
}

TEST_F(CloudInfo, ReportsHeartbeatTimeoutsAndStartsAnew) {
    const struct {
        const char *content, *record, *left;
    } cases[] = {
        {"7\n", R"({"tch":7})", "0\n"},
        {"7", R"({"tch":7})", "0\n"},
        {"123\n", R"({"tch":123})", "0\n3\n"}, // the start of the file only
        {"0", "", "0"},
        {"-3\n", "", "-3\n"},
        {"", "", ""},
        {"many\n", "", "many\n"},
    };
    for (const auto &one : cases) {
        root.write(kHeartbeats, one.content);
        EXPECT_EQ(cycle(), one.record) << one.content;
        EXPECT_EQ(root.read(kHeartbeats), one.left) << one.content;
    }
    root.remove(kHeartbeats);
    EXPECT_EQ(cycle(), "");
    std::filesystem::create_directories(root.path(kHeartbeats));
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(cycle(), ""); }),
                Contains("open file /tmp/cloud_heartbeat_timeout_count failed"));
}

TEST_F(CloudInfo, ReportsOneShotsOnce) {
    root.write_config("telemetry_info",
                      "config c 'systime_info'\n\toption is_get_dstrule 'true'\n"
                      "config c 'cloud_info'\n\toption is_find_fw 'on'\n\toption is_new_fw '0'\n"
                      "\toption start_timestamp '1700000000123'\n\toption download_time '12.5'\n"
                      "\toption other 'stays'\n");
    EXPECT_EQ(cycle(), R"({"tsd":1,"tcf":1,"tcn":0,"tcs":1700000000123.00,"tcd":12.50})");
    const std::string left = root.read("/etc/config/telemetry_info");
    for (const char *option :
         {"is_get_dstrule", "is_find_fw", "is_new_fw", "start_timestamp", "download_time"})
        EXPECT_THAT(left, Not(HasSubstr(option)));
    EXPECT_THAT(left, HasSubstr("stays"));
    EXPECT_EQ(cycle(), "");
    root.write_config("telemetry_info", std::string(100000, '\''));
    EXPECT_EQ(cycle(), "");
}

TEST_F(CloudInfo, CountsAnUpgradeOfOneNodeOnce) {
    root.write_config("telemetry_info", "config d 'A'\n\toption fwver '1.2.9 Build 1'\n"
                                        "config d 'B'\n\toption fwver '1.2.9 Build 1'\n");
    set_mesh({{"A", "1.2.9 Build 1"}, {"B", "1.2.10 Build 2"}, {"C", "9.9.9"}});
    EXPECT_EQ(cycle(), "") << "nobody started an upgrade";
    start_upgrade();
    EXPECT_EQ(cycle(), R"({"tcu":1,"tus":1})");
    EXPECT_EQ(recorded("A"), "1.2.9 Build 1");
    EXPECT_EQ(recorded("B"), "1.2.10 Build 2");
    EXPECT_EQ(recorded("C"), "none") << "a record is never made here";
    EXPECT_EQ(root.read("/saved"), "user-config\n");
    start_upgrade();
    EXPECT_EQ(cycle(), R"({"tcu":1,"tus":0})");
    set_mesh({{"B", "1.2.8"}});
    start_upgrade();
    EXPECT_EQ(cycle(), R"({"tcu":1,"tus":0})");
    EXPECT_EQ(recorded("B"), "1.2.10 Build 2") << "a step back is no upgrade";
    EXPECT_EQ(root.read("/saved"), "user-config\n");
}

TEST_F(CloudInfo, CopesWithBadMeshLists) {
    root.write_config("telemetry_info", "config d 'A'\n\toption fwver '1.0.0'\n");
    const std::string late = std::string(17000, ' ') + R"({"A":{"fw_version":"2.0.0"}})";
    const struct {
        std::string list;
        const char *record;
        std::vector<std::string> messages;
    } cases[] = {
        {"", R"({"tcu":1})", {"can not parse cJSON"}},
        {"{\"A\":{\"fw_ver", R"({"tcu":1})", {"can not parse cJSON"}},
        {late, R"({"tcu":1})", {"can not parse cJSON"}}, // beyond what is read of the line
        {"[]", R"({"tcu":1,"tus":0})", {}},
        {R"({"A":{"fw_version":2},"B":7,"":{"fw_version":"1"}})", R"({"tcu":1,"tus":0})", {"param error"}},
        {"{\"A\":{\"fw_version\":\"2.0.0\"}}\nnot looked at", R"({"tcu":1,"tus":1})", {}},
    };
    root.write_profile("");
    for (const auto &one : cases) {
        root.write(kMeshList, one.list);
        start_upgrade();
        std::vector<std::string> said;
        for (const std::string &message :
             logged_messages([&] { EXPECT_EQ(cycle(), one.record) << one.list; }))
            said.push_back(message);
        EXPECT_EQ(said, one.messages) << one.list.substr(0, 60);
    }
    root.remove(kMeshList);
    start_upgrade();
    EXPECT_THAT(logged_messages([&] { EXPECT_EQ(cycle(), R"({"tcu":1})"); }),
                Contains("can not open file: /tmp/sync-server/mesh_dev_list, wait first probe of sync"));
}

TEST_F(CloudInfo, ReportsAutomaticUpgradeWhenItChanges) {
    const std::string on = kAutoUpgrade;
    std::string later = on, off = on, off_later;
    later.replace(later.find("'5'"), 3, "'6'");
    off.replace(off.find("'on'"), 4, "'off'");
    off_later = off;
    off_later.replace(off_later.find("'3'"), 3, "'2'");
    const struct {
        const char *support;
        std::string settings;
        const char *record;
    } story[] = {
        {"no", on, ""},
        {"yes", on, R"({"ase":1,"atb":3,"ate":5})"},
        {"yes", on, ""},
        {"yes", later, R"({"ase":1,"atb":3,"ate":6})"},
        {"yes", off, R"({"ase":0})"},
        {"yes", off, ""},
        {"yes", off_later, R"({"ase":0})"},
        {"no", on, ""},
        {"", on, ""}, // no profile
        {"yes", on, R"({"ase":1,"atb":3,"ate":5})"},
        {"yes", "", ""}, // the package is gone: nothing can be read of it
    };
    int step = 0;
    for (const auto &one : story) {
        root.remove("/etc/profile.d/profile");
        if (*one.support != '\0')
            root.write_profile("config auto_upgrade\n\toption support '" + std::string(one.support) + "'\n");
        root.write_config("auto_upgrade", one.settings);
        if (one.settings.empty())
            root.remove("/etc/config/auto_upgrade");
        EXPECT_EQ(cycle(), one.record) << "step " << step;
        ++step;
    }
}

TEST_F(CloudInfo, SaysWhatItDoes) {
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    root.write_config("telemetry_info", "config c 'cloud_info'\n\toption is_upgrade '1'\n");
    root.write_config("auto_upgrade", kAutoUpgrade);
    root.write(kHeartbeats, "0\n");
    set_mesh({{"A", "1.0.0"}});
    const auto said = logged_messages([&] { cycle(); });
    std::vector<std::string> own;
    for (const char *message :
         {"get heartbeat timeout count 0",
          "collect cloud action info successfully, now data collect count is: 0!", "is upgrade:1!",
          "collect cloud fw info successfully, now data collect count is: 1!", "some devices try to upgrade!",
          "fwver of device A is :1.0.0", "upgrade_dev_num:0", "auto enable:1!",
          "collect auto fw info successfully, now now data collect count is: 5!"})
        own.push_back(message);
    size_t next = 0;
    for (const std::string &message : said)
        next += next < own.size() && message == own[next] ? 1 : 0;
    EXPECT_EQ(next, own.size()) << "in this order; missing: " << (next < own.size() ? own[next] : "");
}

} // namespace
