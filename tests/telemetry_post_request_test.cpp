#include <cstdio>
#include <ctime>
#include <dlfcn.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "post_test.h"
#include "telemetry_log.h"

static time_t clock_value = 1700000000;

// Stands for the C library's clock in this program.
extern "C" time_t time(time_t *result) noexcept {
    if (result != nullptr)
        *result = clock_value;
    return clock_value;
}

static bool easy_init_fails;
static bool add_handle_fails;

// libcurl's entry points for this program: they fail when a test says so.
extern "C" CURL *curl_easy_init() {
    static const auto real = reinterpret_cast<CURL *(*)()>(dlsym(RTLD_NEXT, "curl_easy_init"));
    return easy_init_fails ? nullptr : real();
}

extern "C" CURLMcode curl_multi_add_handle(CURLM *multi, CURL *easy) {
    static const auto real =
        reinterpret_cast<CURLMcode (*)(CURLM *, CURL *)>(dlsym(RTLD_NEXT, "curl_multi_add_handle"));
    return add_handle_fails ? CURLM_OUT_OF_MEMORY : real(multi, easy);
}

class PostRequestTest : public PostTest {
  protected:
    PostRequest *start_transfer(void (*on_complete)(PostRequest *), const std::string &base) {
        PostRequest *request = telemetry_post_alloc_request(&ctx);
        telemetry_post_set_timeout(request, kPostTimeoutMs);
        telemetry_post_set_url(request, base.c_str(), "answer");
        add_curl_request_content(request, "{}");
        request->on_complete = on_complete;
        telemetry_request_send(request);
        return request;
    }

    void SetUp() override {
        completed = 0;
    }

    static int completed;
};

int PostRequestTest::completed;

TEST_F(PostRequestTest, ninth_request_finds_no_slot_and_release_makes_one_again) {
    for (PostRequest *expected : ctx.post_requests) {
        EXPECT_EQ(telemetry_post_alloc_request(&ctx), expected);
    }
    EXPECT_EQ(telemetry_post_alloc_request(&ctx), nullptr);
    EXPECT_EQ(telemetry_post_alloc_request(nullptr), nullptr);
    telemetry_post_free_request(ctx.post_requests[5]);
    EXPECT_EQ(telemetry_post_alloc_request(&ctx), ctx.post_requests[5]);
}

TEST_F(PostRequestTest, url_is_base_and_path_with_one_slash) {
    const struct {
        std::string base;
        std::string url;
    } cases[] = {
        {"https://h", "https://h/a/b"},
        {"https://h/", "https://h/a/b"},
        {"", ""},
        {std::string(2044, 'x'), std::string(2044, 'x') + "/a/b"},
        {std::string(2046, 'x'), std::string(2046, 'x') + "/a"},
        {std::string(2048, 'x'), std::string(2048, 'x')},
    };
    for (const auto &c : cases) {
        PostRequest *request = telemetry_post_alloc_request(&ctx);
        telemetry_post_set_url(request, c.base.c_str(), "a/b");
        EXPECT_EQ(std::string(request->url), c.url);
        telemetry_post_free_request(request);
        EXPECT_STREQ(request->url, "");
    }
}

TEST_F(PostRequestTest, release_clears_the_slot_and_keeps_allocations_and_results) {
    PostRequest *request = telemetry_post_alloc_request(&ctx);
    request->header_count = 2;
    copy_text(request->headers[1], "header");
    add_curl_request_content(request, "body");
    telemetry_post_append_data(&request->response, "answer", 6);
    request->request_status = POST_REQUEST_TIMED_OUT;
    request->response_code = 503;
    request->on_complete = [](PostRequest *) {};
    const char *body = request->body.data;
    telemetry_post_free_request(request);
    EXPECT_EQ(request->body.data, body);
    EXPECT_EQ(request->body.capacity, 1024);
    EXPECT_EQ(request->body.used, 0);
    EXPECT_STREQ(request->body.data, "");
    EXPECT_STREQ(request->response.data, "");
    EXPECT_STREQ(request->headers[1], "");
    EXPECT_EQ(request->header_count, 0U);
    EXPECT_EQ(request->timeout_ms, 0U);
    EXPECT_EQ(request->on_complete, nullptr);
    EXPECT_EQ(request->request_status, POST_REQUEST_TIMED_OUT);
    EXPECT_EQ(request->response_code, 503);
    EXPECT_EQ(request->owner, &ctx);
}

static std::string expected_signature(const std::string &body, const std::string &id, const std::string &path,
                                      const std::string &secret) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(body.data(), body.size(), digest, &length, EVP_md5(), nullptr);
    unsigned char encoded[64];
    EVP_EncodeBlock(encoded, digest, static_cast<int>(length));
    const std::string text = std::string(reinterpret_cast<char *>(encoded)) + "\n" + id + "\n" + path;
    HMAC(EVP_sha1(), secret.data(), static_cast<int>(secret.size()),
         reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest, &length);
    std::string hexadecimal;
    for (unsigned i = 0; i < length; i++) {
        char two[3];
        snprintf(two, sizeof(two), "%02x", digest[i]);
        hexadecimal += two;
    }
    return hexadecimal;
}

TEST_F(PostRequestTest, signature_covers_body_time_and_path) {
    const struct {
        time_t now;
        const char *id;
        std::string body;
        std::string secret;
    } cases[] = {
        {1700000000, "1700000000", "{}", "secret"},
        {1700000000, "1700000000", std::string(70000, 'b'), std::string(128, 's')},
        {4294967295 + 5L, "4", "{\"a\":1}", "k"}, // 32 bits, unsigned
        {4000000000, "4000000000", "{}", "k"},
    };
    for (const auto &c : cases) {
        clock_value = c.now;
        PostRequest *request = telemetry_post_alloc_request(&ctx);
        request->header_count = 1;
        ASSERT_EQ(add_curl_request_signature(request, c.body.c_str(), c.secret.c_str(), "/p/q"), 0);
        EXPECT_EQ(request->header_count, 2U);
        EXPECT_EQ(std::string(request->headers[1]),
                  std::string("X-Authorization:Id=") + c.id +
                      ",AccessKey=key,Signature=" + expected_signature(c.body, c.id, "/p/q", c.secret));
        telemetry_post_free_request(request);
    }
    clock_value = 1700000000;

    PostRequest *request = telemetry_post_alloc_request(&ctx);
    EXPECT_EQ(add_curl_request_signature(nullptr, "{}", "s", "/p"), -1);
    EXPECT_EQ(add_curl_request_signature(request, "", "s", "/p"), -1);
    EXPECT_EQ(add_curl_request_signature(request, "{}", "", "/p"), -1);
    EXPECT_EQ(add_curl_request_signature(request, "{}", nullptr, "/p"), -1);
    EXPECT_EQ(add_curl_request_signature(request, "{}", "s", ""), -1);
    EXPECT_EQ(request->header_count, 0U);
    request->header_count = kPostHeaderLines;
    EXPECT_EQ(add_curl_request_signature(request, "{}", "s", "/p"), -1);
    EXPECT_EQ(request->header_count, static_cast<uint32_t>(kPostHeaderLines));
}

TEST_F(PostRequestTest, body_that_cannot_be_added_fails) {
    PostRequest *request = telemetry_post_alloc_request(&ctx);
    const auto lines = logged_messages([&] {
        EXPECT_EQ(add_curl_request_content(nullptr, "x"), -1);
        EXPECT_EQ(add_curl_request_content(request, nullptr), -1);
        EXPECT_EQ(add_curl_request_content(request, ""), -1);
    });
    const std::vector<std::string> expected = {"invalid input!", "invalid input!", "invalid input!",
                                               "iot_events_append_data failed"};
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(request->body.used, 0);
    EXPECT_EQ(add_curl_request_content(request, "ab"), 0);
    EXPECT_EQ(add_curl_request_content(request, "c"), 0);
    EXPECT_STREQ(request->body.data, "abc");
}

TEST_F(PostRequestTest, transfers_that_end_in_one_poll_both_get_their_callback) {
    const auto count = [](PostRequest *request) {
        EXPECT_EQ(request->in_use, 1U);
        EXPECT_EQ(request->request_status, POST_REQUEST_FAILED);
        completed++;
    };
    PostRequest *first = start_transfer(count, kNoHost);
    PostRequest *second = start_transfer(count, kNoHost);
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

TEST_F(PostRequestTest, callback_may_start_a_transfer_in_another_slot) {
    const auto chain = [](PostRequest *request) {
        completed++;
        PostRequest *next = telemetry_post_alloc_request(request->owner);
        EXPECT_NE(next, request);
        telemetry_post_set_url(next, kNoHost, "next");
        next->on_complete = [](PostRequest *) { completed += 10; };
        telemetry_request_send(next);
    };
    poll_curl_status(&start_transfer(chain, kNoHost)->poll_timer);
    ASSERT_EQ(completed, 1);
    EXPECT_EQ(ctx.post_requests[0]->in_use, 0U);
    EXPECT_EQ(ctx.post_requests[1]->in_use, 1U);
    poll_curl_status(&ctx.post_requests[1]->poll_timer);
    EXPECT_EQ(completed, 11);
    EXPECT_EQ(requests_in_use(), 0);
}

// What never reached libcurl fails like any other transfer, from the loop and not inside the sender.
TEST_F(PostRequestTest, transfer_that_cannot_start_fails_once_at_its_next_tick) {
    const auto count = [](PostRequest *request) {
        EXPECT_EQ(request->request_status, POST_REQUEST_FAILED);
        completed++;
    };
    for (bool *fails : {&easy_init_fails, &add_handle_fails}) {
        completed = 0;
        *fails = true;
        PostRequest *request = start_transfer(count, kNoHost);
        *fails = false;
        EXPECT_EQ(completed, 0);
        ASSERT_TRUE(armed_for(&request->poll_timer, kPostPollMs));
        uloop_timeout_cancel(&request->poll_timer);
        request->poll_timer.cb(&request->poll_timer);
        EXPECT_EQ(completed, 1);
        EXPECT_EQ(request->in_use, 0U);
        EXPECT_FALSE(pending(&request->poll_timer));
        // The slot serves the next one.
        ASSERT_EQ(start_transfer(count, kNoHost), request);
        poll_curl_status(&request->poll_timer);
        EXPECT_EQ(completed, 2);
        EXPECT_EQ(requests_in_use(), 0);
    }
}

TEST_F(PostRequestTest, answer_arrives_whole_or_fails_its_transfer) {
    static std::string received;
    const auto keep = [](PostRequest *request) {
        completed++;
        received.assign(request->response.data == nullptr ? "" : request->response.data,
                        static_cast<size_t>(request->response.used));
    };
    const struct {
        size_t length;
        int32_t status;
    } cases[] = {
        {1, POST_REQUEST_OK},
        {200000, POST_REQUEST_OK},
        {10 << 20, POST_REQUEST_FAILED},
        {1024, POST_REQUEST_OK}, // the slot is as good as new
    };
    for (const auto &c : cases) {
        completed = 0;
        const std::string content(c.length, 'r');
        root.write("/answer", content);
        PostRequest *request = start_transfer(keep, "file://" + root.root());
        while (completed == 0)
            poll_curl_status(&request->poll_timer);
        EXPECT_EQ(request->request_status, c.status) << c.length;
        if (c.status == POST_REQUEST_OK) {
            EXPECT_EQ(received, content) << c.length;
        }
        EXPECT_LE(request->response.capacity, kPostMaxResponse + 1024);
    }
}

TEST_F(PostRequestTest, debug_level_shows_the_request) {
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    const auto lines = logged_messages([&] {
        PostRequest *request = telemetry_post_alloc_request(&ctx);
        telemetry_post_set_url(request, kNoHost, "x");
        copy_text(request->headers[0], "Content-Type: application/json");
        request->header_count = 1;
        add_curl_request_content(request, "{\"a\":1}");
        telemetry_request_send(request);
        poll_curl_status(&request->poll_timer);
    });
    telemetry_debug_level = TELEMETRY_LOG_INFO;
    const std::vector<std::string> expected = {
        "buffer not enough! need to re malloc 1024!",
        "POST: http://no host/x",
        "Content-Type: application/json",
        "{\"a\":1}",
        "buf_len:7",
        "default",
        "curl failed! code: 3",
        "curl response code: 0",
    };
    EXPECT_EQ(lines, expected);
}
