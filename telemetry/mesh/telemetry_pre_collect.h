// Builds and releases the snapshot of a cycle (telemetry_snapshot.h).
#pragma once

#include "telemetry_ctx.h"

// Devices, then clients. 0 when both succeeded, else -1 with whatever part could be had.
int telemetry_pre_collect_info(TelemetryCtx *ctx);
void telemetry_free_pre_collect_info();
