#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "post_test.h"
#include "telemetry_key_owner.h"
#include "telemetry_uci.h"

using ::testing::Contains;

class PostMessageTest : public PostTest {
  protected:
    std::string option(const char *section, const char *name) const {
        char value[256] = "";
        telemetry_get_uci_value("telemetry", section, name, value, sizeof(value), TELEMETRY_UCI_SYSTEM);
        return value;
    }
};

static std::string content(const std::string &collect1, const std::string &collect2,
                           const std::string &post) {
    return "collect_interval_strategy1=" + collect1 + ",collect_interval_strategy2=" + collect2 +
           ",post_interval=" + post;
}

TEST_F(PostMessageTest, credentials_are_kept_in_the_configuration) {
    const auto take = [&](const std::string &key, const char *secret) {
        const std::string texts = R"("accessKey":")" + key + R"(","accessSecret":")" + secret;
        answer(post_refresh_key_cb, POST_REQUEST_OK,
               R"({"error_code":0,"result":{"expiresIn":60,)" + texts + R"("}})");
    };
    take(std::string(300, 'k'), "it's");
    EXPECT_EQ(ctx.access_key, std::string(128, 'k'));
    EXPECT_STREQ(ctx.access_secret, "it's");
    EXPECT_EQ(option("cloud", "accessKey"), std::string(128, 'k'));
    EXPECT_EQ(option("cloud", "accessSecret"), "it's");
    EXPECT_EQ(option("cloud", "cloud_url"), "cloud");
    EXPECT_EQ(option("cloud", "accessDevice"), ctx.dev_id);
    // A key that came without it is this device's once the cloud took what it signed.
    telemetry_set_uci_value("telemetry", "cloud", "accessDevice", "", TELEMETRY_UCI_SYSTEM);
    telemetry_check_key_owner(&ctx);
    for (const auto &[code, owner] : {std::pair("-10306", ""), {"0", ctx.dev_id}}) {
        answer(post_upload_data_cb, POST_REQUEST_OK, R"({"error_code":)" + std::string(code) + "}");
        EXPECT_EQ(option("cloud", "accessDevice"), owner);
    }

    // Without a place to keep them they still serve; a strategy that cannot be kept is not applied.
    root.remove("/etc/config/telemetry");
    EXPECT_THAT(logged_messages([&] { take("a", "b"); }), Contains("telemetry_set_uci_value error").Times(2));
    EXPECT_STREQ(ctx.access_key, "a");
    EXPECT_EQ(ctx.post_state, static_cast<uint32_t>(TELEMETRY_POST_STATE_GET_STRATEGY));
    ctx.collect_interval_strategy1 = 900000;
    EXPECT_EQ(telemetry_update_strategy(&ctx, content("7", "8", "9").c_str()), -1);
    EXPECT_EQ(ctx.collect_interval_strategy1, 900000U);
}

TEST_F(PostMessageTest, strategy_contents) {
    using Intervals = std::vector<uint32_t>; // ms
    const Intervals unchanged = {900000, 86400000, 14400000};
    const std::pair<std::string, Intervals> cases[] = {
        {content("30", "1440", "240") + "\n", {1800000, 86400000, 14400000}},
        {content(" 5", "5", "1") + ",more=1", {300000, 300000, 60000}},
        {content("2147483647", "1", "1"), {4294907296, 60000, 60000}}, // wraps
        {content("1", "1", "0"), {}},
        {content("-30", "1440", "240"), {}},
        {content("30.5", "1440", "240"), {}},
        {content("1", "1", std::string(100000, '9')), {}},
        {"collect_interval_strategy2=1,collect_interval_strategy1=1,post_interval=1", {}},
    };
    for (const auto &[text, ms] : cases) {
        SCOPED_TRACE(text.substr(0, 200));
        root.write_config("telemetry", "config strategy 'strategy'\n\toption collect_interval '15'\n");
        const std::string before = root.read("/etc/config/telemetry");
        cancel_timers();
        copy_text(ctx.strategy_id, "id7");
        ctx.collect_interval_strategy1 = unchanged[0];
        ctx.collect_interval_strategy2 = unchanged[1];
        ctx.post_interval = unchanged[2];
        EXPECT_EQ(telemetry_update_strategy(&ctx, text.c_str()), ms.empty() ? -1 : 0);
        const Intervals now = {ctx.collect_interval_strategy1, ctx.collect_interval_strategy2,
                               ctx.post_interval};
        EXPECT_EQ(now, ms.empty() ? unchanged : ms);
        EXPECT_EQ(pending(&ctx.collect_timer), !ms.empty() && ms[0] != unchanged[0]);
        EXPECT_FALSE(pending(&ctx.post_timer));
        EXPECT_EQ(root.read("/etc/config/telemetry") == before, ms.empty());
    }
    EXPECT_EQ(telemetry_update_strategy(&ctx, content("7", "8", "9").c_str()), 0);
    for (const auto &[name, value] : {std::pair("strategyID", "id7"),
                                      {"collect_interval", "7"},
                                      {"collect_interval_2", "8"},
                                      {"post_interval", "9"}})
        EXPECT_EQ(option("strategy", name), value);
    EXPECT_TRUE(armed_for(&ctx.collect_timer, 420000));

    // After an id that the library does not store nothing else is.
    const std::string stored = root.read("/etc/config/telemetry");
    copy_text(ctx.strategy_id, "a\1b");
    EXPECT_EQ(telemetry_update_strategy(&ctx, content("1", "2", "3").c_str()), -1);
    EXPECT_EQ(root.read("/etc/config/telemetry"), stored);
    copy_text(ctx.strategy_id, "id7");

    // More than a timer can wait is told, also where the product wraps to something short.
    expect_logged(
        0,
        {"interval of 35792 minutes is not usable", "interval of 71583 minutes is not usable",
         "strategy id7: collect every 35791 minutes, slow settings every 35792, upload every 71583"},
        [&] { return telemetry_update_strategy(&ctx, content("35791", "35792", "71583").c_str()); });
}
