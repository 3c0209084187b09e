#include "telemetry_figures.h"

#include <ctime>

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

void telemetry_figures_module(const char *name, int32_t result, uint32_t items, uint32_t ms) {
    TelemetryFigures *figures = &telemetry_figures;
    if (figures->module_count < kFiguresModules)
        figures->modules[figures->module_count++] = {name, result, items, ms};
}

void telemetry_figures_tell(const char *event) {
    if (telemetry_figures_listener != nullptr)
        telemetry_figures_listener(event);
}
