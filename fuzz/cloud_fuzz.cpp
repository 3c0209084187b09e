// A conversation with the cloud: pieces, each an answer of it, the end of a transfer without one, or a timer
// that runs out; and the text of a strategy. libcurl's transfers are this file's; everything else of the
// upload is the daemon's.
#include <deque>

#include <curl/curl.h>

#include "support/fuzz_target.h"
#include "telemetry_collect.h"
#include "telemetry_handles.h"
#include "telemetry_paths.h"
#include "telemetry_post.h"

static TelemetryCtx ctx;

static void set_clock(bool is_set) {
    const FuzzPlenty plenty;
    if (is_set)
        fuzz_root().write(kNtpSyncedPath, "");
    else
        std::filesystem::remove(fuzz_root().path(kNtpSyncedPath));
}

static void write_configuration() {
    fuzz_root().write("/etc/config/telemetry", "config basic 'basic'\n\toption enable 'on'\n"
                                               "config cloud 'cloud'\nconfig strategy 'strategy'\n");
}

static std::deque<CURL *> sent;
static std::deque<CURLMsg> ended;

extern "C" CURLMcode curl_multi_add_handle(CURLM *, CURL *easy) {
    const FuzzPlenty plenty;
    sent.push_back(easy);
    return CURLM_OK;
}

extern "C" CURLMcode curl_multi_remove_handle(CURLM *, CURL *) {
    return CURLM_OK;
}

extern "C" CURLMcode curl_multi_perform(CURLM *, int *) {
    return CURLM_OK;
}

extern "C" CURLMsg *curl_multi_info_read(CURLM *, int *) {
    static CURLMsg message;
    if (ended.empty())
        return nullptr;
    message = ended.front();
    ended.pop_front();
    return &message;
}

// The loop is C: nothing is thrown through it.
static void run_out(uloop_timeout *timer) noexcept {
    if (!timer->pending)
        return;
    uloop_timeout_cancel(timer);
    timer->cb(timer);
}

static void end_transfer(std::string_view body, CURLcode result) {
    if (sent.empty())
        return;
    CURL *easy = sent.front();
    sent.pop_front();
    char *owner = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &owner);
    auto *request = reinterpret_cast<PostRequest *>(owner);
    for (; !body.empty(); body.remove_prefix(std::min<size_t>(body.size(), 300)))
        write_response_data_(body.data(), 1, std::min<size_t>(body.size(), 300), request);
    {
        const FuzzPlenty plenty;
        ended.push_back({CURLMSG_DONE, easy, {.result = result}});
    }
    run_out(&request->poll_timer);
    require(request->in_use == 0);
}

// What libcurl never got ends by its timer.
static void end_unsent() {
    for (PostRequest *request : ctx.post_requests) {
        if (request->poll_timer.cb != poll_curl_status)
            run_out(&request->poll_timer);
    }
}

static void collect() {
    const FuzzPlenty plenty;
    if (ctx.collect_list == nullptr)
        ctx.collect_list = cJSON_CreateArray();
    cJSON_AddItemToArray(ctx.collect_list, cJSON_Parse(R"({"eid":1,"ep":{"a":1},"cnt":2})"));
    ctx.data_collect_count += 2;
}

static void take_step(const FuzzPiece &piece) {
    const uint32_t before = ctx.data_collect_count;
    if (piece.kind == 'a')
        end_transfer(piece.text, CURLE_OK);
    else if (piece.kind == 'b')
        end_transfer("", piece.text.empty() ? CURLE_OPERATION_TIMEDOUT : CURLE_COULDNT_CONNECT);
    else if (piece.kind == 'c' || piece.kind == 'd')
        run_out(piece.kind == 'c' ? &ctx.post_timer : &ctx.post_retry_timer);
    else if (piece.kind == 'e' || piece.kind == 'f')
        set_clock(piece.kind == 'e');
    else
        collect();
    end_unsent();
    // It never stalls, and what was collected stays until it has been accepted.
    require(!sent.empty() || ctx.post_timer.pending || ctx.post_retry_timer.pending);
    require(ctx.post_state <= TELEMETRY_POST_STATE_READY_FOR_UPLOAD && ctx.post_retry_count < 5);
    require(ctx.data_collect_count >= before || ctx.data_collect_count == 0);
}

static void run_sequence(const uint8_t *data, size_t size) {
    if (size == 0)
        call_without_arguments<telemetry_post_state_FSM, telemetry_post_init_state, telemetry_post_retry,
                               post_state_FSM_retry_cb, get_strategy_handle_error_code, post_refresh_key_cb,
                               post_get_strategy_cb, post_upload_data_cb, get_post_refresh_key_content,
                               get_post_get_strategy_content, get_post_collect_data_content,
                               telemetry_post_refresh_key, telemetry_post_data, telemetry_update_strategy>();
    write_configuration();
    set_clock(true);
    copy_text(ctx.post_api, "https://cloud.example/");
    ctx.post_interval = ctx.collect_interval_strategy1 = 60000;
    ctx.post_timer.cb = telemetry_post_data;
    telemetry_arm_post_timer(&ctx, ctx.post_interval);
    telemetry_post_enter_state(&ctx, TELEMETRY_POST_STATE_INIT);
    for (const FuzzPiece &piece : pieces_of({reinterpret_cast<const char *>(data), size}))
        take_step(piece);
}

static void end() {
    // The end of a transfer may start the next; without the clock that ends.
    set_clock(false);
    end_unsent();
    while (!sent.empty())
        end_transfer("", CURLE_GOT_NOTHING);
    for (uloop_timeout *timer : {&ctx.collect_timer, &ctx.post_timer, &ctx.post_retry_timer})
        uloop_timeout_cancel(timer);
    telemetry_clear_collect_list(&ctx);
    ctx.access_key[0] = ctx.access_secret[0] = ctx.strategy_id[0] = '\0';
}

static void run_strategy(const uint8_t *data, size_t size) {
    write_configuration();
    ctx.collect_interval_strategy1 = ctx.collect_interval_strategy2 = ctx.post_interval = 1;
    const std::string content(reinterpret_cast<const char *>(data), size);
    const bool unchanged = telemetry_update_strategy(&ctx, content.c_str()) != 0;
    require(!unchanged || (ctx.collect_interval_strategy1 == 1 && ctx.collect_interval_strategy2 == 1 &&
                           ctx.post_interval == 1));
}

static void start() {
    uloop_init();
    std::filesystem::create_directories(fuzz_root().path("/tmp/run"));
    fuzz_root().write(kWorkModePath, R"({"work_mode":"FAP"})");
    require(telemetry_init_post_request(&ctx) == 0);
}

static const FuzzTargets registered({{"cloud", run_sequence, mutate_pieces, start, end},
                                     {"strategy", run_strategy, nullptr, start, end}});
