#include "telemetry_collect.h"

#include <cstddef>
#include <ctime>
#include <iterator>
#include <new>

#include "collectors.h"
#include "telemetry_figures.h"
#include "telemetry_guarded.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_repeat.h"
#include "telemetry_pre_collect.h"
#include "telemetry_uci_package.h"
#include "telemetry_utils.h"

struct CollectModule {
    const char *name; // "eid" of its records
    TelemetryCollector collect;
};

// In the order of a cycle, which is the order of its records.
static constexpr CollectModule kModules[] = {
    {"internet_info", collect_internet_info},
    {"ecomode_info", collect_ecomode_info},
    {"iptv_info", collect_iptv_info},
    {"qos_info", collect_qos_info},
    {"quicksetup_info", collect_quicksetup_info},
    {"client_info", collect_client_list},
    {"device_info", collect_device_list},
    {"system_info", collect_system_info},
    {"wireless_host_info", collect_wireless_host_info},
    {"wireless_guest_info", collect_wireless_guest_info},
    {"wireless_iot_info", collect_wireless_iot_info},
    {"cloud_info", collect_cloud_info},
    {"advanced_info", collect_advanced_info},
    {"restart_info", collect_restart_info},
    {"usb_info", collect_usb_info},
    {"afc_info", collect_afc_info},
    {"havenguard_info_v2", collect_havenguard_v2_info},
};

static constexpr uint32_t kCollectCountWrap = 2147483647;

// --- The list ---

int collect_list_exceeds(const TelemetryCtx *ctx, size_t limit) {
    if (ctx == nullptr) {
        LOG_ERROR("param error");
        return 0;
    }
    const long length = telemetry_json_length(ctx->collect_list);
    return length >= 0 && static_cast<size_t>(length) >= limit;
}

int delect_oldest_data_list(TelemetryCtx *ctx) {
    if (ctx == nullptr) {
        LOG_DEBUG("invalid input!");
        return -1;
    }
    LOG_DEBUG("delect oldest data list");
    if (cJSON_GetArraySize(ctx->collect_list) < 1)
        return 0;
    const cJSON *oldest = cJSON_GetArrayItem(ctx->collect_list, 0);
    if (oldest == nullptr) {
        LOG_ERROR("cJSON_GetArrayItem failed");
        return -1;
    }
    const cJSON *items = cJSON_GetObjectItem(oldest, "cnt");
    const int removed = cJSON_IsNumber(items) && items->valueint > 0 ? items->valueint : 0;
    cJSON_DeleteItemFromArray(ctx->collect_list, 0);
    // Never below 0: a count that wraps around would make the shrink loop drop everything.
    const uint32_t items_removed = static_cast<uint32_t>(removed);
    ctx->data_collect_count -=
        items_removed < ctx->data_collect_count ? items_removed : ctx->data_collect_count;
    return removed;
}

void shrink_collect_data_list(TelemetryCtx *ctx) {
    if (ctx == nullptr) {
        LOG_DEBUG("invalid input!");
        return;
    }
    const uint32_t target = static_cast<uint32_t>(2 * static_cast<uint64_t>(ctx->data_collect_count) / 3);
    LOG_DEBUG("total %d, aim to shrink to %d", static_cast<int>(ctx->data_collect_count),
              static_cast<int>(target));
    // An empty list ends it too, so that a count that does not fit the list cannot hold the loop for ever.
    while (ctx->data_collect_count > target && cJSON_GetArraySize(ctx->collect_list) > 0) {
        if (delect_oldest_data_list(ctx) < 0)
            break;
    }
    LOG_DEBUG("after shrink, total count is %d", static_cast<int>(ctx->data_collect_count));
}

void telemetry_clear_collect_list(TelemetryCtx *ctx) {
    if (ctx == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    telemetry_figures_dropped(ctx->data_collect_count);
    ctx->data_collect_count = 0;
    cJSON_Delete(ctx->collect_list);
    ctx->collect_list = nullptr;
}

// --- The cycle ---

// Takes the payload, also when the record cannot be completed.
static bool complete_record(cJSON *record, const char *module, time_t collected_at, JsonPtr payload,
                            uint32_t count) {
    if (cJSON_AddStringToObject(record, "eid", module) == nullptr ||
        cJSON_AddNumberToObject(record, "ct", static_cast<double>(collected_at)) == nullptr ||
        !cJSON_AddItemToObject(record, "ep", payload.get()))
        return false;
    static_cast<void>(payload.release()); // the record's now
    return cJSON_AddNumberToObject(record, "cnt", count) != nullptr;
}

void telemetry_collect_data_by_module(TelemetryCtx *ctx, CollectedDataList *list, const char *module,
                                      TelemetryCollector collector) {
    const time_t collected_at = time(nullptr);
    if (ctx == nullptr || list == nullptr || module == nullptr || collector == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    JsonPtr record(cJSON_CreateObject());
    JsonPtr payload(cJSON_CreateObject());
    if (record == nullptr || payload == nullptr) {
        LOG_ERROR("cJSON_CreateObject failed");
        return;
    }
    LOG_DEBUG("start to collect %s!", module);
    const TelemetryRepeatTopic topic(module);
    uint32_t count = 0;
    const int64_t begin_ms = telemetry_monotonic_ms();
    const uint32_t refused = telemetry_memory_failures();
    // The collector reads each package once, and what it records is committed when it ends.
    int result = telemetry_guarded(module, -1, [&] {
        const TelemetryUciScope scope;
        const int collected = collector(ctx, payload.get(), &count);
        const bool whole = collected != 0 || count < 1 ||
                           complete_record(record.get(), module, collected_at, std::move(payload), count);
        if (!whole || telemetry_memory_failures() != refused)
            throw std::bad_alloc(); // the scope puts back what it recorded as reported
        return collected;
    });
    if (telemetry_memory_failures() != refused) { // what is missing in it cannot be told
        LOG_ERROR("no memory for the record of %s", module);
        result = -1;
    }
    telemetry_figures_module(module, result, result == 0 ? count : 0,
                             static_cast<uint32_t>(telemetry_monotonic_ms() - begin_ms));
    if (result != 0 || count < 1) {
        LOG_DEBUG("collect nothing of %s!", module);
        return;
    }
    topic.ran();
    if (!cJSON_AddItemToArray(list, record.get())) {
        LOG_ERROR("%s has no list for its record", module);
        return;
    }
    static_cast<void>(record.release()); // the list's now
    ctx->data_collect_count += count;
    telemetry_figures.records++;
    telemetry_figures.items += count;
}

void telemetry_collect_all_modules(TelemetryCtx *ctx) {
    if (ctx == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    const uint32_t refused = telemetry_memory_failures();
    // A snapshot in parts is used as it is: each collector copes with what is missing.
    telemetry_guarded("snapshot", [&] { telemetry_pre_collect_info(ctx); });
    const bool whole = telemetry_memory_failures() == refused;
    if (!whole)
        LOG_ERROR("no memory for the snapshot: a cycle without records");
    const TelemetryUciCycle cycle;
    for (const CollectModule &module : kModules) {
        if (whole)
            telemetry_collect_data_by_module(ctx, ctx->collect_list, module.name, module.collect);
    }
    telemetry_free_pre_collect_info();
}

// 1 when a cadence of `interval` ms is due after `count` cycles of `cycle` ms. Both intervals count as signed
// 32-bit numbers; one shorter than a cycle, and a cycle of 0, have the ratio 0 and are never due.
static uint32_t is_cadence_due(uint32_t count, uint32_t interval, uint32_t cycle) {
    const int64_t signed_cycle = static_cast<int32_t>(cycle);
    const int64_t ratio = signed_cycle == 0 ? 0 : static_cast<int32_t>(interval) / signed_cycle;
    if (ratio == 0)
        return count == 0;
    return static_cast<int64_t>(count) % ratio == 0;
}

void telemetry_increase_collect_count_and_update_next_collect_strategy(TelemetryCtx *ctx) {
    if (ctx == nullptr) {
        LOG_DEBUG("invalid");
        return;
    }
    ctx->collect_count++;
    ctx->collect_stgy2_now =
        is_cadence_due(ctx->collect_count, ctx->collect_interval_strategy2, ctx->collect_interval_strategy1);
    ctx->collect_periodic_now =
        is_cadence_due(ctx->collect_count, ctx->collect_interval_periodic, ctx->collect_interval_strategy1);
    if (ctx->collect_count == kCollectCountWrap)
        ctx->collect_count = 0;
}

static void keep_list_bounded(TelemetryCtx *ctx) {
    if (collect_list_exceeds(ctx, kMaxBackUpLength)) {
        LOG_DEBUG("collect data excceed max back up len %d! need to shrink now",
                  static_cast<int>(kMaxBackUpLength));
        const uint32_t before = ctx->data_collect_count;
        shrink_collect_data_list(ctx);
        const uint32_t dropped = before - ctx->data_collect_count;
        telemetry_figures.items_shrunk += dropped;
        telemetry_figures_dropped(dropped);
        LOG_INFO("the list is longer than %d bytes: %u of %u items are dropped, the oldest first",
                 static_cast<int>(kMaxBackUpLength), dropped, before);
    }
    if (collect_list_exceeds(ctx, kUploadThreshold)) {
        LOG_DEBUG("collect data excceed upload threshold %d! need to upload now",
                  static_cast<int>(kUploadThreshold));
        telemetry_post_soon(ctx);
    }
}

static void run_cycle(TelemetryCtx *ctx) {
    if (const char *obstacle = telemetry_figures_obstacle(ctx); obstacle != nullptr) {
        LOG_DEBUG("skip current collect");
        LOG_DEBUG("reason: %s", obstacle);
        return;
    }
    if (ctx->collect_list == nullptr)
        ctx->collect_list = cJSON_CreateArray();
    if (ctx->collect_list == nullptr) {
        LOG_ERROR("get collect_list cJSON failed!");
        return;
    }
    const TelemetryRepeatTopic snapshot("snapshot");
    snapshot.ran();
    write_post_done_to_file(1);
    const int64_t begin_ms = telemetry_monotonic_ms();
    telemetry_figures.module_count = 0;
    telemetry_collect_all_modules(ctx);
    telemetry_increase_collect_count_and_update_next_collect_strategy(ctx);
    keep_list_bounded(ctx);
    telemetry_figures.collected = time(nullptr);
    telemetry_figures.collect_ms = static_cast<uint32_t>(telemetry_monotonic_ms() - begin_ms);
    telemetry_figures.cycles++;
    telemetry_figures_tell("collected");
}

void telemetry_collect_data(uloop_timeout *timer) {
    if (timer == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    TelemetryCtx *ctx = TELEMETRY_RECORD_OF(timer, TelemetryCtx, collect_timer);
    telemetry_guarded("collection", [&] { run_cycle(ctx); });
    telemetry_memory_give_back();
    telemetry_arm_collect_timer(ctx, ctx->collect_interval_strategy1);
}
