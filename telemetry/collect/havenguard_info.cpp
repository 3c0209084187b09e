// "havenguard_info_v2": settings of the security suite when they changed, its counters always.
#include "collector_patterns.h"
#include "collectors.h"
#include "setting_rows.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_repeat.h"
#include "telemetry_utils.h"

static constexpr size_t kStatsSize = 4096;

static constexpr SettingRow kHavenguardRows[] = {
    {"wp", SETTING_FLAG, "havenguard", "web", "enable"},
    {"ac", SETTING_FLAG, "access_control", "settings", "enable"},
    {"am", SETTING_TEXT, "access_control", "settings", "mode"},
    {"an", SETTING_SECTIONS, "access_control", "device"},
    {"cs", SETTING_FLAG, "havenguard", "camera", "enable"},
    {"cn", SETTING_SECTIONS, "havenguard", "camera_device"},
    {"di", SETTING_FLAG, "havenguard", "isolation", "enable"},
    {"dn", SETTING_SECTIONS, "havenguard", "isolated_device"},
    {"pn", SETTING_SECTIONS, "parental", "profile"},
    {"ps", SETTING_SECTIONS, "parental", "profile", nullptr, {{SETTING_IN_USE, "schedule"}}},
    {"pt", SETTING_SECTIONS, "parental", "profile", nullptr, {{SETTING_IN_USE, "time_limit"}}},
    {"ab", SETTING_FLAG, "havenguard", "application", "enable"},
    {"bn", SETTING_SECTIONS, "havenguard", "blocked_application"},
};

static void add_counters(cJSON *payload, uint32_t *count) {
    char text[kStatsSize];
    if (telemetry_file_exists(kHavenguardStatsPath) == 0) {
        LOG_MISSING("no file %s", kHavenguardStatsPath);
        return;
    }
    if (telemetry_parse_file(kHavenguardStatsPath, text, sizeof(text)) != 0)
        return;
    const JsonPtr stats(cJSON_Parse(text));
    int64_t blocked = 0;
    if (!json_int64(stats.get(), "blocked_pages", &blocked) || blocked < 0) {
        LOG_ERROR("%s has no number of \"blocked_pages\"", kHavenguardStatsPath);
        return;
    }
    telemetry_add_reading(payload, "wb", static_cast<double>(blocked), count);
}

int collect_havenguard_v2_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count) {
    if (ctx == nullptr || payload == nullptr || count == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    if (ctx->collect_stgy2_now == 0) {
        LOG_DEBUG("dont need to collect havenguard info!");
        return 0;
    }
    if (check_is_tm_shn_support() == 0)
        return 0;
    if (telemetry_collect_settings(kHavenguardRows, "havenguard", "settings", "md5 same, don't collect!",
                                   payload, count) != 0)
        return -1;
    add_counters(payload, count);
    return 0;
}
