#include "telemetry_figures.h"

#include <algorithm>
#include <ctime>

#include "telemetry_guarded.h"
#include "telemetry_log.h"
#include "telemetry_utils.h"

TelemetryFigures telemetry_figures;
void (*telemetry_figures_listener)(const char *event);

int64_t telemetry_monotonic_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void telemetry_figures_start() {
    telemetry_figures = {};
    telemetry_figures.started = time(nullptr);
    telemetry_figures.started_monotonic = telemetry_monotonic_ms();
}

const char *telemetry_figures_obstacle(const TelemetryCtx *ctx) {
    static bool said;
    telemetry_figures.obstacle = telemetry_collect_obstacle();
    const bool unset = telemetry_figures.obstacle == kObstacleClock;
    const bool waits = unset && ctx != nullptr && ctx->post_state == TELEMETRY_POST_STATE_READY_FOR_UPLOAD;
    if (waits && !said)
        LOG_INFO("the clock is not set: nothing is collected or uploaded until it is");
    said = unset && (said || waits);
    return telemetry_figures.obstacle;
}

void telemetry_figures_module(const char *name, int32_t result, uint32_t items, uint32_t ms) {
    TelemetryFigures *figures = &telemetry_figures;
    if (figures->module_count < kFiguresModules)
        figures->modules[figures->module_count++] = {name, result, items, ms};
}

void telemetry_figures_dropped(uint32_t items) {
    for (TelemetrySendingFigures &sending : telemetry_figures.sending)
        sending.upload.items -= std::min(sending.upload.items, items);
}

void telemetry_figures_tell(const char *event) {
    if (telemetry_figures_listener != nullptr)
        telemetry_guarded("notification", [&] { telemetry_figures_listener(event); });
}
