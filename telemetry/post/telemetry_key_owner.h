// Whose access key the configuration holds: a backup of it may be restored on another router.
#pragma once

#include "telemetry_ctx.h"

// Drops key and secret from the record when option `telemetry`.`cloud`.`accessDevice` names another device:
// the state machine then fetches new ones. A key without the option counts as this device's own.
void telemetry_check_key_owner(TelemetryCtx *ctx);
// Says there, before a new key and its secret are written one by one, that they are nobody's: a start in
// between fetches others.
void telemetry_doubt_key_owner(const TelemetryCtx *ctx);
// Writes this device's id to that option, unless it holds it already.
void telemetry_keep_key_owner(const TelemetryCtx *ctx);
// The same once, when the key that the run began with came without it: the cloud took what it signed.
void telemetry_note_key_owner(const TelemetryCtx *ctx);
