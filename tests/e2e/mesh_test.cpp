// The mesh end to end: real daemons on every node of the home scenario, and services that misbehave. However
// a cycle went, it ends, what it cannot know it leaves out, the next one is whole again, and the daemon ends
// without a leak.
#include <gmock/gmock.h>

#include "home_lab.h"

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

enum Wanted { ANY, NO, SOME, WHOLE };

class MeshTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        // The asking node cannot answer itself anyway: no time is lost with waiting for it.
        home = new HomeLab(R"({"sync":{"own_limit_ms":20}})");
        home->cycle(); // tells what is told once
        const auto records = home->cycle();
        whole_clients = payload(records, "client_info");
        whole_devices = payload(records, "device_info");
        whole_internet = payload(records, "internet_info");
        whole_figures = payload(records, "system_info");
    }
    static void TearDownTestSuite() {
        EXPECT_EQ(home->stop(), "");
        delete home;
    }
    // Parent's digest in the entry of a node, which only its own daemon can tell.
    static bool has_satellite_data(const std::string &devices, int index) {
        const lab::JsonTree tree(cJSON_Parse(devices.c_str()));
        const cJSON *entry = cJSON_GetArrayItem(cJSON_GetObjectItem(tree.get(), "dl"), index);
        return cJSON_GetArraySize(cJSON_GetObjectItem(entry, "bh")) > 0;
    }
    static void expect_payload(const std::string &text, const std::string &whole, Wanted wanted) {
        if (wanted == WHOLE) {
            EXPECT_EQ(text, whole);
        } else if (wanted != ANY) {
            EXPECT_EQ(text.empty(), wanted == NO) << text;
        }
    }
    static void expect_whole_again() {
        const auto records = home->cycle();
        EXPECT_EQ(payload(records, "client_info"), whole_clients);
        EXPECT_EQ(payload(records, "device_info"), whole_devices);
        EXPECT_EQ(payload(records, "internet_info"), whole_internet);
    }
    static lab::LabNode &node(size_t index = 0) {
        return home->lab.node(index);
    }
    static inline HomeLab *home;
    static inline std::string whole_clients, whole_devices, whole_figures, whole_internet;
};

TEST_F(MeshTest, SatellitesAnswerForThemselves) {
    EXPECT_TRUE(has_satellite_data(whole_devices, 1));
    EXPECT_TRUE(has_satellite_data(whole_devices, 2));
    EXPECT_THAT(whole_internet, StartsWith(R"({"up":1,"ut":86400,"u6":1,"rb":73124881932.00,)"));
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

    // What changes at a satellite is seen by the next cycle: its ports, its delay, its driver. Where no
    // daemon answers, nothing is.
    const std::string driver = node(1).read("/tmp/fakewifi.json");
    std::string changed = driver;
    const size_t rate = changed.find("\"tx\":1722");
    ASSERT_NE(rate, changed.npos);
    node(1).write("/tmp/fakewifi.json", changed.replace(rate, 9, "\"tx\":1111"));
    node(1).write("/lab/board/ports/2/link", "0\n");
    node(1).write("/lab/board/ping/default", "9.25");
    node(2).daemon.kill();
    const auto records = home->cycle();
    const std::string devices = payload(records, "device_info");
    const lab::JsonTree tree(cJSON_Parse(devices.c_str()));
    const cJSON *kitchen = cJSON_GetArrayItem(cJSON_GetObjectItem(tree.get(), "dl"), 1);
    EXPECT_EQ(lab::json_number(kitchen, "wpn"), 1) << devices;
    EXPECT_THAT(devices, HasSubstr("1111"));
    EXPECT_THAT(devices, HasSubstr("9.25"));
    EXPECT_FALSE(has_satellite_data(devices, 2));
    EXPECT_THAT(payload(records, "client_info"), Not(IsEmpty()));
    node(1).write("/tmp/fakewifi.json", driver);
    node(1).write("/lab/board/ports/2/link", "1\n");
    node(1).write("/lab/board/ping/default", "1.600");
    node(2).start_daemon();
    ASSERT_TRUE(node(2).wait_for_object("telemetry", HomeLab::kWaitMs));
    expect_whole_again();
}

// Each fault's cycle is also the one after the fault before: what is whole in it was not spoilt by that.
TEST_F(MeshTest, FaultsCostTheirCycleNoMoreThanTheyMust) {
    struct Row {
        std::string faults;
        Wanted clients, satellites; // what the cycle has of them
        std::string network;        // fault of the network daemon meanwhile
        Wanted internet;
    };
    const Row rows[] = {
        {R"("sync":{"kind":"absent"})", NO, NO, "absent", NO},
        {R"("tfstats":{"kind":"huge"},"sync.request":{"kind":"slow","delay_ms":300})", SOME, WHOLE, "",
         WHOLE},
        {R"("sync.request":{"kind":"status"})", SOME, NO, "status", NO},
        {R"("sync.list":{"kind":"garbage"})", ANY, WHOLE, "types", NO},
        {R"("sync.request":{"kind":"empty"},"client_mgmt":{"kind":"garbage"})", ANY, NO, "", WHOLE},
        {R"("sync.request":{"kind":"nonsense"})", SOME, NO, "garbage", NO},
        {R"("sync.list":{"kind":"die"})", NO, WHOLE, "", ANY},
        {R"("sync.request":{"kind":"garbage"})", SOME, NO, "no_data", NO},
        {R"("tfstats":{"kind":"types"})", NO, WHOLE, "huge", SOME},
        {R"("sync.request":{"kind":"huge"})", SOME, ANY, "", WHOLE},
        {R"("client_mgmt.get":{"kind":"die"})", NO, WHOLE, "", ANY},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.faults);
        const std::string network = R"(":{"kind":")" + row.network + R"("},)";
        node().set_faults("{" +
                          (row.network.empty()
                               ? ""
                               : "\"network.interface.wan" + network + "\"network.interface.wan6" + network) +
                          row.faults + "}");
        // An object that is to vanish does so on its own time.
        if (row.network == "absent") {
            ASSERT_TRUE(lab::wait_until([] { return !node().wait_for_object("sync", 0); }, HomeLab::kWaitMs));
        }
        const auto records = home->cycle();
        const std::string devices = payload(records, "device_info");
        expect_payload(payload(records, "client_info"), whole_clients, row.clients);
        const std::string internet = payload(records, "internet_info");
        if (row.internet == NO) // the delays to hosts of the configuration stay
            EXPECT_EQ(internet, R"({"d4":4.25,"d6":5.50})");
        else
            expect_payload(internet, whole_internet, row.internet);
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
        ASSERT_TRUE(node().wait_for_object("sync", HomeLab::kWaitMs));
        ASSERT_TRUE(node().wait_for_object("network.interface.wan6", HomeLab::kWaitMs));
    }
    expect_whole_again();
}

} // namespace
