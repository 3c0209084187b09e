#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "post_test.h"
#include "telemetry_uci.h"

using ::testing::Contains;
using ::testing::HasSubstr;

class PostMessageTest : public PostTest {
  protected:
    std::string option(const char *section, const char *name) const {
        char value[256] = "";
        telemetry_get_uci_value("telemetry", section, name, value, sizeof(value), TELEMETRY_UCI_SYSTEM);
        return value;
    }

    // The files of the root that answer the three calls.
    void serve(const std::string &path, const std::string &content) {
        root.write("/cloud/api/data/device/" + path, content);
        copy_text(ctx.post_api, ("file://" + root.root() + "/cloud").c_str());
    }

    void poll_until_idle() {
        while (requests_in_use() != 0) {
            for (PostRequest *slot : ctx.post_requests) {
                if (slot->in_use != 0)
                    poll_curl_status(&slot->poll_timer);
            }
        }
    }
};

static std::string body(char *text) {
    const TextPtr owned(text);
    return text == nullptr ? "(none)" : text;
}

TEST_F(PostMessageTest, bodies) {
    copy_text(ctx.dev_id, "X\"1");
    copy_text(ctx.hw_id, "Y");
    copy_text(ctx.dev_mac, "Z");
    copy_text(ctx.hw_version, "1.0");
    copy_text(ctx.oem_id, "O");
    copy_text(ctx.firmware, "1.2.3 Build");
    copy_text(ctx.model, "M");
    EXPECT_EQ(body(get_post_refresh_key_content(&ctx)), R"({"deviceId":"X\"1","hwId":"Y","mac":"Z"})");
    EXPECT_EQ(body(get_post_get_strategy_content(&ctx)),
              R"({"deviceId":"X\"1","deviceType":"HOMEWIFISYSTEM"})");
    copy_text(ctx.strategy_id, "S1");
    EXPECT_EQ(body(get_post_get_strategy_content(&ctx)),
              R"({"deviceId":"X\"1","deviceType":"HOMEWIFISYSTEM","strategyId":"S1"})");

    EXPECT_EQ(body(get_post_collect_data_content(&ctx)), "(none)");
    add_record(R"({"eid":"a","ct":1700000000,"ep":{"v":12.5,"n":3,"big":4294967296,"cnt":9},"cnt":2})");
    add_record(R"({"eid":"b","ct":1,"ep":{},"cnt":1})");
    EXPECT_EQ(body(get_post_collect_data_content(&ctx)),
              R"({"sr":"device","srp":{"di":"X\"1","dt":"HOMEWIFISYSTEM","dhv":"1.0","oemId":"O",)"
              R"("dfv":"1.2.3 Build","dm":"M","dcg":"router"},)"
              R"("el":[{"eid":"a","ct":1700000000,"ep":{"v":12.50,"n":3,"big":4294967296.00,"cnt":9}},)"
              R"({"eid":"b","ct":1,"ep":{}}]})");
    // The list itself keeps its counts.
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(cJSON_GetArrayItem(ctx.collect_list, 0), "cnt")->valueint, 2);
}

TEST_F(PostMessageTest, requests_carry_the_headers_that_their_call_needs) {
    const struct {
        uint32_t state;
        void (*on_complete)(PostRequest *);
        const char *url;
        uint32_t headers;
    } cases[] = {
        {TELEMETRY_POST_STATE_REFRESH_KEY, post_refresh_key_cb, "http://no host/api/data/device/getAccessKey", 1},
        {TELEMETRY_POST_STATE_GET_STRATEGY, post_get_strategy_cb,
         "http://no host/api/data/device/strategy/getDataCollectStrategy", 2},
        {TELEMETRY_POST_STATE_READY_FOR_UPLOAD, post_upload_data_cb,
         "http://no host/api/data/device/uploadBasicData", 2},
    };
    add_record(R"({"eid":"a","ct":1,"ep":{},"cnt":1})");
    for (const auto &c : cases) {
        ctx.post_state = c.state;
        if (c.state == TELEMETRY_POST_STATE_READY_FOR_UPLOAD)
            telemetry_post_data(&ctx.post_timer);
        else
            telemetry_post_state_FSM(&ctx);
        const PostRequest *request = sent(c.on_complete);
        ASSERT_NE(request, nullptr);
        EXPECT_STREQ(request->url, c.url);
        EXPECT_EQ(request->timeout_ms, 8000U);
        EXPECT_EQ(request->header_count, c.headers);
        EXPECT_STREQ(request->headers[0], "Content-Type: application/json");
        if (c.headers == 2) {
            EXPECT_THAT(request->headers[1], HasSubstr("X-Authorization:Id="));
        }
        drop_requests();
    }
}

TEST_F(PostMessageTest, credentials_are_kept_in_the_configuration) {
    const std::string long_key(300, 'k');
    answer(post_refresh_key_cb, POST_REQUEST_OK,
           R"({"error_code":0,"result":{"expiresIn":60,"accessKey":")" + long_key +
               R"(","accessSecret":"it's"}})");
    EXPECT_EQ(ctx.access_key, std::string(128, 'k'));
    EXPECT_STREQ(ctx.access_secret, "it's");
    EXPECT_EQ(option("cloud", "accessKey"), std::string(128, 'k'));
    EXPECT_EQ(option("cloud", "accessSecret"), "it's");
    EXPECT_EQ(option("cloud", "cloud_url"), "cloud");

    // Without a place to keep them they still serve.
    root.remove("/etc/config/telemetry");
    const auto lines = logged_messages([&] {
        ctx.post_state = TELEMETRY_POST_STATE_REFRESH_KEY;
        answer(post_refresh_key_cb, POST_REQUEST_OK,
               R"({"error_code":0,"result":{"expiresIn":60,"accessKey":"a","accessSecret":"b"}})");
    });
    EXPECT_THAT(lines, Contains("telemetry_set_uci_value error").Times(2));
    EXPECT_STREQ(ctx.access_key, "a");
    EXPECT_EQ(ctx.post_state, static_cast<uint32_t>(TELEMETRY_POST_STATE_GET_STRATEGY));
}

static std::string content(const std::string &collect1, const std::string &collect2,
                           const std::string &post) {
    return "collect_interval_strategy1=" + collect1 + ",collect_interval_strategy2=" + collect2 +
           ",post_interval=" + post;
}

TEST_F(PostMessageTest, strategy_contents) {
    const struct {
        std::string content;
        int result;
        std::vector<uint32_t> ms; // what the three intervals are afterwards
    } cases[] = {
        {content("30", "1440", "240"), 0, {1800000, 86400000, 14400000}},
        {content("30", "1440", "240") + "\n", 0, {1800000, 86400000, 14400000}},
        {content(" 5", "5", "1") + ",more=1", 0, {300000, 300000, 60000}},
        {content("15", "1", "1"), 0, {900000, 60000, 60000}},
        {content("2147483647", "1", "1"), 0, {4294907296, 60000, 60000}}, // wraps
        {content("1", "1", "0"), -1, {}},
        {content("0", "1", "1"), -1, {}},
        {content("1", "0", "1"), -1, {}},
        {content("-30", "1440", "240"), -1, {}},
        {content("30", "-1", "240"), -1, {}},
        {content("30", "1440", "-240"), -1, {}},
        {content("x", "1440", "240"), -1, {}},
        {content("30", "1440", ""), -1, {}},
        {content("30.5", "1440", "240"), -1, {}},
        {content("4294967297", "1", "1"), -1, {}},
        {content("1", "99999999999999999999999999", "1"), -1, {}},
        {content("1", "1", std::string(100000, '9')), -1, {}},
        {"collect_interval_strategy2=1,collect_interval_strategy1=1,post_interval=1", -1, {}},
        {"", -1, {}},
        {"%s%n%d", -1, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.content.substr(0, 200));
        root.write_config("telemetry", "config strategy 'strategy'\n\toption collect_interval '15'\n");
        const std::string before = root.read("/etc/config/telemetry");
        cancel_timers();
        copy_text(ctx.strategy_id, "id7");
        ctx.collect_interval_strategy1 = 900000;
        ctx.collect_interval_strategy2 = 86400000;
        ctx.post_interval = 14400000;
        EXPECT_EQ(telemetry_update_strategy(&ctx, c.content.c_str()), c.result);
        const std::vector<uint32_t> unchanged = {900000, 86400000, 14400000};
        const std::vector<uint32_t> &expected = c.result == 0 ? c.ms : unchanged;
        EXPECT_EQ((std::vector<uint32_t>{ctx.collect_interval_strategy1, ctx.collect_interval_strategy2,
                                         ctx.post_interval}),
                  expected);
        EXPECT_EQ(pending(&ctx.collect_timer), expected[0] != 900000);
        EXPECT_FALSE(pending(&ctx.post_timer));
        if (c.result != 0) {
            EXPECT_EQ(root.read("/etc/config/telemetry"), before);
        } else {
            EXPECT_EQ(option("strategy", "strategyID"), "id7");
        }
    }
    EXPECT_EQ(telemetry_update_strategy(&ctx, content("7", "8", "9").c_str()), 0);
    EXPECT_EQ(option("strategy", "collect_interval"), "7");
    EXPECT_EQ(option("strategy", "collect_interval_2"), "8");
    EXPECT_EQ(option("strategy", "post_interval"), "9");
    EXPECT_TRUE(armed_for(&ctx.collect_timer, 420000));

    // More than a timer can wait is told, also where the product wraps to something short.
    const auto lines = logged_messages(
        [&] { EXPECT_EQ(telemetry_update_strategy(&ctx, content("35791", "35792", "71583").c_str()), 0); });
    EXPECT_EQ(lines, (std::vector<std::string>{"interval of 35792 minutes is not usable",
                                               "interval of 71583 minutes is not usable"}));
}

// A strategy that cannot be kept is not applied either.
TEST_F(PostMessageTest, strategy_needs_its_configuration) {
    root.remove("/etc/config/telemetry");
    ctx.collect_interval_strategy1 = 900000;
    const auto lines = logged_messages(
        [&] { EXPECT_EQ(telemetry_update_strategy(&ctx, content("7", "8", "9").c_str()), -1); });
    EXPECT_THAT(lines, Contains("telemetry_set_uci_value error").Times(1));
    EXPECT_EQ(ctx.collect_interval_strategy1, 900000U);
}

TEST_F(PostMessageTest, first_start_runs_through_to_an_upload) {
    serve("getAccessKey", R"({"error_code":0,"result":{"expiresIn":1,"accessKey":"K","accessSecret":"S"}})");
    serve("strategy/getDataCollectStrategy",
          R"({"error_code":0,"result":{"strategyId":"id1","strategyContent":")" + content("30", "60", "10") +
              R"(\n"}})");
    serve("uploadBasicData", R"({"error_code":0})");
    ctx.access_key[0] = ctx.access_secret[0] = '\0';
    telemetry_post_state_FSM(&ctx);
    poll_until_idle();
    EXPECT_EQ(ctx.post_state, static_cast<uint32_t>(TELEMETRY_POST_STATE_READY_FOR_UPLOAD));
    EXPECT_STREQ(ctx.access_key, "K");
    EXPECT_STREQ(ctx.strategy_id, "id1");
    EXPECT_TRUE(armed_for(&ctx.post_timer, 600000));

    // An upload whose answer is lost keeps the records for the retry.
    add_record(R"({"eid":"a","ct":1,"ep":{},"cnt":1})");
    serve("uploadBasicData", "");
    telemetry_post_data(&ctx.post_timer);
    poll_until_idle();
    EXPECT_EQ(ctx.data_collect_count, 1U);
    EXPECT_EQ(ctx.post_retry_count, 1U);
    EXPECT_TRUE(armed_for(&ctx.post_timer, ctx.post_retry_interval));

    serve("uploadBasicData", R"({"error_code":0,"pad":")" + std::string(10 << 20, 'x') + R"("})");
    telemetry_post_data(&ctx.post_timer);
    poll_until_idle();
    EXPECT_EQ(ctx.data_collect_count, 1U);
    EXPECT_EQ(ctx.post_retry_count, 2U);

    serve("uploadBasicData", R"({"error_code":0})");
    telemetry_post_data(&ctx.post_timer);
    poll_until_idle();
    EXPECT_EQ(ctx.data_collect_count, 0U);
    EXPECT_EQ(ctx.collect_list, nullptr);
    EXPECT_EQ(ctx.post_retry_count, 0U);
    EXPECT_TRUE(armed_for(&ctx.post_timer, 600000));
}
