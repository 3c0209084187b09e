// The three cloud calls: bodies, senders, and what their answers change.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <limits>
#include <string>

#include "telemetry_collect.h"
#include "telemetry_figures.h"
#include "telemetry_guarded.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_key_owner.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_post.h"
#include "telemetry_uci.h"
#include "telemetry_utils.h"

static constexpr char kDeviceType[] = "HOMEWIFISYSTEM";
static constexpr char kContentType[] = "Content-Type: application/json";

struct CloudCall {
    const char *name;        // for the log
    const char *signed_path; // the path below the base URL, with a "/" in front
    bool is_signed;
    char *(*build_body)(const TelemetryCtx *ctx);
    void (*on_complete)(PostRequest *request);
};

static constexpr CloudCall kRefreshKeyCall = {"access key", "/api/data/device/getAccessKey", false,
                                              get_post_refresh_key_content, post_refresh_key_cb};
static constexpr CloudCall kGetStrategyCall = {"strategy", "/api/data/device/strategy/getDataCollectStrategy",
                                               true, get_post_get_strategy_content, post_get_strategy_cb};
static constexpr CloudCall kUploadCall = {"upload", "/api/data/device/uploadBasicData", true,
                                          get_post_collect_data_content, post_upload_data_cb};

// --- Bodies ---

struct TextMember {
    const char *key;
    const char *value;
};

template <size_t N> static bool add_texts(cJSON *object, const TextMember (&members)[N]) {
    for (const TextMember &member : members) {
        if (cJSON_AddStringToObject(object, member.key, member.value) == nullptr)
            return false;
    }
    return true;
}

static bool has_context(const TelemetryCtx *ctx) {
    if (ctx != nullptr)
        return true;
    LOG_ERROR("param error");
    return false;
}

static char *print_body(bool complete, const JsonPtr &body) {
    if (!complete) {
        LOG_ERROR("cJSON_CreateObject failed");
        return nullptr;
    }
    char *text = telemetry_json_print(body.get()).release();
    if (text == nullptr)
        LOG_ERROR("cJSON_PrintUnformatted failed");
    return text;
}

static bool add_source(const TelemetryCtx *ctx, cJSON *body) {
    cJSON *source = cJSON_AddObjectToObject(body, "srp");
    const TextMember members[] = {
        {"di", ctx->dev_id},    {"dt", kDeviceType}, {"dhv", ctx->hw_version}, {"oemId", ctx->oem_id},
        {"dfv", ctx->firmware}, {"dm", ctx->model},  {"dcg", "router"},
    };
    return source != nullptr && add_texts(source, members);
}

// cJSON_AddItemReferenceToObject() loses the reference when there is no memory for its key.
static bool add_reference(cJSON *object, const cJSON *member) {
    JsonPtr reference(cJSON_CreateNull());
    if (!reference)
        return false;
    reference->type = (member->type & ~cJSON_StringIsConst) | cJSON_IsReference;
    reference->child = member->child;
    reference->valuestring = member->valuestring;
    reference->valueint = member->valueint;
    reference->valuedouble = member->valuedouble;
    if (!cJSON_AddItemToObject(object, member->string, reference.get()))
        return false;
    static_cast<void>(reference.release()); // the object's now
    return true;
}

// The counts are bookkeeping: the list keeps them, the cloud never sees them. The body only refers to the
// rest of each record: a copy would be as large as all that was collected.
static bool add_record(cJSON *records, const cJSON *record) {
    JsonPtr sent(cJSON_CreateObject());
    cJSON *member = nullptr;
    cJSON_ArrayForEach(member, record) {
        if (strcmp(member->string, "cnt") != 0 && !add_reference(sent.get(), member))
            return false;
    }
    if (!cJSON_AddItemToArray(records, sent.get()))
        return false;
    static_cast<void>(sent.release()); // the body's now
    return true;
}

static bool add_records(const TelemetryCtx *ctx, cJSON *body) {
    cJSON *records = ctx->collect_list != nullptr ? cJSON_AddArrayToObject(body, "el") : nullptr;
    if (records == nullptr)
        return false;
    const cJSON *record = nullptr;
    cJSON_ArrayForEach(record, ctx->collect_list) {
        if (!add_record(records, record))
            return false;
    }
    return true;
}

// --- Senders ---

static int prepare_call(PostRequest *request, const CloudCall &call) {
    const TelemetryCtx *ctx = request->owner;
    telemetry_post_set_timeout(request, kPostTimeoutMs);
    telemetry_post_set_url(request, ctx->post_api, call.signed_path + 1);
    copy_text(request->headers[request->header_count], kContentType);
    request->header_count++;
    const TextPtr body(call.build_body(ctx));
    if (body == nullptr) {
        LOG_ERROR("cJSON_PrintUnformatted failed");
        return -1;
    }
    if (call.is_signed &&
        add_curl_request_signature(request, body.get(), ctx->access_secret, call.signed_path) != 0) {
        LOG_ERROR("add_curl_request_signature failed");
        return -1;
    }
    if (add_curl_request_content(request, body.get()) != 0) {
        LOG_ERROR("add_curl_request_content failed");
        return -1;
    }
    return 0;
}

// A second upload may start while the first is on its way.
static TelemetrySendingFigures *sending_of(const PostRequest *request) {
    const auto &slots = request->owner->post_requests;
    const auto *const found = std::find(std::begin(slots), std::end(slots), request);
    return &telemetry_figures.sending[found == std::end(slots) ? 0 : found - std::begin(slots)];
}

static void note_upload_start(const TelemetryCtx *ctx, const PostRequest *request) {
    TelemetrySendingFigures *sending = sending_of(request);
    *sending = {};
    sending->upload.records = static_cast<uint32_t>(cJSON_GetArraySize(ctx->collect_list));
    sending->upload.items = ctx->data_collect_count;
    sending->upload.bytes = static_cast<uint32_t>(request->body.used);
    sending->since = telemetry_monotonic_ms();
    telemetry_figures.bytes_sent += sending->upload.bytes;
}

// Items that were collected after the upload on its way had been built: its success drops them with the list.
static uint32_t items_since_sending(const PostRequest *request) {
    const TelemetryCtx *ctx = request->owner;
    const uint32_t sent = sending_of(request)->upload.items;
    return ctx->data_collect_count > sent ? ctx->data_collect_count - sent : 0;
}

// -1: nothing was sent, and no slot is held.
static int send_call(TelemetryCtx *ctx, const CloudCall &call) {
    PostRequest *request = telemetry_post_alloc_request(ctx);
    if (request == nullptr) {
        LOG_ERROR("no available request");
        return -1;
    }
    if (telemetry_guarded(call.name, -1, [&] { return prepare_call(request, call); }) != 0) {
        telemetry_post_free_request(request);
        return -1;
    }
    request->on_complete = call.on_complete;
    if (call.on_complete == post_upload_data_cb)
        note_upload_start(ctx, request);
    telemetry_request_send(request);
    return 0;
}

// The two calls of the state machine: what could not be sent is tried again without counting as a retry.
static void send_or_wait(TelemetryCtx *ctx, const CloudCall &call, const char *closed_message) {
    if (!has_context(ctx))
        return;
    const bool known =
        telemetry_guarded(call.name, [] { telemetry_figures.obstacle = telemetry_collect_obstacle(); });
    if (known && telemetry_figures.obstacle != nullptr)
        LOG_DEBUG("%s", closed_message);
    else if (known && send_call(ctx, call) == 0)
        return;
    if (telemetry_figures.obstacle != nullptr)
        LOG_DEBUG("reason: %s", telemetry_figures.obstacle);
    telemetry_post_arm_retry_timer(ctx, kPostWaitMs);
}

static bool send_upload(TelemetryCtx *ctx) {
    telemetry_figures_obstacle(ctx);
    if (telemetry_figures.obstacle != nullptr) {
        LOG_DEBUG("skip upload");
        LOG_DEBUG("reason: %s", telemetry_figures.obstacle);
        return false;
    }
    if (ctx->post_state != TELEMETRY_POST_STATE_READY_FOR_UPLOAD || ctx->data_collect_count == 0) {
        LOG_ERROR("insufficient state or no data, skip upload");
        LOG_DEBUG("reason: state %u, %u items", ctx->post_state, ctx->data_collect_count);
        return false;
    }
    return send_call(ctx, kUploadCall) == 0;
}

// --- Answers ---

// One line for every call that failed: how the transfer ended, and what the service said.
static void tell_failure(const PostRequest *request, const CloudCall &call, const cJSON *answer,
                         int error_code) {
    const std::string code = answer != nullptr ? std::to_string(error_code) : "none";
    LOG_ERROR("%s call failed: %s, HTTP status %ld, error_code %s", call.name,
              telemetry_figures.transport != nullptr ? telemetry_figures.transport : "not sent",
              request->response_code, code.c_str());
}

// The upload that was on its way is over.
static void note_upload_end(const PostRequest *request, const cJSON *answer, int error_code) {
    TelemetryFigures *figures = &telemetry_figures;
    TelemetryUploadFigures upload = sending_of(request)->upload;
    upload.time = time(nullptr);
    upload.ms = static_cast<uint32_t>(telemetry_monotonic_ms() - sending_of(request)->since);
    upload.http_status = request->response_code;
    upload.has_error_code = answer != nullptr;
    upload.error_code = answer != nullptr ? error_code : 0;
    upload.transport = figures->transport;
    const bool accepted = answer != nullptr && error_code == 0;
    if (accepted) {
        figures->accepted = upload;
        figures->uploads_accepted++;
        LOG_INFO("upload accepted: %u records, %u bytes, %u ms", upload.records, upload.bytes, upload.ms);
    } else {
        figures->failed = upload;
        figures->uploads_failed++;
        tell_failure(request, kUploadCall, answer, error_code);
    }
}

// The parsed answer and its error_code; null when there is none that can be judged.
static JsonPtr parse_answer(const PostRequest *request, int *error_code) {
    if (request->request_status != POST_REQUEST_OK || request->response.data == nullptr ||
        request->response.used == 0) {
        LOG_ERROR("request_status error or response error");
        return nullptr;
    }
    LOG_DEBUG("response:%s", request->response.data);
    JsonPtr answer(cJSON_Parse(request->response.data));
    if (answer == nullptr) {
        LOG_ERROR("cJSON_Parse failed");
        return nullptr;
    }
    const cJSON *code = cJSON_GetObjectItemCaseSensitive(answer.get(), "error_code");
    if (!cJSON_IsNumber(code) || code->valuedouble != std::trunc(code->valuedouble)) {
        LOG_ERROR("receive error, error_code invalid");
        return nullptr;
    }
    *error_code = code->valueint;
    return answer;
}

static bool has_owner(const PostRequest *request) {
    if (request != nullptr && request->owner != nullptr)
        return true;
    LOG_ERROR("param error");
    return false;
}

// Text of a member; null, with the message that fits, when it is missing or something else.
static const char *get_text_member(const cJSON *object, const char *name, const char *missing,
                                   const char *not_text) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, name);
    if (cJSON_IsString(item))
        return item->valuestring;
    LOG_ERROR("%s", item == nullptr ? missing : not_text);
    return nullptr;
}

struct CredentialRow {
    const char *name; // of the answer's member and of the option that keeps it
    const char *missing;
    const char *not_text;
    char (TelemetryCtx::*field)[129];
};

static constexpr CredentialRow kCredentials[] = {
    {"accessKey", "parse accessKey failed", "no accessKey", &TelemetryCtx::access_key},
    {"accessSecret", "parse accessSecret failed", "no access_secret", &TelemetryCtx::access_secret},
};

// A credential stays stored when a later one is missing.
static int store_credentials(TelemetryCtx *ctx, const cJSON *answer, int error_code) {
    if (error_code != 0) {
        LOG_ERROR("receive error, error_code=%d", error_code);
        return -1;
    }
    const cJSON *result = cJSON_GetObjectItemCaseSensitive(answer, "result");
    if (result == nullptr) {
        LOG_ERROR("parse result failed");
        return -1;
    }
    if (cJSON_GetObjectItemCaseSensitive(result, "expiresIn") == nullptr) {
        LOG_ERROR("parse expiresIn failed");
        return -1;
    }
    bool written = true;
    for (const CredentialRow &row : kCredentials) {
        const char *value = get_text_member(result, row.name, row.missing, row.not_text);
        if (value == nullptr)
            return -1;
        if (&row == kCredentials)
            telemetry_doubt_key_owner(ctx);
        copy_text(ctx->*row.field, value);
        if (telemetry_set_uci_value("telemetry", "cloud", row.name, ctx->*row.field, TELEMETRY_UCI_SYSTEM) !=
            0) {
            LOG_ERROR("telemetry_set_uci_value error");
            written = false;
        }
    }
    // Without both a key may stand there beside another one's secret.
    telemetry_guarded(kRefreshKeyCall.name,
                      [&] { (written ? telemetry_keep_key_owner : telemetry_doubt_key_owner)(ctx); });
    return 0;
}

static int store_strategy(TelemetryCtx *ctx, const cJSON *answer) {
    const cJSON *result = cJSON_GetObjectItemCaseSensitive(answer, "result");
    if (result == nullptr) {
        LOG_DEBUG("strategy not changed");
        return 0;
    }
    const char *id = get_text_member(result, "strategyId", "parse strategyId failed", "non strategyId");
    if (id == nullptr)
        return -1;
    if (strcmp(id, ctx->strategy_id) == 0) {
        LOG_DEBUG("strategyID not changed");
        return 0;
    }
    // Before the content is looked at: a strategy that cannot be applied is not offered again.
    copy_text(ctx->strategy_id, id);
    LOG_DEBUG("new strategy, ID=%s", ctx->strategy_id);
    const char *content =
        get_text_member(result, "strategyContent", "parse strategyContent failed", "non content");
    if (content == nullptr)
        return -1;
    if (telemetry_update_strategy(ctx, content) != 0) {
        LOG_ERROR("handle strategy content failed");
        return -1;
    }
    return 0;
}

struct StrategyMinutes {
    int32_t collect1;
    int32_t collect2;
    int32_t post;
};

// A value that is not there, or does not fit, counts as 0.
static StrategyMinutes parse_strategy(const char *content) {
    long long values[3] = {};
    sscanf(content, "collect_interval_strategy1=%lld,collect_interval_strategy2=%lld,post_interval=%lld\n",
           &values[0], &values[1], &values[2]);
    for (long long &value : values) {
        if (value < std::numeric_limits<int32_t>::min() || value > std::numeric_limits<int32_t>::max())
            value = 0;
    }
    return {static_cast<int32_t>(values[0]), static_cast<int32_t>(values[1]),
            static_cast<int32_t>(values[2])};
}

static int save_strategy(const TelemetryCtx *ctx, const StrategyMinutes &minutes) {
    const struct {
        const char *option;
        std::string value;
    } rows[] = {
        {"strategyID", ctx->strategy_id},
        {"collect_interval", std::to_string(minutes.collect1)},
        {"collect_interval_2", std::to_string(minutes.collect2)},
        {"post_interval", std::to_string(minutes.post)},
    };
    // One by one: what was written before a failure stays.
    for (const auto &row : rows) {
        if (telemetry_set_uci_value("telemetry", "strategy", row.option, row.value.c_str(),
                                    TELEMETRY_UCI_SYSTEM) != 0) {
            LOG_ERROR("telemetry_set_uci_value error");
            return -1;
        }
    }
    return 0;
}

// 32-bit arithmetic, which wraps; the timers refuse what makes no interval.
static uint32_t minutes_to_ms(int32_t minutes) {
    if (minutes > static_cast<int32_t>(INT32_MAX / kMinuteMs))
        LOG_ERROR("interval of %d minutes is not usable", minutes);
    return static_cast<uint32_t>(minutes) * kMinuteMs;
}

// --- Interface ---

char *get_post_refresh_key_content(const TelemetryCtx *ctx) {
    if (!has_context(ctx))
        return nullptr;
    const JsonPtr body(cJSON_CreateObject());
    const TextMember members[] = {{"deviceId", ctx->dev_id}, {"hwId", ctx->hw_id}, {"mac", ctx->dev_mac}};
    return print_body(add_texts(body.get(), members), body);
}

char *get_post_get_strategy_content(const TelemetryCtx *ctx) {
    if (!has_context(ctx))
        return nullptr;
    const JsonPtr body(cJSON_CreateObject());
    const TextMember members[] = {{"deviceId", ctx->dev_id}, {"deviceType", kDeviceType}};
    bool complete = add_texts(body.get(), members);
    if (complete && ctx->strategy_id[0] != '\0') {
        LOG_DEBUG("strategyId %s", ctx->strategy_id);
        complete = cJSON_AddStringToObject(body.get(), "strategyId", ctx->strategy_id) != nullptr;
    }
    return print_body(complete, body);
}

char *get_post_collect_data_content(const TelemetryCtx *ctx) {
    if (!has_context(ctx))
        return nullptr;
    const JsonPtr body(cJSON_CreateObject());
    const TextMember members[] = {{"sr", "device"}};
    const bool complete =
        add_texts(body.get(), members) && add_source(ctx, body.get()) && add_records(ctx, body.get());
    return print_body(complete, body);
}

void telemetry_post_refresh_key(TelemetryCtx *ctx) {
    send_or_wait(ctx, kRefreshKeyCall, "dont refresh key! wait for a while");
}

void telemetry_post_get_strategy(TelemetryCtx *ctx) {
    send_or_wait(ctx, kGetStrategyCall, "dont get strategy! wait for a while");
}

void telemetry_post_data(uloop_timeout *timer) {
    if (timer == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    TelemetryCtx *ctx = TELEMETRY_RECORD_OF(timer, TelemetryCtx, post_timer);
    const bool sent = telemetry_guarded(kUploadCall.name, false, [&] { return send_upload(ctx); });
    telemetry_arm_post_timer(ctx, ctx->post_interval);
    if (sent)
        telemetry_guarded(kUploadCall.name, [] { write_post_done_to_file(2); });
}

void post_refresh_key_cb(PostRequest *request) {
    if (!has_owner(request))
        return;
    int error_code = 0;
    const JsonPtr answer = parse_answer(request, &error_code);
    const auto store = [&] { return store_credentials(request->owner, answer.get(), error_code); };
    if (answer == nullptr || telemetry_guarded(kRefreshKeyCall.name, -1, store) != 0) {
        tell_failure(request, kRefreshKeyCall, answer.get(), error_code);
        telemetry_post_retry(request->owner);
        return;
    }
    telemetry_figures.keys_fetched++;
    LOG_INFO("new access key");
    telemetry_post_enter_state(request->owner, TELEMETRY_POST_STATE_GET_STRATEGY);
}

void post_get_strategy_cb(PostRequest *request) {
    if (!has_owner(request))
        return;
    int error_code = 0;
    const JsonPtr answer = parse_answer(request, &error_code);
    const bool refused = answer != nullptr && error_code != 0;
    char known_id[sizeof(TelemetryCtx::strategy_id)];
    copy_text(known_id, request->owner->strategy_id);
    const uint32_t refused_memory = telemetry_memory_failures();
    const auto store = [&] { return store_strategy(request->owner, answer.get()); };
    if (!refused && answer != nullptr && telemetry_guarded(kGetStrategyCall.name, -1, store) == 0) {
        telemetry_post_enter_state(request->owner, TELEMETRY_POST_STATE_READY_FOR_UPLOAD);
        return;
    }
    if (telemetry_memory_failures() != refused_memory) // otherwise it would not be offered again
        copy_text(request->owner->strategy_id, known_id);
    tell_failure(request, kGetStrategyCall, answer.get(), error_code);
    if (refused)
        get_strategy_handle_error_code(request->owner, error_code);
    else
        telemetry_post_retry(request->owner);
}

void post_upload_data_cb(PostRequest *request) {
    if (!has_owner(request))
        return;
    int error_code = 0;
    const JsonPtr answer = parse_answer(request, &error_code);
    note_upload_end(request, answer.get(), error_code);
    if (answer == nullptr) {
        telemetry_post_retry(request->owner);
    } else if (error_code != 0) {
        upload_data_handle_error_code(request->owner, error_code);
    } else {
        telemetry_figures.items_in_flight += items_since_sending(request);
        telemetry_clear_collect_list(request->owner);
        telemetry_post_reset_retry(request->owner);
        telemetry_guarded(kUploadCall.name, [&] { telemetry_note_key_owner(request->owner); });
    }
    telemetry_figures_tell("uploaded");
}

int telemetry_update_strategy(TelemetryCtx *ctx, const char *content) {
    if (ctx == nullptr || content == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    const StrategyMinutes minutes = parse_strategy(content);
    if (minutes.collect1 < 1 || minutes.collect2 < 1 || minutes.post <= 0) {
        LOG_ERROR("strategyContent failed");
        return -1;
    }
    if (save_strategy(ctx, minutes) != 0)
        return -1;
    const uint32_t collect1_ms = minutes_to_ms(minutes.collect1);
    if (collect1_ms != ctx->collect_interval_strategy1) {
        ctx->collect_interval_strategy1 = collect1_ms;
        telemetry_arm_collect_timer(ctx, collect1_ms);
    }
    ctx->collect_interval_strategy2 = minutes_to_ms(minutes.collect2);
    ctx->post_interval = minutes_to_ms(minutes.post);
    LOG_INFO("strategy %s: collect every %d minutes, slow settings every %d, upload every %d",
             ctx->strategy_id, minutes.collect1, minutes.collect2, minutes.post);
    return 0;
}
