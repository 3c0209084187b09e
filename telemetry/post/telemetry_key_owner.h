// Whose access key the configuration holds: a backup of it may be restored on another router.
#pragma once

#include "telemetry_ctx.h"

// Drops key and secret from the record when option `telemetry`.`cloud`.`accessDevice` names another device:
// the state machine then fetches new ones. Without the option, or without an id of this device, the key
// counts as its own.
void telemetry_drop_foreign_key(TelemetryCtx *ctx);
// Writes this device's id to that option, unless it holds it already.
void telemetry_keep_key_owner(const TelemetryCtx *ctx);
