// The one record that holds the daemon's state. It lives for the whole run; everything reaches it by
// argument, timer callbacks by the place of their timer in it.
#pragma once

#include <cstdint>
#include <type_traits>

#include <cjson/cJSON.h>

#include "telemetry_platform_libs.h"

struct PostRequest;

inline constexpr int kPostRequestCount = 8;
inline constexpr uint32_t kMinuteMs = 60000;
inline constexpr uint32_t kDefaultCollectInterval1Ms = 900000;
inline constexpr uint32_t kDefaultCollectInterval2Ms = 86400000;
inline constexpr uint32_t kPeriodicCollectIntervalMs = 14400000;
inline constexpr uint32_t kDefaultPostIntervalMs = 14400000;
// Delay of a collection or an upload that is asked for "now".
inline constexpr uint32_t kSoonMs = 100;

// An array of records, oldest first: see telemetry_collect.h.
using CollectedDataList = cJSON;

enum TelemetryPostState : uint32_t {
    TELEMETRY_POST_STATE_INIT = 0,
    TELEMETRY_POST_STATE_REFRESH_KEY = 1,
    TELEMETRY_POST_STATE_GET_STRATEGY = 2,
    TELEMETRY_POST_STATE_READY_FOR_UPLOAD = 3,
};

struct TelemetryCtx {
    // Identity, from the firmware tool.
    char dev_id[65];
    char hw_id[65];
    char dev_mac[65]; // upper case hexadecimal, no separators
    char hw_version[65];
    char oem_id[65];
    char firmware[65];
    char model[65];
    // Cloud access, from the configuration and from the cloud.
    char strategy_id[129];
    char post_api[2049];
    char access_key[129];
    char access_secret[129];
    // Collection.
    CollectedDataList *collect_list;     // owned; null until the first cycle that is allowed to collect
    uint32_t post_state;                 // TelemetryPostState
    uint32_t data_collect_count;         // items in collect_list: the sum of its "cnt"
    uint32_t collect_count;              // cycles run
    uint32_t collect_interval_strategy1; // ms
    uint32_t collect_interval_strategy2; // ms
    uint32_t collect_interval_periodic;  // ms, fixed
    uint32_t collect_stgy2_now;          // 1: the next cycle collects the strategy-2 modules
    uint32_t collect_periodic_now;       // 1: the next cycle collects the periodic items
    uloop_timeout collect_timer;
    // Upload.
    uint32_t post_interval;                        // ms
    PostRequest *post_requests[kPostRequestCount]; // allocated once, never freed
    uloop_timeout post_timer;
    uint32_t post_retry_count;
    uint32_t post_retry_interval; // ms
    uloop_timeout post_retry_timer;
};

static_assert(std::is_standard_layout_v<TelemetryCtx>, "timers find the record by their offset in it");
static_assert(std::is_trivially_default_constructible_v<TelemetryCtx>, "the record starts as zero bytes");
static_assert(std::is_trivially_copyable_v<TelemetryCtx>, "the record starts as zero bytes");

// Arms the timer that runs telemetry_collect_data, in ms. A pending timer is moved. 0 and values beyond
// 2147483647 (what a configuration of 0, negative or huge minutes yields) are logged and replaced by 15
// minutes, so that a bad interval can neither spin the loop nor stop collection.
void telemetry_arm_collect_timer(TelemetryCtx *ctx, uint32_t ms);
// The same for telemetry_post_data; the replacement is 4 hours.
void telemetry_arm_post_timer(TelemetryCtx *ctx, uint32_t ms);
// An upload in 100 ms.
void telemetry_post_soon(TelemetryCtx *ctx);
