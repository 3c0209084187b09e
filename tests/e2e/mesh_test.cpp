// The mesh end to end: real daemons on every node of the home scenario, and services that misbehave. However
// a cycle went, it ends, what it cannot know it leaves out, the next one is whole again, and the daemon ends
// without a leak.
#include <algorithm>
#include <cstring>
#include <thread>

#include <gmock/gmock.h>

#include "home_lab.h"

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

constexpr char kReList[] = "/tmp/client_mgmt/re_client_list";

class MeshTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        // The asking node cannot answer itself anyway: no time is lost with waiting for it.
        const lab::Scenario scenario = home_scenario();
        const lab::JsonTree limit = lab::parse_json(R"({"sync":{"own_limit_ms":20}})", "limit");
        merge_json(scenario.json.get(), limit.get());
        home = new HomeLab(lab::scenario_parse(lab::print_json(scenario.json.get())));
        const auto records = home->cycle();
        whole_clients = payload(records, "client_info");
        whole_devices = payload(records, "device_info");
        whole_figures = payload(records, "system_info");
    }
    // A daemon built with sanitizers ends with another status when something was not given back.
    static void TearDownTestSuite() {
        for (size_t i = 0; i < home->lab.node_count(); ++i)
            EXPECT_EQ(home->lab.node(i).daemon.stop(), 0) << home->lab.node(i).read("/lab/daemon.log");
        delete home;
    }
    static std::string payload(const std::vector<UploadedRecord> &records, const std::string &eid) {
        for (const UploadedRecord &record : records) {
            if (record.eid == eid)
                return record.text;
        }
        return {};
    }
    // Parent's digest in the entry of a node, which only its own daemon can tell.
    static bool has_satellite_data(const std::string &devices, int index) {
        const lab::JsonTree tree(cJSON_Parse(devices.c_str()));
        const cJSON *entry = cJSON_GetArrayItem(cJSON_GetObjectItem(tree.get(), "dl"), index);
        return cJSON_GetArraySize(cJSON_GetObjectItem(entry, "bh")) > 0;
    }
    static void expect_whole_again() {
        const auto records = home->cycle();
        EXPECT_EQ(payload(records, "client_info"), whole_clients);
        EXPECT_EQ(payload(records, "device_info"), whole_devices);
    }
    // Calls of the main node's services that were left without an answer so far, as faults wanted it.
    static int unanswered_calls() {
        const std::string log = node().read("/lab/services.log");
        int count = 0;
        for (size_t at = log.find(", as told"); at != log.npos; at = log.find(", as told", at + 1))
            count++;
        return count;
    }
    // A cycle in which the daemon's clock passes the 50 s of a call without answer at once, and not before.
    static std::vector<UploadedRecord> hurried_cycle() {
        std::jthread hurry([&](const std::stop_token &over) {
            for (int passed = unanswered_calls(); !over.stop_requested(); usleep(5000)) {
                if (unanswered_calls() == passed)
                    continue;
                passed++;
                node().advance_clock(49000);
                usleep(100000);
                EXPECT_EQ(unanswered_calls(), passed);
                node().advance_clock(1000);
            }
        });
        return home->cycle();
    }
    static lab::LabNode &node(size_t index = 0) {
        return home->lab.node(index);
    }
    static inline HomeLab *home;
    static inline std::string whole_clients, whole_devices, whole_figures;
};

TEST_F(MeshTest, SatellitesAnswerForThemselves) {
    EXPECT_TRUE(has_satellite_data(whole_devices, 1));
    EXPECT_TRUE(has_satellite_data(whole_devices, 2));
    const lab::JsonTree system(cJSON_Parse(whole_figures.c_str()));
    const cJSON *nodes = cJSON_GetObjectItem(system.get(), "sl");
    ASSERT_EQ(cJSON_GetArraySize(nodes), 3);
    const cJSON *entry = nullptr;
    int duration = 120;
    cJSON_ArrayForEach(entry, nodes) {
        EXPECT_EQ(lab::json_number(entry, "lad"), duration) << whole_figures;
        EXPECT_GT(lab::json_number(entry, "mt"), 0);
        duration += 10;
    }

    // What changes at a satellite is seen by the next cycle: its ports, its delay, its driver, its services.
    const std::string driver = node(1).read("/tmp/fakewifi.json");
    std::string changed = driver;
    const size_t rate = changed.find("\"tx\":1722");
    ASSERT_NE(rate, changed.npos);
    changed.replace(rate, 9, "\"tx\":1111");
    node(1).write("/tmp/fakewifi.json", changed);
    node(1).write("/lab/board/ports/2/link", "0\n");
    node(1).write("/lab/board/ping/default", "9.25");
    const std::string devices = payload(home->cycle(), "device_info");
    const lab::JsonTree tree(cJSON_Parse(devices.c_str()));
    const cJSON *kitchen = cJSON_GetArrayItem(cJSON_GetObjectItem(tree.get(), "dl"), 1);
    EXPECT_EQ(lab::json_number(kitchen, "wpn"), 1) << devices;
    EXPECT_THAT(devices, HasSubstr("1111"));
    EXPECT_THAT(devices, HasSubstr("9.25"));
    node(1).write("/tmp/fakewifi.json", driver);
    node(1).write("/lab/board/ports/2/link", "1\n");
    node(1).write("/lab/board/ping/default", "1.600");
    expect_whole_again();
}

TEST_F(MeshTest, ASatelliteWithoutDaemonIsLeftOut) {
    node(2).daemon.kill();
    const auto records = home->cycle();
    const std::string devices = payload(records, "device_info");
    EXPECT_TRUE(has_satellite_data(devices, 1));
    EXPECT_FALSE(has_satellite_data(devices, 2));
    EXPECT_THAT(payload(records, "client_info"), Not(IsEmpty()));
    node(2).start_daemon();
    ASSERT_TRUE(node(2).wait_for_object("telemetry", kHomeWaitMs));
    expect_whole_again();
}

enum Wanted { ANY, NO, SOME, WHOLE };

static void expect_payload(const std::string &text, const std::string &whole, Wanted wanted) {
    if (wanted == WHOLE) {
        EXPECT_EQ(text, whole);
    } else if (wanted != ANY) {
        EXPECT_EQ(text.empty(), wanted == NO) << text;
    }
}

// Each fault's cycle is also the one after the fault before: what is whole in it was not spoilt by that.
TEST_F(MeshTest, FaultsCostTheirCycleNoMoreThanTheyMust) {
    struct Row {
        const char *faults;
        Wanted clients, satellites; // what the cycle has of them
    };
    const Row rows[] = {
        {R"({"sync":{"kind":"absent"}})", NO, NO},
        {R"({"tfstats":{"kind":"huge"},"sync.request":{"kind":"slow","delay_ms":300}})", SOME, WHOLE},
        {R"({"sync.request":{"kind":"status"}})", SOME, NO},
        {R"({"sync.list":{"kind":"garbage"}})", ANY, WHOLE},
        {R"({"sync.request":{"kind":"empty"},"client_mgmt":{"kind":"garbage"}})", ANY, NO},
        {R"({"sync.list":{"kind":"nonsense"}})", SOME, WHOLE},
        {R"({"sync.request":{"kind":"nonsense"}})", SOME, NO},
        {R"({"sync.list":{"kind":"die"}})", NO, WHOLE},
        {R"({"sync.request":{"kind":"garbage"}})", SOME, NO},
        {R"({"tfstats":{"kind":"types"}})", NO, WHOLE},
        {R"({"sync.request":{"kind":"types"}})", SOME, NO},
        {R"({"client_mgmt":{"kind":"huge"}})", SOME, WHOLE},
        {R"({"sync.request":{"kind":"huge"}})", SOME, ANY},
        {R"({"client_mgmt.get":{"kind":"die"}})", NO, WHOLE},
        {R"({"sync.request":{"kind":"die"}})", NO, NO},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.faults);
        node().set_faults(row.faults);
        // An object that is to vanish does so on its own time.
        if (strstr(row.faults, "absent") != nullptr) {
            ASSERT_TRUE(lab::wait_until([] { return !node().wait_for_object("sync", 0); }, kHomeWaitMs));
        }
        const auto records = hurried_cycle();
        expect_payload(payload(records, "client_info"), whole_clients, row.clients);
        const std::string devices = payload(records, "device_info");
        if (row.satellites == WHOLE) {
            EXPECT_EQ(devices, whole_devices);
        } else if (row.satellites == NO) {
            EXPECT_FALSE(has_satellite_data(devices, 1)) << devices;
        }
        EXPECT_THAT(devices, Not(IsEmpty()));
        EXPECT_THAT(payload(records, "system_info"), Not(IsEmpty()));
        node().set_faults("{}");
        if (!node().services.running())
            node().start_services();
        ASSERT_TRUE(node().wait_for_object("sync", kHomeWaitMs));
        ASSERT_TRUE(node().wait_for_object("tfstats", kHomeWaitMs));
    }
    expect_whole_again();
}

TEST_F(MeshTest, SatellitesClientFile) {
    const std::string file = node().read(kReList);
    for (const bool absent : {true, false}) {
        if (absent)
            node().remove(kReList);
        else // its end is cut
            node().write(kReList, "[" + std::string(65537 - file.size(), ' ') + file.substr(1));
        const auto records = home->cycle();
        EXPECT_THAT(payload(records, "client_info"), IsEmpty());
        EXPECT_EQ(payload(records, "device_info"), whole_devices);
    }
    node().write(kReList, file);
    expect_whole_again();
}

// A call that nobody answers is given up after its time.
TEST_F(MeshTest, SyncThatNeverAnswersIsGivenUp) {
    node().set_faults(R"({"sync.request":{"kind":"silent"}})");
    const size_t before = node().console().size();
    const auto records = hurried_cycle();
    EXPECT_FALSE(has_satellite_data(payload(records, "device_info"), 1));
    EXPECT_THAT(payload(records, "client_info"), Not(IsEmpty()));
    const std::string log = node().console(before);
    for (const char *message :
         {"ubus invoke failed.", "get RE info failed", "get RE sta list error", "get re system info failed"})
        EXPECT_THAT(log, HasSubstr(message));
    node().set_faults("{}");
    expect_whole_again();
}

// Its clients' record is longer than the daemon keeps, so the snapshot is read from the dump.
TEST(LargeMesh, KnowsEveryClientOfNineNodes) {
    lab::Lab large("large");
    for (size_t i = 0; i < large.node_count(); ++i)
        large.node(i).advance_clock(0);
    large.start();
    lab::LabNode &node = large.node();
    ASSERT_TRUE(node.wait_for_state("post state", lab::kReadyForUpload, kHomeWaitMs));
    node.call("debug", R"({"level":"debug"})");
    node.call("collect_all_next_time");
    node.call("collect_now");
    ASSERT_TRUE(node.wait_for_console("client index : 511 end", kHomeWaitMs));
    const std::string dump = node.console();
    const auto lines = [&](const std::string &text) {
        long count = 0;
        for (size_t at = dump.find(text + "\n"); at != dump.npos; at = dump.find(text + "\n", at + 1))
            count++;
        return count;
    };
    const auto &clients = large.scenario().clients;
    const auto wired = std::count_if(clients.begin(), clients.end(), [](const lab::ScenarioClient &client) {
        return client.interface.empty();
    });
    EXPECT_EQ(lines("is_exist : 1"), 512);
    EXPECT_EQ(lines("pymode:4294967295"), wired); // the others' came from the driver of their node
    EXPECT_EQ(lines("is_iotdevice : 1"), 96);
    EXPECT_EQ(lines("ap mac : "), 0);
    EXPECT_EQ(lines("backhaul_type:5G"), 8);
    for (size_t i = 0; i < large.node_count(); ++i)
        EXPECT_EQ(large.node(i).daemon.stop(), 0) << large.node(i).read("/lab/daemon.log");
}

} // namespace
