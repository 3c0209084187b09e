// The lab cleans up after itself however it ends, and reads what people write into scenarios and configurations.
#include <csignal>
#include <filesystem>
#include <map>
#include <set>

#include <gtest/gtest.h>

#include "lab.h"
#include "lab_config.h"
#include "lab_root.h"

namespace {

// Processes that belong to the lab in `directory`: its name is in their arguments or their environment.
int processes_of(const std::string &directory) {
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        std::string process = entry.path();
        std::string state = lab::read_file(process + "/stat");
        bool zombie = state.find(") Z ") != state.npos;
        count += !zombie && (lab::read_file(process + "/cmdline").find(directory) != std::string::npos ||
                             lab::read_file(process + "/environ").find(directory) != std::string::npos);
    }
    return count;
}

class LabRunnerTest : public testing::TestWithParam<int> {};

TEST_P(LabRunnerTest, LeavesNothingBehindWhateverEndsIt) {
    lab::RunDirectory own;
    std::string output = own.path() + "/output";
    lab::Process runner;
    runner.start({{lab::default_bin_dir() + "/lab-runner", "--scenario", "one"}, {}, output});
    auto up = [&] { return lab::read_file(output).find("Ctrl-C ends the lab") != std::string::npos; };
    ASSERT_TRUE(lab::wait_until([&] { return up() || !runner.running(); }, 60000) && up()) << lab::read_file(output);

    std::string text = lab::read_file(output);
    std::string directory = text.substr(text.find("/tmp/tl-"), 14);
    ASSERT_TRUE(lab::file_exists(directory + "/n0/var/run/ubus.sock"));
    ASSERT_GE(processes_of(directory), 3); // cloud, bus, daemon

    runner.signal(GetParam());
    int exit = runner.wait(20000);
    EXPECT_EQ(exit, GetParam() == SIGKILL ? -SIGKILL : 0) << lab::read_file(output);
    EXPECT_TRUE(lab::wait_until([&] { return !lab::file_exists(directory) && processes_of(directory) == 0; }, 10000));
}

INSTANTIATE_TEST_SUITE_P(Signals, LabRunnerTest, testing::Values(SIGINT, SIGTERM, SIGKILL));

TEST(LabScenarioTest, ShippedScenariosHoldWhatTheyPromise) {
    const std::map<std::string, std::pair<size_t, size_t>> sizes = {
        {"one", {1, 5}}, {"home", {3, 25}}, {"large", {9, 512}}};
    for (const auto &[name, size] : sizes) {
        lab::Scenario scenario = lab::scenario_load(name);
        EXPECT_EQ(scenario.nodes.size(), size.first) << name;
        EXPECT_EQ(scenario.clients.size(), size.second) << name;
        std::set<std::string> macs;
        std::map<std::string, int> stations;
        for (const lab::ScenarioClient &client : scenario.clients) {
            EXPECT_TRUE(macs.insert(client.mac).second) << client.mac;
            if (!client.interface.empty()) {
                EXPECT_LE(++stations[client.node + client.interface], 64) << name; // what one station table holds
            }
        }
        // Longer files are cut by their readers and are no JSON any more.
        EXPECT_LT(lab::root_satellite_clients(scenario).size(), 65535u) << name;
        EXPECT_LT(lab::root_mesh_device_list(scenario).size(), 16384u) << name;
    }
}

TEST(LabScenarioTest, SaysWhatIsWrong) {
    const std::pair<const char *, const char *> cases[] = {
        {"{", "not JSON"},
        {"{}", "main node first"},
        {R"({"nodes":[{"device_id":"a b"}]})", "letters, digits"},
        {R"({"nodes":[{"device_id":"A"},{"device_id":"A"}]})", "two nodes"},
        {R"({"nodes":[{"device_id":"A"},{"device_id":"B","parent":"C"}]})", "unknown node C"},
        {R"({"nodes":[{"device_id":"A"}],"clients":[{"mac":"m","node":"B"}]})", "client m"},
    };
    for (const auto &[text, message] : cases) {
        try {
            lab::scenario_parse(text);
            ADD_FAILURE() << text;
        } catch (const std::runtime_error &error) {
            EXPECT_NE(std::string(error.what()).find(message), std::string::npos) << error.what();
        }
    }
}

TEST(LabConfigTest, ReadsWhatItWritesAndMergesSections) {
    lab::ConfigPackage package;
    lab::JsonTree wish = lab::parse_json(
        R"({"ap":{"ssid":"it's","days":["mon","tue"],"on":true,"n":12},"@eth":{"port":1},"gone":{"x":1}})", "wish");
    lab::config_merge(package, wish.get());
    wish = lab::parse_json(R"({"ap":{"_type":"ignored","n":null,"on":false},"gone":null})", "wish");
    lab::config_merge(package, wish.get());
    std::string text = lab::config_print(package);
    EXPECT_EQ(text, "\nconfig ap 'ap'\n\toption ssid 'it'\\''s'\n\tlist days 'mon'\n\tlist days 'tue'\n"
                    "\toption on '0'\n\nconfig eth\n\toption port '1'\n\n");
    EXPECT_EQ(lab::config_print(lab::config_parse(text)), text);
    EXPECT_EQ(lab::config_parse(text).get("ap", "days"), "mon tue");
}

} // namespace
