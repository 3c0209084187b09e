#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "post_test.h"
#include "telemetry_json_read.h"

static time_t clock_value = 1700000000;

// Stands for the C library's clock in this program.
extern "C" time_t time(time_t *result) noexcept {
    if (result != nullptr)
        *result = clock_value;
    return clock_value;
}

static bool easy_init_fails, add_handle_fails, global_init_fails;

// Entry points of libcurl for this program: they fail when a test says so.
extern "C" CURLcode curl_global_init(long flags) {
    static const auto real = reinterpret_cast<CURLcode (*)(long)>(dlsym(RTLD_NEXT, "curl_global_init"));
    return global_init_fails ? CURLE_OUT_OF_MEMORY : real(flags);
}

extern "C" CURL *curl_easy_init() {
    static const auto real = reinterpret_cast<CURL *(*)()>(dlsym(RTLD_NEXT, "curl_easy_init"));
    return easy_init_fails ? nullptr : real();
}

extern "C" CURLMcode curl_multi_add_handle(CURLM *multi, CURL *easy) {
    static const auto real =
        reinterpret_cast<CURLMcode (*)(CURLM *, CURL *)>(dlsym(RTLD_NEXT, "curl_multi_add_handle"));
    return add_handle_fails ? CURLM_OUT_OF_MEMORY : real(multi, easy);
}

static int completed;

static void count_failure(PostRequest *request) {
    EXPECT_EQ(request->in_use, 1U);
    EXPECT_EQ(request->request_status, POST_REQUEST_FAILED);
    completed++;
}

class PostRequestTest : public PostTest {
  protected:
    PostRequest *start_transfer() {
        PostRequest *request = telemetry_post_alloc_request(&ctx);
        telemetry_post_set_timeout(request, kPostTimeoutMs);
        telemetry_post_set_url(request, kNoHost, "answer");
        add_curl_request_content(request, "{}");
        request->on_complete = count_failure;
        telemetry_request_send(request);
        return request;
    }

    void SetUp() override {
        completed = 0;
    }
};

TEST_F(PostRequestTest, url_is_base_and_path_with_one_slash) {
    const std::string x2044(2044, 'x'), x2046(2046, 'x'), x2048(2048, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"https://h", "https://h/a/b"}, {"https://h/", "https://h/a/b"}, {"", ""},
        {x2044, x2044 + "/a/b"},        {x2046, x2046 + "/a"},           {x2048, x2048},
    };
    for (const auto &[base, url] : cases) {
        PostRequest *request = telemetry_post_alloc_request(&ctx);
        telemetry_post_set_url(request, base.c_str(), "a/b");
        EXPECT_EQ(std::string(request->url), url);
        telemetry_post_free_request(request);
    }
}

TEST_F(PostRequestTest, signature_covers_body_time_and_path) {
    // The vectors that the protocol's page gives to whoever writes a service.
    std::ifstream file(TEST_SOURCE_DIR "/docs/signature-vectors.json");
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    const JsonPtr vectors(cJSON_Parse(text.c_str()));
    ASSERT_EQ(cJSON_GetArraySize(vectors.get()), 6);
    const cJSON *vector = nullptr;
    cJSON_ArrayForEach(vector, vectors.get()) {
        const cJSON *time = cJSON_GetObjectItem(vector, "time");
        // Beyond 32 bits the id begins anew.
        clock_value = static_cast<time_t>(static_cast<int64_t>(time->valuedouble) + (int64_t{1} << 32));
        PostRequest *request = telemetry_post_alloc_request(&ctx);
        request->header_count = 1;
        copy_text(ctx.access_key, json_text(vector, "key"));
        copy_text(ctx.access_secret, json_text(vector, "secret"));
        ASSERT_EQ(add_curl_request_signature(request, json_text(vector, "body"), "not the context's",
                                             json_text(vector, "path")),
                  0);
        EXPECT_EQ(request->header_count, 2U);
        EXPECT_EQ(request->headers[1],
                  "X-Authorization:Id=" + std::to_string(static_cast<int64_t>(time->valuedouble)) +
                      ",AccessKey=" + json_text(vector, "key") +
                      ",Signature=" + json_text(vector, "signature"));
        telemetry_post_free_request(request);
    }
    clock_value = 1700000000;

    PostRequest *request = telemetry_post_alloc_request(&ctx);
    EXPECT_EQ(add_curl_request_signature(request, "", "s", "/p"), -1);
    EXPECT_EQ(add_curl_request_signature(request, "{}", "s", ""), -1);
    EXPECT_EQ(request->header_count, 0U);
    request->header_count = kPostHeaderLines;
    EXPECT_EQ(add_curl_request_signature(request, "{}", "s", "/p"), -1);
    EXPECT_EQ(add_curl_request_content(request, ""), -1);
    EXPECT_EQ(request->body.used, 0);
}

TEST_F(PostRequestTest, transfers_that_end_in_one_poll_both_get_their_callback) {
    PostRequest *first = start_transfer(), *second = start_transfer();
    EXPECT_TRUE(armed_for(&first->poll_timer, kPostPollMs));
    uloop_timeout_cancel(&first->poll_timer);
    poll_curl_status(&first->poll_timer);
    EXPECT_EQ(completed, 2);
    EXPECT_EQ(first->in_use, 0U);
    EXPECT_FALSE(pending(&first->poll_timer));
    // The other one waits for its own tick.
    EXPECT_EQ(second->in_use, 1U);
    EXPECT_EQ(second->finished, 1);
    EXPECT_EQ(second->easy, nullptr);
    poll_curl_status(&second->poll_timer);
    EXPECT_EQ(second->in_use, 0U);
    EXPECT_EQ(completed, 2);
}

TEST_F(PostRequestTest, a_libcurl_that_cannot_be_set_up_ends_the_start) {
    TelemetryCtx other = {};
    global_init_fails = true;
    expect_logged(-1, {"curl_global_init failed: Out of memory"},
                  [&] { return telemetry_init_post_request(&other); });
    global_init_fails = false;
    EXPECT_EQ(other.post_requests[0], nullptr);
}

// What never reached libcurl fails like any other transfer, from the loop and not inside the sender.
TEST_F(PostRequestTest, transfer_that_cannot_start_fails_once_at_its_next_tick) {
    for (bool *fails : {&easy_init_fails, &add_handle_fails}) {
        completed = 0;
        *fails = true;
        PostRequest *request = start_transfer();
        *fails = false;
        EXPECT_EQ(completed, 0);
        ASSERT_TRUE(armed_for(&request->poll_timer, kPostPollMs));
        uloop_timeout_cancel(&request->poll_timer);
        request->poll_timer.cb(&request->poll_timer);
        EXPECT_EQ(completed, 1);
        EXPECT_EQ(request->in_use, 0U);
        EXPECT_FALSE(pending(&request->poll_timer));
        // The slot serves the next one.
        ASSERT_EQ(start_transfer(), request);
        poll_curl_status(&request->poll_timer);
        EXPECT_EQ(completed, 2);
        EXPECT_EQ(requests_in_use(), 0);
    }
}

TEST(post_buffer, grows_in_steps_and_keeps_a_zero_behind_the_text) {
    const std::pair<std::vector<int32_t>, int32_t> cases[] = {
        {{1023}, 1024}, {{1024}, 2048}, {{1000, 24}, 2048}, {{1024, 1024}, 3072}, {{1, 65536}, 66560},
    };
    for (const auto &[appends, capacity] : cases) {
        PostBuffer buffer = {};
        std::string expected;
        for (const int32_t count : appends) {
            const std::string piece(static_cast<size_t>(count), appends[0] == count ? 'a' : 'b');
            EXPECT_EQ(telemetry_post_append_data(&buffer, piece.data(), count), count);
            expected += piece;
        }
        EXPECT_EQ(buffer.capacity, capacity);
        EXPECT_EQ(buffer.used, static_cast<int32_t>(expected.size()));
        EXPECT_EQ(std::string(buffer.data), expected);
        free(buffer.data);
    }
}

TEST(post_buffer, refuses_nonsense_and_what_is_too_long) {
    PostBuffer buffer = {};
    EXPECT_EQ(telemetry_post_append_data(&buffer, nullptr, 1), -1);
    EXPECT_EQ(telemetry_post_append_data(&buffer, "a", -5), -1);
    EXPECT_EQ(buffer.data, nullptr);

    constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
    const std::string block(1 << 16, 'x');
    for (const int32_t used : {kMax, kMax - 2048, kMax - 3000}) {
        PostBuffer full = {nullptr, used, used};
        EXPECT_EQ(telemetry_post_append_data(&full, block.data(), 2048), -1) << used;
        EXPECT_EQ(full.used, used);
    }
    PostRequest request = {};
    for (int i = 0; i < kPostMaxResponse / (1 << 16); i++)
        ASSERT_EQ(write_response_data_(block.data(), 1, block.size(), &request), block.size());
    EXPECT_EQ(write_response_data_(block.data(), 1, 1, &request), 0U);
    EXPECT_EQ(write_response_data_(block.data(), SIZE_MAX / 2, 4, &request), 0U);
    EXPECT_EQ(request.response.used, kPostMaxResponse);
    free(request.response.data);
}
