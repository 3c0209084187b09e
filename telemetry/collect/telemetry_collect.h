// The collected-data list and the collection cycle over the module table.
//
// A record of the list: {"eid": module name, "ct": seconds, "ep": payload, "cnt": items}, oldest first.
#pragma once

#include <cstddef>
#include <cstdint>

#include "telemetry_ctx.h"

// Lengths of the list's compact text, bytes.
inline constexpr size_t kMaxBackUpLength = 65536;
inline constexpr size_t kUploadThreshold = 32768;

// A collector fills `payload` (a new, empty object that stays the scheduler's) and sets `count` (0 at entry)
// to the number of items it added. 0 is success; a record is kept only for success with a count of at
// least 1.
using TelemetryCollector = int (*)(TelemetryCtx *ctx, cJSON *payload, uint32_t *count);

// 1 when the list's compact text has at least `limit` bytes; 0 otherwise and without a list.
int collect_list_exceeds(const TelemetryCtx *ctx, size_t limit);
// Drops element 0: the items removed, 0 for an empty list, -1 on failure.
int delect_oldest_data_list(TelemetryCtx *ctx);
// Drops the oldest records until at most two thirds of the items are left.
void shrink_collect_data_list(TelemetryCtx *ctx);
// Drops the whole list; the next cycle starts a new one.
void telemetry_clear_collect_list(TelemetryCtx *ctx);

// Runs one collector and appends its record to `list`.
void telemetry_collect_data_by_module(TelemetryCtx *ctx, CollectedDataList *list, const char *module,
                                      TelemetryCollector collector);
// Snapshot, every module of the table in order, release of the snapshot.
void telemetry_collect_all_modules(TelemetryCtx *ctx);
// Counts the cycle and works out which cadences the next one serves.
void telemetry_increase_collect_count_and_update_next_collect_strategy(TelemetryCtx *ctx);
// Callback of the collect timer: one cycle, then the timer again.
void telemetry_collect_data(uloop_timeout *timer);
