#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "post_test.h"
#include "telemetry_figures.h"
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
    std::string response;
    Outcome outcome;
    const char *message = nullptr; // that must be logged
    int32_t status = POST_REQUEST_OK;
};

class PostFsmTest : public PostTest {
  protected:
    void begin(uint32_t state) {
        drop_requests();
        cancel_timers();
        open_gate();
        telemetry_clear_collect_list(&ctx);
        add_record(R"({"eid":"a","ct":1,"ep":{},"cnt":2})");
        ctx.post_state = state;
        ctx.post_retry_count = 3;
        ctx.post_retry_interval = 4000;
        copy_text(ctx.dev_id, "DEV");
        copy_text(ctx.strategy_id, "old");
        copy_text(ctx.access_secret, "s");
    }

    void use_all_slots() {
        for (int i = 0; i < kPostRequestCount; i++)
            telemetry_post_alloc_request(&ctx);
    }

    static void expect_timer(uloop_timeout *timer, uint32_t ms) {
        EXPECT_TRUE(ms == 0 ? testing::AssertionResult(!pending(timer)) : armed_for(timer, ms)) << ms;
    }

    void run(uint32_t state, Callback callback, const std::vector<AnswerCase> &cases) {
        for (const AnswerCase &c : cases) {
            SCOPED_TRACE(c.response.substr(0, 200));
            begin(state);
            const auto lines = logged_messages([&] { answer(callback, c.status, c.response); });
            if (c.message != nullptr) {
                EXPECT_THAT(lines, Contains(c.message));
            }
            EXPECT_EQ(ctx.post_state, c.outcome.state);
            EXPECT_EQ(ctx.post_retry_count, c.outcome.retries_reset ? 0U : 4U);
            EXPECT_EQ(ctx.post_retry_interval, c.outcome.retries_reset ? 1000U : 8000U);
            expect_timer(&ctx.post_retry_timer, c.outcome.retry_timer);
            expect_timer(&ctx.post_timer, c.outcome.post_timer);
            EXPECT_EQ(requests_in_use(), c.outcome.next == nullptr ? 0 : 1);
            EXPECT_EQ(c.outcome.next == nullptr || sent(c.outcome.next) != nullptr, true);
        }
    }

    // First the answers that no call can judge.
    void run_all(uint32_t state, Callback callback, const Outcome &retry, std::vector<AnswerCase> cases) {
        static constexpr char kNoAnswer[] = "request_status error or response error";
        static constexpr char kNoCode[] = "receive error, error_code invalid";
        run(state, callback,
            {{R"({"error_code":0})", retry, kNoAnswer, POST_REQUEST_TIMED_OUT},
             {R"({"error_code":0})", retry, kNoAnswer, POST_REQUEST_FAILED},
             {"", retry, kNoAnswer},
             {"<html>busy</html>", retry, "cJSON_Parse failed"},
             {std::string(100000, '['), retry, "cJSON_Parse failed"},
             {"{}", retry, kNoCode},
             {R"({"error_code":"0"})", retry, kNoCode},
             {R"({"error_code":0.5})", retry, kNoCode}});
        run(state, callback, cases);
    }
};

static std::string code(const char *value) {
    return std::string(R"({"error_code":)") + value + "}";
}

static std::string result(const std::string &members) {
    return R"({"error_code":0,"result":{)" + members + "}}";
}

TEST_F(PostFsmTest, access_key_answers) {
    const std::string key = R"("expiresIn":1,"accessKey":"k2")";
    run_all(kKey, post_refresh_key_cb, kRetryKey,
            {{result(key + R"(,"accessSecret":"s2")"), kToStrategy},
             {code("-10304"), kRetryKey, "receive error, error_code=-10304"},
             {code("1e300"), kRetryKey, "receive error, error_code=2147483647"},
             {code("0"), kRetryKey, "parse result failed"},
             {R"({"error_code":0,"result":"text"})", kRetryKey, "parse expiresIn failed"},
             {result(R"("accessKey":"k","accessSecret":"s")"), kRetryKey, "parse expiresIn failed"},
             {result(R"("expiresIn":1)"), kRetryKey, "parse accessKey failed"},
             {result(R"("expiresIn":1,"accessKey":5)"), kRetryKey, "no accessKey"},
             {result(key), kRetryKey, "parse accessSecret failed"},
             {result(key + R"(,"accessSecret":null)"), kRetryKey, "no access_secret"}});
    EXPECT_STREQ(ctx.access_key, "k2"); // of an answer without a secret: it stays
}

TEST_F(PostFsmTest, strategy_answers) {
    run_all(kStrategy, post_get_strategy_cb, kRetryStrategy,
            {{code("0"), kToReady},
             {result(R"("strategyId":"old")"), kToReady},
             {result(std::string(R"("strategyId":"new","strategyContent":")") + kContent + '"'), kToReady},
             {result(""), kRetryStrategy, "parse strategyId failed"},
             {result(R"("strategyId":7)"), kRetryStrategy, "non strategyId"},
             {result(R"("strategyId":"a")"), kRetryStrategy, "parse strategyContent failed"},
             {result(R"("strategyId":"c","strategyContent":"soon")"), kRetryStrategy,
              "handle strategy content failed"},
             {result(R"("strategyId":"b","strategyContent":{})"), kRetryStrategy, "non content"}});
    EXPECT_STREQ(ctx.strategy_id, "b"); // one without content is not asked for again
}

TEST_F(PostFsmTest, error_codes) {
    static constexpr char kData[] = "data error!", kDevice[] = "device information error!",
                          kSignature[] = "singature calculate error!",
                          kNone[] = "no strategy, use default strategy!";
    const std::tuple<const char *, Outcome, Outcome, const char *> cases[] = {
        {"-10301", kRetryStrategy, kNoRetry, kSignature},
        {"-10303", kRetryStrategy, kNoRetry, kSignature},
        {"-10304", kToKey, kRetryKey, "access_key overdue!"},
        {"-10306", kRetryStrategy, kNoRetry, "request rejected!"},
        {"-20105", kRetryStrategy, kNoRetry, kData},
        {"-20107", kRetryStrategy, kNoRetry, kData},
        {"-20501", kRetryStrategy, kNoRetry, kDevice},
        {"-20511", kRetryStrategy, kNoRetry, kDevice},
        {"-20000", kToReady, kRetryUpload, kNone},
        {"-29004", kToReady, kRetryUpload, kNone},
        {"12", kRetryStrategy, kNoRetry, "invalid error_code:12"},
    };
    for (const auto &[number, strategy, upload, message] : cases) {
        run(kStrategy, post_get_strategy_cb, {{code(number), strategy, message}});
        run(kReady, post_upload_data_cb, {{code(number), upload, message}});
        EXPECT_EQ(ctx.data_collect_count, 2U); // no failure costs a record
    }
    run_all(kReady, post_upload_data_cb, kRetryUpload, {});
    EXPECT_EQ(cJSON_GetArraySize(ctx.collect_list), 1);
    run(kReady, post_upload_data_cb, {{R"({"error_code":0,"more":[1]})", kNoRetry}});
    EXPECT_EQ(ctx.data_collect_count, 0U);
    EXPECT_EQ(ctx.collect_list, nullptr);
}

TEST_F(PostFsmTest, start_asks_for_what_is_missing) {
    const std::tuple<uint32_t, const char *, const char *, uint32_t, Callback> cases[] = {
        {TELEMETRY_POST_STATE_INIT, "k", "", kKey, post_refresh_key_cb},
        {TELEMETRY_POST_STATE_INIT, "", "s", kKey, post_refresh_key_cb},
        {TELEMETRY_POST_STATE_INIT, "k", "s", kStrategy, post_get_strategy_cb},
        {4, "k", "s", 4, nullptr},
    };
    for (const auto &[state, key, secret, next_state, call] : cases) {
        begin(state);
        copy_text(ctx.access_key, key);
        copy_text(ctx.access_secret, secret);
        telemetry_post_state_FSM(&ctx);
        EXPECT_EQ(ctx.post_state, next_state);
        EXPECT_EQ(sent(call) != nullptr, call != nullptr);
    }
}

// Senders that cannot send wait, a call of the state machine 30 seconds, and count no retry.
TEST_F(PostFsmTest, calls_that_cannot_be_sent_wait) {
    const auto no_slots = [&] { use_all_slots(); };
    const auto closed = [&] { close_gate(); };
    const auto no_secret = [&] { ctx.access_secret[0] = '\0'; };
    const auto no_records = [&] { telemetry_clear_collect_list(&ctx); };
    const auto step = [&] { telemetry_post_state_FSM(&ctx); };
    const auto upload = [&] { ctx.post_timer.cb(&ctx.post_timer); };
    using Action = std::function<void()>;
    const std::tuple<uint32_t, Action, Action, const char *> cases[] = {
        // no message: the upload is sent
        {kKey, closed, step, "dont refresh key! wait for a while"},
        {kStrategy, no_slots, step, "no available request"},
        {kStrategy, closed, step, "dont get strategy! wait for a while"},
        {kStrategy, no_secret, step, "add_curl_request_signature failed"},
        {kReady, no_records, upload, "insufficient state or no data, skip upload"},
        {kReady, no_secret, upload, "add_curl_request_signature failed"},
        {kReady, [&] { no_records(), ctx.data_collect_count = 1; }, upload, "cJSON_PrintUnformatted failed"},
        {kReady, closed, upload, "skip upload"},
        {kReady, no_slots, upload, "no available request"},
        {kReady, [] {}, upload, nullptr},
    };
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    for (const auto &[state, prepare, send, message] : cases) {
        SCOPED_TRACE(message == nullptr ? "sent" : message);
        begin(state);
        prepare();
        const int slots = requests_in_use();
        const auto lines = logged_messages(send);
        const bool call = pending(&ctx.post_retry_timer);
        EXPECT_TRUE(
            armed_for(call ? &ctx.post_retry_timer : &ctx.post_timer, call ? kPostWaitMs : kPostInterval));
        EXPECT_EQ(ctx.post_state, state);
        EXPECT_EQ(ctx.post_retry_count, 3U);
        EXPECT_EQ(ctx.post_retry_interval, 4000U);
        EXPECT_EQ(requests_in_use() - slots, message == nullptr ? 1 : 0);
        EXPECT_EQ(sent(post_upload_data_cb) != nullptr, message == nullptr);
        EXPECT_EQ(root.read("/tmp/telemetry/post_done"), message == nullptr ? "1\n" : "");
        if (message != nullptr) {
            EXPECT_THAT(lines, Contains(message));
        }
    }
    telemetry_debug_level = TELEMETRY_LOG_INFO;
    // The timer's callback runs the state again.
    begin(kStrategy);
    ctx.post_retry_timer.cb(&ctx.post_retry_timer);
    EXPECT_NE(sent(post_get_strategy_cb), nullptr);
}

// The first that is accepted takes the list with it; what it did not carry is counted, and nothing twice.
TEST_F(PostFsmTest, two_uploads_under_way) {
    begin(kReady);
    telemetry_figures_start();
    for (int i = 0; i < 2; i++) {
        ctx.post_timer.cb(&ctx.post_timer);
        add_record(R"({"eid":"later","cnt":3})");
    }
    for (PostRequest *upload : {ctx.post_requests[0], ctx.post_requests[1]}) {
        upload->request_status = POST_REQUEST_OK;
        telemetry_post_append_data(&upload->response, R"({"error_code":0})", 16);
        post_upload_data_cb(upload);
        EXPECT_EQ(telemetry_figures.items_in_flight, 6U);
    }
    EXPECT_EQ(telemetry_figures.uploads_accepted, 2U);
}

// r, 2r, 4r, 8r seconds for every first wait r, each at most a minute; the fifth failure decides by state.
TEST_F(PostFsmTest, five_failures_in_a_row) {
    const std::pair<uint32_t, const char *> states[] = {
        {kKey, "retry 5 times, continue retry refresh key"},
        {kStrategy, "retry 5 times, use default strategy"},
        {kReady, "retry 5 times, stop retry uploading data"},
    };
    for (const auto &[state, message] : states) {
        for (uint32_t first = 1000; first <= 9000; first += 1000) {
            SCOPED_TRACE(testing::Message() << "state " << state << " first wait " << first);
            begin(state);
            close_gate();
            uloop_timeout *timer = state == kReady ? &ctx.post_timer : &ctx.post_retry_timer;
            ctx.post_retry_count = 0;
            uint32_t wait = 0;
            for (uint32_t count = 1; count <= 4; count++) {
                telemetry_post_retry(&ctx);
                EXPECT_EQ(ctx.post_retry_count, count);
                EXPECT_TRUE(armed_for(timer, ctx.post_retry_interval));
                if (count == 1) { // a random one
                    EXPECT_EQ(ctx.post_retry_interval % 1000, 0U);
                    EXPECT_TRUE(ctx.post_retry_interval >= 1000 && ctx.post_retry_interval <= 9000);
                    ctx.post_retry_interval = first;
                }
                wait = count == 1 ? first : std::min(wait * 2, 60000U);
                EXPECT_EQ(ctx.post_retry_interval, wait);
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
