// The upload end to end: the daemon, its bus and the lab's cloud, over TLS. The daemon's clock is moved to
// what it waits for, so that no test waits itself.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "lab.h"

using ::testing::Contains;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr int kWaitMs = 30000;

class UploadTest : public ::testing::Test {
  protected:
    UploadTest() {
        node.advance_clock(0);
    }

    void TearDown() override {
        if (!HasFailure()) {
            EXPECT_EQ(node.daemon.stop(), 0);
            return;
        }
        printf("%s%s", node.log().c_str(), node.read("/lab/daemon.log").c_str());
    }

    void start_with_key() {
        node.set_config("telemetry", "cloud", "accessKey", "ak-known");
        node.set_config("telemetry", "cloud", "accessSecret", "known secret");
        cloud.add_key("ak-known", "known secret");
        lab.start();
    }

    void expect_ready() {
        ASSERT_TRUE(node.wait_for_state("post state", lab::kReadyForUpload, kWaitMs));
    }

    void order(const char *method) {
        const lab::BusReply reply = node.call(method);
        ASSERT_EQ(reply.status, 0) << method << " " << reply.text;
    }

    // One cycle, so that there is something to upload.
    void collect() {
        order("collect_all_next_time");
        order("collect_now");
        ASSERT_TRUE(lab::wait_until([&] { return node.number("data_collect_count") > 0; }, kWaitMs));
    }

    // Moves the clock to the retry after the failure that was just counted, or after the fifth to the next
    // upload.
    void advance_to_retry() {
        auto state = node.state();
        const bool gave_up = state["post retry count"] == "0" && state["post state"] == lab::kReadyForUpload;
        node.advance_clock(atol(state[gave_up ? "post_interval" : "post_retry_interval"].c_str()));
    }

    // Runs into one failure after the other; each must be logged as told and cost no record.
    void expect_failures(const std::vector<const char *> &messages) {
        const long held = node.number("data_collect_count");
        for (const char *message : messages) {
            SCOPED_TRACE(message);
            const size_t before = node.count_in_console(message);
            const long retries = node.number("post retry count");
            advance_to_retry();
            ASSERT_TRUE(lab::wait_until([&] { return node.count_in_console(message) > before; }, kWaitMs));
            ASSERT_TRUE(lab::wait_until([&] { return node.number("post retry count") == (retries + 1) % 5; },
                                        kWaitMs));
            // Not fewer: a collection cycle may have been due as well.
            EXPECT_GE(node.number("data_collect_count"), held);
        }
    }

    void expect_upload(long posts) {
        ASSERT_TRUE(cloud.wait_for_count("posts", posts, kWaitMs));
        EXPECT_TRUE(node.wait_for_state("data_collect_count", "0", kWaitMs));
        EXPECT_EQ(node.number("post retry count"), 0);
        EXPECT_EQ(cloud.count("invalid_signatures"), 0);
    }

    lab::Lab lab;
    lab::LabCloud &cloud = lab.cloud();
    lab::LabNode &node = lab.node();
};

TEST_F(UploadTest, first_start_gets_key_and_strategy_and_uploads) {
    cloud.set_strategy("s-7",
                       "collect_interval_strategy1=20,collect_interval_strategy2=600,post_interval=30\n");
    lab.start();
    expect_ready();
    ASSERT_EQ(cloud.requests().size(), 2U);
    const lab::CloudRequest key = cloud.requests()[0], strategy = cloud.requests()[1];
    const std::string id = lab.scenario().nodes[0].device_id;
    EXPECT_EQ(key.call, "key");
    EXPECT_THAT(key.body, StartsWith(R"({"deviceId":")" + id + R"(","hwId":")"));
    EXPECT_THAT(key.headers, HasSubstr("Content-Type: application/json"));
    EXPECT_THAT(key.headers, Not(HasSubstr("X-Authorization")));
    EXPECT_EQ(strategy.call, "strategy");
    EXPECT_EQ(strategy.body, R"({"deviceId":")" + id + R"(","deviceType":"HOMEWIFISYSTEM"})");
    EXPECT_EQ(strategy.signature, 1);
    EXPECT_EQ(node.config("telemetry", "cloud", "accessKey"), cloud.keys()[0].access_key);
    EXPECT_EQ(node.config("telemetry", "cloud", "accessSecret"), cloud.keys()[0].access_secret);
    EXPECT_EQ(node.config("telemetry", "strategy", "strategyID"), "s-7");
    EXPECT_EQ(node.config("telemetry", "strategy", "post_interval"), "30");
    EXPECT_EQ(node.number("collect_interval_strategy1"), 1200000);
    EXPECT_EQ(node.number("collect_interval_strategy2"), 36000000);
    EXPECT_EQ(node.number("post_interval"), 1800000);

    collect();
    EXPECT_EQ(node.read("/tmp/telemetry/post_done"), "0\n");
    node.advance_clock(1800000);
    expect_upload(1);
    EXPECT_EQ(node.read("/tmp/telemetry/post_done"), "1\n");
    EXPECT_THAT(cloud.records(), Contains(Field(&lab::CloudRecord::eid, "system_info")));
    EXPECT_THAT(cloud.requests("upload")[0].body, Not(HasSubstr("\"cnt\"")));
}

TEST_F(UploadTest, only_the_right_certificate_gets_the_records) {
    start_with_key();
    expect_ready();
    collect();
    cloud.script("connect",
                 R"([{"kind":"unknown_ca"},{"kind":"wrong_host"},{"kind":"expired"},{"kind":"cut"}])");
    expect_failures(
        {"curl failed! code: 60", "curl failed! code: 60", "curl failed! code: 60", "curl failed! code: 35"});
    EXPECT_EQ(cloud.count("upload.requests"), 0);
    cloud.down();
    expect_failures({"curl failed! code: 7"});
    cloud.up();
    advance_to_retry();
    expect_upload(1);
}

TEST_F(UploadTest, reloads_in_a_call_and_in_an_upload_cost_no_record) {
    const auto signal_often = [&] {
        for (int i = 0; i < 100; i++)
            node.daemon.signal(SIGHUP);
    };
    node.set_config("telemetry", "cloud", "ca_file", "/etc");
    start_with_key();
    ASSERT_TRUE(node.wait_for_console("curl failed! code: 77", kWaitMs));
    node.set_config("telemetry", "cloud", "ca_file", "/etc/certificate/2048_newroot.cer");
    signal_often();
    ASSERT_TRUE(node.wait_for_console("configuration read again", kWaitMs));
    advance_to_retry();
    expect_ready();

    node.set_faults(R"({"tfstats.get":{"kind":"slow","delay_ms":600}})");
    order("collect_all_next_time");
    order("collect_now");
    ASSERT_TRUE(lab::wait_until([&] { return node.read("/tmp/telemetry/post_done") == "0\n"; }, kWaitMs));
    const size_t before = node.count_in_console("configuration read again");
    signal_often();
    ASSERT_TRUE(lab::wait_until([&] { return node.number("data_collect_count") > 0; }, kWaitMs));
    const long held = node.number("data_collect_count");
    EXPECT_EQ(node.count_in_console("configuration read again"), before + 1);

    cloud.script("upload", R"([{"kind":"garbage","delay_ms":300}])");
    order("post_now");
    ASSERT_TRUE(cloud.wait_for_count("upload.requests", 1, kWaitMs));
    signal_often();
    ASSERT_TRUE(node.wait_for_state("post retry count", "1", kWaitMs));
    EXPECT_EQ(node.number("data_collect_count"), held);
    advance_to_retry();
    expect_upload(1);
}

TEST_F(UploadTest, answer_is_awaited_for_8_seconds) {
    // With a key no other is asked for; without a strategy the intervals stay.
    cloud.set_strategy("", "");
    node.set_config("telemetry", "strategy", "strategyID", "lab-strategy-1");
    start_with_key();
    expect_ready();
    EXPECT_EQ(cloud.count("key.requests"), 0);
    EXPECT_THAT(cloud.requests("strategy")[0].body, HasSubstr(R"("strategyId":"lab-strategy-1"})"));
    EXPECT_TRUE(node.wait_for_console("no strategy, use default strategy!", kWaitMs));
    EXPECT_EQ(node.number("collect_interval_strategy1"), 900000);
    EXPECT_EQ(node.number("post_interval"), 14400000);
    EXPECT_EQ(cloud.count("strategy.requests"), 1);
    collect();
    const long connections = cloud.count("connections");
    cloud.script("upload", R"([{"kind":"garbage","delay_ms":600000}])");
    order("post_now");
    ASSERT_TRUE(cloud.wait_for_count("connections", connections + 1, kWaitMs));
    node.advance_clock(5000);
    EXPECT_EQ(node.number("post retry count"), 0);
    node.advance_clock(3000);
    ASSERT_TRUE(node.wait_for_console("CURLE_OPERATION_TIMEDOUT", kWaitMs));
    EXPECT_TRUE(node.wait_for_state("post retry count", "1", kWaitMs));
    cloud.reset_script();
    advance_to_retry();
    expect_upload(1);
}
