// The signal that asks to read the configuration again, SIGHUP.
#pragma once

#include "telemetry_ctx.h"

// From here on SIGHUP asks for a reload; before, it ends the process. What is asked before the loop runs
// waits for it; a hundred requests are one.
void telemetry_catch_reload_signal();
// Lets the loop that was initialised answer with `answer`, between two callbacks: nothing is reloaded inside
// a call or a cycle.
void telemetry_watch_reload(TelemetryCtx *ctx, void (*answer)(TelemetryCtx *ctx));
// To be called before the loop is taken down.
void telemetry_unwatch_reload();
