// Options that may change while the daemon runs, and the signal that asks to read them again.
#pragma once

#include "telemetry_ctx.h"

// The options of package `telemetry` that stand beside cloud access and strategy, at start and at each
// reload: where lines go, the certificates.
void telemetry_load_options();

// From here on SIGHUP asks for a reload; before, it ends the process. What is asked before the loop runs
// waits for it; a hundred requests are one.
void telemetry_catch_reload_signal();
// Lets the loop that was initialised answer, between two callbacks: nothing is reloaded inside a call or a
// cycle.
void telemetry_watch_reload(TelemetryCtx *ctx);
// To be called before the loop is taken down.
void telemetry_unwatch_reload();

// Reads options and cloud address again. Records, key, strategy and timers stay; a transfer on its way goes
// on to the address that it was started with.
void telemetry_reload(TelemetryCtx *ctx);
