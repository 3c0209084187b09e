// Whose access key the configuration holds: a backup of it may be restored on another router.
#pragma once

#include "telemetry_ctx.h"

// What the device's id means for what follows, at the start: without one a line says so, since the cloud
// cannot know whose records come. Drops key and secret from the record when option
// `telemetry`.`cloud`.`accessDevice` names another device: the state machine then fetches new ones. Without
// the option the key counts as this device's own.
void telemetry_check_identity(TelemetryCtx *ctx);
// Writes this device's id to that option, unless it holds it already.
void telemetry_keep_key_owner(const TelemetryCtx *ctx);
