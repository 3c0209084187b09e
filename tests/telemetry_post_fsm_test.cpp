#include <algorithm>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "post_test.h"
#include "telemetry_log.h"

using ::testing::Contains;

constexpr uint32_t kKey = TELEMETRY_POST_STATE_REFRESH_KEY;
constexpr uint32_t kStrategy = TELEMETRY_POST_STATE_GET_STRATEGY;
constexpr uint32_t kReady = TELEMETRY_POST_STATE_READY_FOR_UPLOAD;
constexpr uint32_t kPostInterval = 600000;

using Callback = void (*)(PostRequest *);

// What an answer leads to, seen from a run of three failures that waited 4000 ms last.
struct Outcome {
    uint32_t state;
    bool retries_reset;   // else one more, at 8000 ms
    uint32_t retry_timer; // ms, 0 not armed
    uint32_t post_timer;
    Callback next; // the call that was sent, null none
};

constexpr Outcome kToStrategy = {kStrategy, true, 0, 0, post_get_strategy_cb};
constexpr Outcome kToKey = {kKey, true, 0, 0, post_refresh_key_cb};
constexpr Outcome kToReady = {kReady, true, 0, kPostInterval, nullptr};
constexpr Outcome kRetryKey = {kKey, false, 8000, 0, nullptr};
constexpr Outcome kRetryStrategy = {kStrategy, false, 8000, 0, nullptr};
constexpr Outcome kRetryUpload = {kReady, false, 0, 8000, nullptr};
constexpr Outcome kNoRetry = {kReady, true, 0, 0, nullptr};

constexpr char kContent[] = "collect_interval_strategy1=30,collect_interval_strategy2=1440,post_interval=10";

struct AnswerCase {
    int32_t status;
    std::string response;
    Outcome outcome;
    const char *message; // that must be logged, null none
};

class PostFsmTest : public PostTest {
  protected:
    void begin(uint32_t state) {
        drop_requests();
        cancel_timers();
        telemetry_clear_collect_list(&ctx);
        add_record(R"({"eid":"a","ct":1,"ep":{},"cnt":2})");
        ctx.post_state = state;
        ctx.post_retry_count = 3;
        ctx.post_retry_interval = 4000;
        copy_text(ctx.strategy_id, "old");
    }

    void expect_timer(uloop_timeout *timer, uint32_t ms) {
        if (ms == 0) {
            EXPECT_FALSE(pending(timer));
        } else {
            EXPECT_TRUE(armed_for(timer, ms));
        }
    }

    void expect_outcome(const Outcome &outcome) {
        EXPECT_EQ(ctx.post_state, outcome.state);
        EXPECT_EQ(ctx.post_retry_count, outcome.retries_reset ? 0U : 4U);
        EXPECT_EQ(ctx.post_retry_interval, outcome.retries_reset ? 1000U : 8000U);
        expect_timer(&ctx.post_retry_timer, outcome.retry_timer);
        expect_timer(&ctx.post_timer, outcome.post_timer);
        EXPECT_EQ(requests_in_use(), outcome.next == nullptr ? 0 : 1);
        if (outcome.next != nullptr) {
            EXPECT_NE(sent(outcome.next), nullptr);
        }
    }

    void run(uint32_t state, Callback callback, const std::vector<AnswerCase> &cases) {
        for (const AnswerCase &c : cases) {
            SCOPED_TRACE(c.response.substr(0, 200));
            begin(state);
            const auto lines = logged_messages([&] { answer(callback, c.status, c.response); });
            if (c.message != nullptr) {
                EXPECT_THAT(lines, Contains(c.message));
            }
            expect_outcome(c.outcome);
        }
    }
};

// Answers that no call can judge.
static std::vector<AnswerCase> unusable_answers(const Outcome &retry) {
    static constexpr char kNoAnswer[] = "request_status error or response error";
    static constexpr char kNoCode[] = "receive error, error_code invalid";
    return {
        {POST_REQUEST_TIMED_OUT, R"({"error_code":0})", retry, kNoAnswer},
        {POST_REQUEST_FAILED, R"({"error_code":0})", retry, kNoAnswer},
        {POST_REQUEST_OK, "", retry, kNoAnswer},
        {POST_REQUEST_OK, "<html>busy</html>", retry, "cJSON_Parse failed"},
        {POST_REQUEST_OK, R"({"error_code":)", retry, "cJSON_Parse failed"},
        {POST_REQUEST_OK, std::string(100000, '['), retry, "cJSON_Parse failed"},
        {POST_REQUEST_OK, "{}", retry, kNoCode},
        {POST_REQUEST_OK, "[0]", retry, kNoCode},
        {POST_REQUEST_OK, "7", retry, kNoCode},
        {POST_REQUEST_OK, R"({"error_code":"0"})", retry, kNoCode},
        {POST_REQUEST_OK, R"({"error_code":null})", retry, kNoCode},
        {POST_REQUEST_OK, R"({"error_code":0.5})", retry, kNoCode},
    };
}

static std::string code(const char *value) {
    return std::string(R"({"error_code":)") + value + "}";
}

static std::string result(const std::string &members) {
    return R"({"error_code":0,"result":{)" + members + "}}";
}

TEST_F(PostFsmTest, access_key_answers) {
    run(kKey, post_refresh_key_cb, unusable_answers(kRetryKey));
    const std::string key = R"("expiresIn":1,"accessKey":"k2")";
    run(kKey, post_refresh_key_cb,
        {
            {0, result(key + R"(,"accessSecret":"s2")"), kToStrategy, nullptr},
            {0, result(R"("expiresIn":null,"accessKey":"k","accessSecret":"s")"), kToStrategy, nullptr},
            {0, code("-10304"), kRetryKey, "receive error, error_code=-10304"},
            {0, code("1e300"), kRetryKey, "receive error, error_code=2147483647"},
            {0, code("0"), kRetryKey, "parse result failed"},
            {0, R"({"error_code":0,"result":"text"})", kRetryKey, "parse expiresIn failed"},
            {0, R"({"error_code":0,"result":[1,2]})", kRetryKey, "parse expiresIn failed"},
            {0, result(R"("accessKey":"k","accessSecret":"s")"), kRetryKey, "parse expiresIn failed"},
            {0, result(R"("expiresIn":1)"), kRetryKey, "parse accessKey failed"},
            {0, result(R"("expiresIn":1,"accessKey":5)"), kRetryKey, "no accessKey"},
            {0, result(key), kRetryKey, "parse accessSecret failed"},
            {0, result(key + R"(,"accessSecret":null)"), kRetryKey, "no access_secret"},
        });
    // The key of an answer without a secret stays.
    EXPECT_STREQ(ctx.access_key, "k2");
}

TEST_F(PostFsmTest, strategy_answers) {
    run(kStrategy, post_get_strategy_cb, unusable_answers(kRetryStrategy));
    run(kStrategy, post_get_strategy_cb,
        {
            {0, code("0"), kToReady, nullptr},
            {0, result(R"("strategyId":"old")"), kToReady, nullptr},
            {0, result(std::string(R"("strategyId":"new","strategyContent":")") + kContent + '"'), kToReady,
             nullptr},
            {0, result(""), kRetryStrategy, "parse strategyId failed"},
            {0, R"({"error_code":0,"result":null})", kRetryStrategy, "parse strategyId failed"},
            {0, result(R"("strategyId":7)"), kRetryStrategy, "non strategyId"},
            {0, result(R"("strategyId":"a")"), kRetryStrategy, "parse strategyContent failed"},
            {0, result(R"("strategyId":"b","strategyContent":{})"), kRetryStrategy, "non content"},
            {0, result(R"("strategyId":"c","strategyContent":"soon")"), kRetryStrategy,
             "handle strategy content failed"},
            {0, code("-10301"), kRetryStrategy, "singature calculate error!"},
            {0, code("-10303"), kRetryStrategy, "singature calculate error!"},
            {0, code("-10304"), kToKey, "access_key overdue!"},
            {0, code("-10306"), kRetryStrategy, "request rejected!"},
            {0, code("-20105"), kRetryStrategy, "data error!"},
            {0, code("-20107"), kRetryStrategy, "data error!"},
            {0, code("-20501"), kRetryStrategy, "device information error!"},
            {0, code("-20511"), kRetryStrategy, "device information error!"},
            {0, code("-20000"), kToReady, "no strategy, use default strategy!"},
            {0, code("-29004"), kToReady, "no strategy, use default strategy!"},
            {0, code("12"), kRetryStrategy, "invalid error_code:12"},
        });
}

TEST_F(PostFsmTest, upload_answers) {
    run(kReady, post_upload_data_cb, unusable_answers(kRetryUpload));
    EXPECT_NE(ctx.collect_list, nullptr);
    constexpr Outcome kKeyLater = {kKey, false, 8000, 0, nullptr};
    run(kReady, post_upload_data_cb,
        {
            {0, code("-10301"), kNoRetry, "singature calculate error!"},
            {0, code("-10303"), kNoRetry, "singature calculate error!"},
            {0, code("-10304"), kKeyLater, "access_key overdue!"},
            {0, code("-10306"), kNoRetry, "request rejected!"},
            {0, code("-20105"), kNoRetry, "data error!"},
            {0, code("-20107"), kNoRetry, "data error!"},
            {0, code("-20501"), kNoRetry, "device information error!"},
            {0, code("-20511"), kNoRetry, "device information error!"},
            {0, code("-20000"), kRetryUpload, "no strategy, use default strategy!"},
            {0, code("-29004"), kRetryUpload, "no strategy, use default strategy!"},
            {0, code("-1"), kNoRetry, "invalid error_code:-1"},
        });
    EXPECT_EQ(ctx.data_collect_count, 2U);
    EXPECT_EQ(cJSON_GetArraySize(ctx.collect_list), 1);
    run(kReady, post_upload_data_cb, {{0, R"({"error_code":0,"more":[1]})", kNoRetry, nullptr}});
    EXPECT_EQ(ctx.data_collect_count, 0U);
    EXPECT_EQ(ctx.collect_list, nullptr);
}

TEST_F(PostFsmTest, start_asks_for_what_is_missing) {
    const struct {
        const char *key;
        const char *secret;
        uint32_t state;
        Callback next;
    } cases[] = {
        {"", "", kKey, post_refresh_key_cb},
        {"k", "", kKey, post_refresh_key_cb},
        {"", "s", kKey, post_refresh_key_cb},
        {"k", "s", kStrategy, post_get_strategy_cb},
    };
    for (const auto &c : cases) {
        begin(TELEMETRY_POST_STATE_INIT);
        copy_text(ctx.access_key, c.key);
        copy_text(ctx.access_secret, c.secret);
        telemetry_post_state_FSM(&ctx);
        EXPECT_EQ(ctx.post_state, c.state);
        EXPECT_NE(sent(c.next), nullptr);
    }
    begin(4);
    telemetry_post_state_FSM(&ctx);
    EXPECT_EQ(ctx.post_state, 4U);
    EXPECT_EQ(requests_in_use(), 0);
}

// A call that cannot be sent waits 30 seconds and counts as no retry.
TEST_F(PostFsmTest, calls_that_cannot_be_sent_wait) {
    const auto check = [&](uint32_t state, const char *message) {
        const auto lines = logged_messages([&] { telemetry_post_state_FSM(&ctx); });
        EXPECT_THAT(lines, Contains(message));
        EXPECT_EQ(ctx.post_state, state);
        EXPECT_TRUE(armed_for(&ctx.post_retry_timer, kPostWaitMs));
        EXPECT_EQ(ctx.post_retry_count, 3U);
        EXPECT_EQ(ctx.post_retry_interval, 4000U);
    };
    for (const uint32_t state : {kKey, kStrategy}) {
        begin(state);
        for (int i = 0; i < kPostRequestCount; i++)
            telemetry_post_alloc_request(&ctx);
        check(state, "no available request");
    }
    begin(kStrategy);
    ctx.access_secret[0] = '\0';
    check(kStrategy, "add_curl_request_signature failed");
    EXPECT_EQ(requests_in_use(), 0);

    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    close_gate();
    begin(kKey);
    check(kKey, "dont refresh key! wait for a while");
    begin(kStrategy);
    check(kStrategy, "dont get strategy! wait for a while");
    telemetry_debug_level = TELEMETRY_LOG_INFO;

    // The timer's callback runs the state again.
    root.write("/tmp/run/ntpd.uptime", "1");
    ctx.access_secret[0] = 's';
    ctx.post_retry_timer.cb(&ctx.post_retry_timer);
    EXPECT_NE(sent(post_get_strategy_cb), nullptr);
}

TEST_F(PostFsmTest, upload_timer_sends_what_is_there) {
    const auto run_timer = [&] {
        cancel_timers();
        telemetry_debug_level = TELEMETRY_LOG_DEBUG;
        const auto lines = logged_messages([&] { ctx.post_timer.cb(&ctx.post_timer); });
        telemetry_debug_level = TELEMETRY_LOG_INFO;
        EXPECT_TRUE(armed_for(&ctx.post_timer, kPostInterval));
        EXPECT_EQ(ctx.post_retry_count, 3U);
        return lines;
    };
    begin(kReady);
    telemetry_clear_collect_list(&ctx);
    EXPECT_THAT(run_timer(), Contains("insufficient state or no data, skip upload"));
    begin(kStrategy);
    EXPECT_THAT(run_timer(), Contains("insufficient state or no data, skip upload"));
    begin(kReady);
    ctx.access_secret[0] = '\0';
    EXPECT_THAT(run_timer(), Contains("add_curl_request_signature failed"));
    ctx.access_secret[0] = 's';
    begin(kReady);
    telemetry_clear_collect_list(&ctx);
    ctx.data_collect_count = 1;
    EXPECT_THAT(run_timer(), Contains("cJSON_PrintUnformatted failed"));
    EXPECT_EQ(requests_in_use(), 0);
    begin(kReady);
    for (int i = 0; i < kPostRequestCount; i++)
        telemetry_post_alloc_request(&ctx);
    EXPECT_THAT(run_timer(), Contains("no available request"));
    begin(kReady);
    EXPECT_FALSE(root.exists("/tmp/telemetry/post_done"));

    run_timer();
    EXPECT_NE(sent(post_upload_data_cb), nullptr);
    EXPECT_EQ(root.read("/tmp/telemetry/post_done"), "1\n");

    begin(kReady);
    close_gate();
    EXPECT_THAT(run_timer(), Contains("skip upload"));
    EXPECT_EQ(requests_in_use(), 0);
}

// r, 2r, 4r, 8r seconds for every first wait r, each at most a minute; the fifth failure decides by state.
TEST_F(PostFsmTest, five_failures_in_a_row) {
    close_gate();
    for (const uint32_t state : {kKey, kStrategy, kReady}) {
        for (uint32_t first = 1000; first <= 9000; first += 1000) {
            SCOPED_TRACE(testing::Message() << "state " << state << " first wait " << first);
            begin(state);
            uloop_timeout *timer = state == kReady ? &ctx.post_timer : &ctx.post_retry_timer;
            ctx.post_retry_count = 0;
            telemetry_post_retry(&ctx);
            EXPECT_EQ(ctx.post_retry_count, 1U);
            EXPECT_TRUE(armed_for(timer, ctx.post_retry_interval));
            EXPECT_EQ(ctx.post_retry_interval % 1000, 0U);
            EXPECT_GE(ctx.post_retry_interval, 1000U);
            EXPECT_LE(ctx.post_retry_interval, 9000U);

            uint32_t wait = first;
            ctx.post_retry_interval = first;
            for (uint32_t count = 2; count <= 4; count++) {
                telemetry_post_retry(&ctx);
                wait = std::min(wait * 2, 60000U);
                EXPECT_EQ(ctx.post_retry_count, count);
                EXPECT_EQ(ctx.post_retry_interval, wait);
                EXPECT_TRUE(armed_for(timer, wait));
            }
            cancel_timers();
            const auto lines = logged_messages([&] { telemetry_post_retry(&ctx); });
            EXPECT_EQ(ctx.post_retry_count, 0U);
            if (state == kKey) {
                EXPECT_THAT(lines, Contains("retry 5 times, continue retry refresh key"));
                EXPECT_EQ(ctx.post_state, kKey);
                EXPECT_EQ(ctx.post_retry_interval, std::min(wait * 2, 60000U) * 2);
                EXPECT_TRUE(armed_for(&ctx.post_retry_timer, ctx.post_retry_interval));
                continue;
            }
            EXPECT_THAT(lines, Contains(state == kStrategy ? "retry 5 times, use default strategy"
                                                           : "retry 5 times, stop retry uploading data"));
            EXPECT_EQ(ctx.post_state, kReady);
            EXPECT_EQ(ctx.post_retry_interval, 1000U);
            EXPECT_TRUE(armed_for(&ctx.post_timer, kPostInterval));
            EXPECT_FALSE(pending(&ctx.post_retry_timer));
        }
    }
}
