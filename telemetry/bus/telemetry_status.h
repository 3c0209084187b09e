// The bus object `telemetry.status`: what the daemon does, did and waits for.
#pragma once

#include "telemetry_ctx.h"

// Registers the object on the connection; notifications "collected" and "uploaded" go to its subscribers from
// then on. The connection's owner calls it after each (re)connection. A failure costs a line and is
// tried again every 10 s.
void telemetry_status_register(ubus_context *bus, const TelemetryCtx *ctx);
// Forgets the connection, which is about to be freed.
void telemetry_status_release();
// Fills the one table of `get` and of the notifications.
void telemetry_status_fill(blob_buf *reply, const TelemetryCtx *ctx);
