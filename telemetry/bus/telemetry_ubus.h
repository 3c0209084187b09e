// The bus object `telemetry`: its connection and the commands for operators.
#pragma once

#include "telemetry_ctx.h"

// Connects, registers the object and keeps the connection alive from then on. 0, or -1.
int telemetry_init_ubus(TelemetryCtx *ctx);
// Frees the connection, if there is one.
void telemetry_free_ubus();
