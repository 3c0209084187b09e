// "restart_info": why and when the router restarted, its restart schedule, uptime and starts of this daemon.
#include "restart_info.h"

#include <cstdint>
#include <iterator>

#include "collector_patterns.h"
#include "collectors.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_uci.h"
#include "telemetry_uci_backup.h"
#include "telemetry_utils.h"

static constexpr TelemetryIndexEntry kRestartTable[] = {
    {0, "rr", 3, TELEMETRY_UCI_SYSTEM, 1, "telemetry_info", "restart_info", "reason", TELEMETRY_VALUE_STRING},
    {1, "rn", 3, TELEMETRY_UCI_SYSTEM, 1, "telemetry_info", "restart_info", "count", TELEMETRY_VALUE_INT},
    {2, "rt", 3, TELEMETRY_UCI_SYSTEM, 1, "telemetry_info", "restart_info", "timestamp",
     TELEMETRY_VALUE_INT64},
};

static constexpr TelemetryIndexEntry kScheduleTable[] = {
    {0, "rs", 3, TELEMETRY_UCI_SYSTEM, 0, "restart_schedule", "schedule", "enable", TELEMETRY_VALUE_FLAG},
    {1, "rw", 3, TELEMETRY_UCI_SYSTEM, 0, "restart_schedule", "schedule", "days",
     TELEMETRY_VALUE_LIST_STRING},
};

// 0 before the first start since boot, and when the file holds anything but a count.
static uint64_t read_start_count() {
    uint64_t starts = 0;
    if (telemetry_file_exists(kRestartPath) == 0 || !telemetry_read_number_file(kRestartPath, &starts))
        return 0;
    return starts < INT32_MAX ? starts : 0;
}

void telemetry_count_daemon_start() {
    const int written = telemetry_write_number_file(kRestartPath, static_cast<int>(read_start_count()) + 1);
    if (written != 0)
        LOG_ERROR("%s file %s failed", written == -1 ? "open" : "write", kRestartPath);
}

int collect_restart_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count) {
    if (ctx == nullptr || payload == nullptr || count == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    if (ctx->collect_stgy2_now == 0) {
        LOG_DEBUG("dont need to collect restart info!");
        return 0;
    }
    telemetry_get_duration_config_cJSON_object_by_telemetry_index(kRestartTable, std::size(kRestartTable),
                                                                  count, payload);
    telemetry_collect_watched_table(
        kScheduleTable, "collect restart info successfully, now data collect count is: %d!", payload, count);
    uint64_t uptime = 0;
    if (telemetry_read_number_file(kProcUptimePath, &uptime))
        telemetry_add_reading(payload, "ut", static_cast<double>(uptime), count);
    const uint64_t starts = read_start_count();
    if (starts > 0)
        telemetry_add_reading(payload, "tn", static_cast<double>(starts), count);
    return 0;
}
