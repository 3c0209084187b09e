// What the daemon did and when, for people who look: counted where it happens, shown by the bus object
// `telemetry.status`. Nothing here steers anything.
#pragma once

#include <cstddef>
#include <cstdint>

#include "telemetry_ctx.h"

inline constexpr int kFiguresModules = 24;

// One module's part of the last cycle.
struct TelemetryModuleFigures {
    const char *name; // constant text
    int32_t result;   // of the collector: 0, or what it failed with
    uint32_t items;
    uint32_t ms;
};

// One upload that was sent.
struct TelemetryUploadFigures {
    int64_t time; // seconds, when its answer came; 0: none yet
    uint32_t records;
    uint32_t items;
    uint32_t bytes; // of the body
    uint32_t ms;
    long http_status;      // 0 without an answer
    int32_t error_code;    // meaningful with has_error_code
    bool has_error_code;   // the answer could be judged
    const char *transport; // libcurl's text of the transfer's result, constant; null: none yet
};

// One upload on its way.
struct TelemetrySendingFigures {
    TelemetryUploadFigures upload; // its items: those that the list still holds
    int64_t since;                 // ms, monotonic
};

struct TelemetryFigures {
    int64_t started;           // seconds
    int64_t started_monotonic; // ms
    const char *
        obstacle; // why the last cycle or call did not run, constant text; null when nothing stood in its way
    const char *transport; // how the last transfer of any call ended: libcurl's text, constant
    // The last cycle.
    int64_t collected; // seconds, 0: none yet
    uint32_t collect_ms;
    int module_count;
    TelemetryModuleFigures modules[kFiguresModules];
    // Uploads on their way by slot of the request pool, the last accepted and the last failed one.
    TelemetrySendingFigures sending[kPostRequestCount];
    TelemetryUploadFigures accepted;
    TelemetryUploadFigures failed;
    // Since the start.
    uint64_t cycles;
    uint64_t records;
    uint64_t items;
    uint64_t items_shrunk;    // dropped because the list was too long
    uint64_t items_cleared;   // dropped by an operator
    uint64_t items_in_flight; // collected during an upload and dropped with the list that it carried
    uint64_t uploads_accepted;
    uint64_t uploads_failed;
    uint64_t bytes_sent; // bodies of uploads that were sent
    uint64_t keys_fetched;
    uint64_t bus_reconnections;
};

extern TelemetryFigures telemetry_figures;

// Milliseconds of the monotonic clock.
int64_t telemetry_monotonic_ms();

// Zeroes the record and notes the start.
void telemetry_figures_start();
// Notes what stands in the way of a cycle or an upload, and gives it: null, or constant text. Records wait
// for ever when the clock is lost while all else is ready: a line says so once, until it is set again.
const char *telemetry_figures_obstacle(const TelemetryCtx *ctx);
// Adds a module to the last cycle; what does not fit is left out.
void telemetry_figures_module(const char *name, int32_t result, uint32_t items, uint32_t ms);

// Notes that the list has lost its oldest items: uploads on their way carried them.
void telemetry_figures_dropped(uint32_t items);

// Called after a cycle ("collected") and after an upload's end ("uploaded"), when somebody has set it.
extern void (*telemetry_figures_listener)(const char *event);
void telemetry_figures_tell(const char *event);
