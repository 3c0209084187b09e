// A context with its request pool, and what tests of the upload need around it. No transfer leaves the
// process: the base URL has no host, or names files of the test's root.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "sysroot.h"
#include "telemetry_collect.h"
#include "telemetry_handles.h"
#include "telemetry_post.h"

class PostTest : public SysrootTest {
  protected:
    static constexpr char kNoHost[] = "http://no host";

    PostTest() {
        uloop_init();
        memset(&ctx, 0, sizeof(ctx));
        telemetry_init_post_request(&ctx);
        ctx.collect_timer.cb = [](uloop_timeout *) {};
        ctx.post_timer.cb = telemetry_post_data;
        ctx.post_interval = 600000;
        copy_text(ctx.dev_id, "DEV");
        copy_text(ctx.post_api, kNoHost);
        copy_text(ctx.access_key, "key");
        copy_text(ctx.access_secret, "secret");
        root.write_config("telemetry", "config basic 'basic'\n\toption enable 'on'\n"
                                       "config cloud 'cloud'\n\toption cloud_url 'cloud'\n"
                                       "config strategy 'strategy'\n\toption collect_interval '15'\n");
        root.write("/tmp/work_mode", R"({"work_mode":"FAP"})");
        open_gate();
        root.write_backup("");
    }

    ~PostTest() override {
        drop_requests();
        cancel_timers();
        telemetry_clear_collect_list(&ctx);
        for (PostRequest *slot : ctx.post_requests) {
            free(slot->body.data);
            free(slot->response.data);
            free(slot);
        }
        uloop_done();
    }

    // Collection and upload are not allowed until the clock is synchronised.
    void close_gate() {
        root.remove("/tmp/run/ntpd.uptime");
    }

    void open_gate() {
        root.write("/tmp/run/ntpd.uptime", "1");
    }

    void cancel_timers() {
        uloop_timeout_cancel(&ctx.collect_timer);
        uloop_timeout_cancel(&ctx.post_timer);
        uloop_timeout_cancel(&ctx.post_retry_timer);
    }

    // Ends every transfer without its callback.
    void drop_requests() {
        for (PostRequest *slot : ctx.post_requests)
            slot->on_complete = nullptr;
        for (PostRequest *slot : ctx.post_requests) {
            while (slot->easy != nullptr || slot->finished != 0)
                poll_curl_status(&slot->poll_timer);
            uloop_timeout_cancel(&slot->poll_timer);
            if (slot->in_use != 0)
                telemetry_post_free_request(slot);
        }
    }

    int requests_in_use() const {
        int count = 0;
        for (const PostRequest *slot : ctx.post_requests)
            count += static_cast<int>(slot->in_use);
        return count;
    }

    // The slot whose transfer runs with this completion callback.
    PostRequest *sent(void (*on_complete)(PostRequest *)) const {
        for (PostRequest *slot : ctx.post_requests) {
            if (slot->in_use != 0 && slot->easy != nullptr && slot->on_complete == on_complete)
                return slot;
        }
        return nullptr;
    }

    void add_record(const char *json) {
        if (ctx.collect_list == nullptr)
            ctx.collect_list = cJSON_CreateArray();
        cJSON *record = cJSON_Parse(json);
        ctx.data_collect_count +=
            static_cast<uint32_t>(cJSON_GetObjectItemCaseSensitive(record, "cnt")->valueint);
        cJSON_AddItemToArray(ctx.collect_list, record);
    }

    // Runs a completion callback as the transport does, with a slot of the pool.
    void answer(void (*on_complete)(PostRequest *), int32_t status, const std::string &response) {
        PostRequest *slot = telemetry_post_alloc_request(&ctx);
        slot->request_status = status;
        if (!response.empty())
            telemetry_post_append_data(&slot->response, response.data(),
                                       static_cast<int32_t>(response.size()));
        on_complete(slot);
        telemetry_post_free_request(slot);
    }

    TelemetryCtx ctx;
};

// The timer is pending, `ms` from now less what the test has used up.
inline ::testing::AssertionResult armed_for(uloop_timeout *timer, int64_t ms) {
    const int64_t left = uloop_timeout_remaining64(timer);
    if (left > ms - 900 && left <= ms)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << left << " ms left, expected " << ms;
}

inline bool pending(uloop_timeout *timer) {
    return uloop_timeout_remaining64(timer) >= 0;
}
