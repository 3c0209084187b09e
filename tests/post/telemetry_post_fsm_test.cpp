#include <algorithm>
#include <functional>
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

    void use_all_slots() {
        for (int i = 0; i < kPostRequestCount; i++)
            telemetry_post_alloc_request(&ctx);
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
        {POST_REQUEST_OK, std::string(100000, '['), retry, "cJSON_Parse failed"},
        {POST_REQUEST_OK, "{}", retry, kNoCode},
        {POST_REQUEST_OK, "[0]", retry, kNoCode},
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
            {0, code("-10304"), kRetryKey, "receive error, error_code=-10304"},
            {0, code("1e300"), kRetryKey, "receive error, error_code=2147483647"},
            {0, code("0"), kRetryKey, "parse result failed"},
            {0, R"({"error_code":0,"result":"text"})", kRetryKey, "parse expiresIn failed"},
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
            {0, result(R"("strategyId":7)"), kRetryStrategy, "non strategyId"},
            {0, result(R"("strategyId":"a")"), kRetryStrategy, "parse strategyContent failed"},
            {0, result(R"("strategyId":"b","strategyContent":{})"), kRetryStrategy, "non content"},
            {0, result(R"("strategyId":"c","strategyContent":"soon")"), kRetryStrategy,
             "handle strategy content failed"},
        });
}

TEST_F(PostFsmTest, error_codes) {
    constexpr Outcome kKeyLater = {kKey, false, 8000, 0, nullptr};
    const struct {
        const char *code;
        Outcome strategy;
        Outcome upload;
        const char *message;
    } cases[] = {
        {"-10301", kRetryStrategy, kNoRetry, "singature calculate error!"},
        {"-10303", kRetryStrategy, kNoRetry, "singature calculate error!"},
        {"-10304", kToKey, kKeyLater, "access_key overdue!"},
        {"-10306", kRetryStrategy, kNoRetry, "request rejected!"},
        {"-20105", kRetryStrategy, kNoRetry, "data error!"},
        {"-20107", kRetryStrategy, kNoRetry, "data error!"},
        {"-20501", kRetryStrategy, kNoRetry, "device information error!"},
        {"-20511", kRetryStrategy, kNoRetry, "device information error!"},
        {"-20000", kToReady, kRetryUpload, "no strategy, use default strategy!"},
        {"-29004", kToReady, kRetryUpload, "no strategy, use default strategy!"},
        {"12", kRetryStrategy, kNoRetry, "invalid error_code:12"},
    };
    for (const auto &c : cases) {
        run(kStrategy, post_get_strategy_cb, {{0, code(c.code), c.strategy, c.message}});
        run(kReady, post_upload_data_cb, {{0, code(c.code), c.upload, c.message}});
        EXPECT_EQ(ctx.data_collect_count, 2U); // no failure costs a record
    }
    run(kReady, post_upload_data_cb, unusable_answers(kRetryUpload));
    EXPECT_EQ(cJSON_GetArraySize(ctx.collect_list), 1);
    run(kReady, post_upload_data_cb, {{0, R"({"error_code":0,"more":[1]})", kNoRetry, nullptr}});
    EXPECT_EQ(ctx.data_collect_count, 0U);
    EXPECT_EQ(ctx.collect_list, nullptr);
}

TEST_F(PostFsmTest, start_asks_for_what_is_missing) {
    for (const auto &[key, secret] : {std::pair("k", ""), {"", "s"}, {"k", "s"}}) {
        const bool known = *key != 0 && *secret != 0;
        begin(TELEMETRY_POST_STATE_INIT);
        copy_text(ctx.access_key, key);
        copy_text(ctx.access_secret, secret);
        telemetry_post_state_FSM(&ctx);
        EXPECT_EQ(ctx.post_state, known ? kStrategy : kKey);
        EXPECT_NE(sent(known ? post_get_strategy_cb : post_refresh_key_cb), nullptr);
    }
    begin(4);
    telemetry_post_state_FSM(&ctx);
    EXPECT_EQ(ctx.post_state, 4U);
    EXPECT_EQ(requests_in_use(), 0);
}

// A call that cannot be sent waits 30 seconds and counts as no retry.
TEST_F(PostFsmTest, calls_that_cannot_be_sent_wait) {
    const auto expect_wait = [&](const char *message) {
        const uint32_t state = ctx.post_state;
        const auto lines = logged_messages([&] { telemetry_post_state_FSM(&ctx); });
        EXPECT_THAT(lines, Contains(message));
        EXPECT_EQ(ctx.post_state, state);
        EXPECT_TRUE(armed_for(&ctx.post_retry_timer, kPostWaitMs));
        EXPECT_EQ(ctx.post_retry_count, 3U);
        EXPECT_EQ(ctx.post_retry_interval, 4000U);
    };
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    for (const uint32_t state : {kKey, kStrategy}) {
        begin(state);
        use_all_slots();
        expect_wait("no available request");
        begin(state);
        close_gate();
        expect_wait(state == kKey ? "dont refresh key! wait for a while"
                                  : "dont get strategy! wait for a while");
        open_gate();
    }
    begin(kStrategy);
    ctx.access_secret[0] = '\0';
    expect_wait("add_curl_request_signature failed");
    EXPECT_EQ(requests_in_use(), 0);
    telemetry_debug_level = TELEMETRY_LOG_INFO;

    // The timer's callback runs the state again.
    ctx.access_secret[0] = 's';
    ctx.post_retry_timer.cb(&ctx.post_retry_timer);
    EXPECT_NE(sent(post_get_strategy_cb), nullptr);
}

TEST_F(PostFsmTest, upload_timer_sends_what_is_there) {
    const auto nothing = [] {};
    const auto no_records = [&] { telemetry_clear_collect_list(&ctx); };
    const struct {
        uint32_t state;
        std::function<void()> prepare;
        const char *message; // null: the upload is sent
    } cases[] = {
        {kReady, no_records, "insufficient state or no data, skip upload"},
        {kStrategy, nothing, "insufficient state or no data, skip upload"},
        {kReady, [&] { ctx.access_secret[0] = '\0'; }, "add_curl_request_signature failed"},
        {kReady, [&] { no_records(), ctx.data_collect_count = 1; }, "cJSON_PrintUnformatted failed"},
        {kReady, [&] { close_gate(); }, "skip upload"},
        {kReady, [&] { use_all_slots(); }, "no available request"},
        {kReady, nothing, nullptr},
    };
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message == nullptr ? "sent" : c.message);
        begin(c.state);
        c.prepare();
        const auto lines = logged_messages([&] { ctx.post_timer.cb(&ctx.post_timer); });
        EXPECT_TRUE(armed_for(&ctx.post_timer, kPostInterval));
        EXPECT_EQ(ctx.post_retry_count, 3U);
        EXPECT_EQ(sent(post_upload_data_cb) != nullptr, c.message == nullptr);
        EXPECT_EQ(root.read("/tmp/telemetry/post_done"), c.message == nullptr ? "1\n" : "");
        if (c.message != nullptr) {
            EXPECT_THAT(lines, Contains(c.message));
        }
        ctx.access_secret[0] = 's';
        open_gate();
    }
    telemetry_debug_level = TELEMETRY_LOG_INFO;
}

// r, 2r, 4r, 8r seconds for every first wait r, each at most a minute; the fifth failure decides by state.
TEST_F(PostFsmTest, five_failures_in_a_row) {
    close_gate();
    const std::pair<uint32_t, const char *> states[] = {
        {kKey, "retry 5 times, continue retry refresh key"},
        {kStrategy, "retry 5 times, use default strategy"},
        {kReady, "retry 5 times, stop retry uploading data"},
    };
    for (const auto &[state, message] : states) {
        for (uint32_t first = 1000; first <= 9000; first += 1000) {
            SCOPED_TRACE(testing::Message() << "state " << state << " first wait " << first);
            begin(state);
            uloop_timeout *timer = state == kReady ? &ctx.post_timer : &ctx.post_retry_timer;
            ctx.post_retry_count = 0;
            telemetry_post_retry(&ctx);
            EXPECT_EQ(ctx.post_retry_count, 1U);
            EXPECT_TRUE(armed_for(timer, ctx.post_retry_interval));
            EXPECT_EQ(ctx.post_retry_interval % 1000, 0U);
            EXPECT_TRUE(ctx.post_retry_interval >= 1000 && ctx.post_retry_interval <= 9000);

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
            EXPECT_THAT(logged_messages([&] { telemetry_post_retry(&ctx); }), Contains(message));
            EXPECT_EQ(ctx.post_retry_count, 0U);
            EXPECT_EQ(ctx.post_state, state == kKey ? kKey : kReady);
            EXPECT_EQ(ctx.post_retry_interval, state == kKey ? std::min(wait * 2, 60000U) * 2 : 1000U);
            expect_timer(&ctx.post_retry_timer, state == kKey ? ctx.post_retry_interval : 0);
            expect_timer(&ctx.post_timer, state == kKey ? 0 : kPostInterval);
        }
    }
}
