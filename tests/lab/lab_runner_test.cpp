// The lab cleans up after itself however it ends, and its verdicts.
#include <csignal>
#include <filesystem>

#include <gtest/gtest.h>

#include "lab.h"

namespace {

// Processes that belong to the lab in `directory`: its name is in their arguments or their environment.
int processes_of(const std::string &directory) {
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        const std::string process = entry.path();
        const std::string texts = lab::read_file(process + "/cmdline") + lab::read_file(process + "/environ");
        const bool zombie = lab::read_file(process + "/stat").find(") Z ") != std::string::npos;
        count += !zombie && texts.find(directory) != std::string::npos;
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
    ASSERT_TRUE(lab::wait_until([&] { return up() || !runner.running(); }, 60000) && up())
        << lab::read_file(output);

    std::string text = lab::read_file(output);
    std::string directory = text.substr(text.find("/tmp/tl-"), 14);
    ASSERT_TRUE(lab::file_exists(directory + "/n0/var/run/ubus.sock"));
    ASSERT_GE(processes_of(directory), 3); // cloud, bus, daemon

    // A daemon that somebody kills is told of and started again.
    kill(std::stoi(lab::read_file(directory + "/n0/lab/daemon.pid")), SIGKILL);
    lab::write_file(directory + "/n0/lab/start", "");
    const auto told = [&] { return lab::read_file(output).find("started again") != std::string::npos; };
    EXPECT_TRUE(lab::wait_until(told, 10000)) << lab::read_file(output);

    runner.signal(GetParam());
    int exit = runner.wait(20000);
    EXPECT_EQ(exit, GetParam() == SIGKILL ? -SIGKILL : 0) << lab::read_file(output);
    EXPECT_TRUE(
        lab::wait_until([&] { return !lab::file_exists(directory) && processes_of(directory) == 0; }, 10000));
}

INSTANTIATE_TEST_SUITE_P(Signals, LabRunnerTest, testing::Values(SIGINT, SIGKILL));

// The verdicts of a short day, and of an upload to a service that is not the lab's.
TEST(LabVerdictTest, DayAndOtherCloud) {
    lab::RunDirectory own;
    lab::LabCloud cloud;
    cloud.start(lab::default_bin_dir(), own.path());
    const std::string url = "https://" + cloud.address(), ca = own.path() + "/ca.cer";
    const std::pair<std::vector<std::string>, const char *> cases[] = {
        {{"--day", "--cycles", "3"}, "a day has passed: 3 cycles, 1 uploads"},
        {{"--cloud", url, "--ca", ca}, "items, all signatures valid: the cloud accepted them"}};
    for (const auto &[options, verdict] : cases) {
        std::vector<std::string> command = {lab::default_bin_dir() + "/lab-runner", "--once"};
        command.insert(command.end(), options.begin(), options.end());
        const lab::CommandResult result = lab::run_command(command, {}, 120000);
        EXPECT_EQ(result.status, 0) << result.out;
        EXPECT_NE(result.out.find(verdict), std::string::npos) << result.out;
    }
    EXPECT_EQ(cloud.count("posts"), 1);
}

} // namespace
