// Start-up and shutdown: what main runs, step by step.
#pragma once

#include "telemetry_ctx.h"

// Runs the steps below in order and stops at the first that fails, with one line that names it: 0, or -2.
int telemetry_init_ctx(TelemetryCtx *ctx);

// Zeroes the whole record, timers included: not for a record whose timers are armed or whose list is filled.
// 0, or -1.
int telemetry_init_collect_param(TelemetryCtx *ctx);
// Makes directory and file of the backup configuration (/tmp/telemetry/telemetry) where they are missing; a
// file that is there stays as it is. 0, or -1.
int telemetry_init_tmp_backup_config();
// Cloud address, key and strategy from the sections `cloud` and `strategy` of package `telemetry`; each
// missing option has a default and its own line. Intervals are minutes there and ms here. 0, or -1 for a null
// record.
int telemetry_load_uci_config(TelemetryCtx *ctx);
// Its first part, the cloud's address.
void telemetry_load_cloud_url(TelemetryCtx *ctx);
// Identity texts from the firmware tool `getfirm`: 0, or -1 when one of its calls could not run. All are
// tried.
int telemetry_get_device_info(TelemetryCtx *ctx);
// Where lines go and from which level on: options `log_console`, `log_syslog` (flags, both 1 by default) and
// `log_level` ("debug", "info", "error") of `telemetry`.`basic`. A value that is none costs a line and is the
// default; without a level it stays.
void telemetry_load_log_options();
// These, the certificates (`telemetry`.`cloud`.`ca_file`) and the Wi-Fi driver
// (`telemetry`.`basic`.`wlan_driver`): what is read at the start and at each reload.
void telemetry_load_options();
// Reads options and cloud address again. Records, key, strategy and timers stay; a transfer on its way goes
// on to the address that it was started with.
void telemetry_reload(TelemetryCtx *ctx);
// Sets the callbacks of the collect and the upload timer, arms the first. 0, or -1 for a null record.
int telemetry_init_timers(TelemetryCtx *ctx);

// /tmp/cloud_heartbeat_timeout_count: made, or set back, to a count of 0.
void telemetry_create_heartbeat_timeout_file();
void telemetry_remove_heartbeat_timeout_file();

// Appends standard error and standard output to a router path: 0, or -1 with a message on standard error,
// which then stays where it was.
int telemetry_redirect_output(const char *path);
