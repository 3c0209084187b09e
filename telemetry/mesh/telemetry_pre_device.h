// The device side of the snapshot: the mesh device list, completed from configuration, context and
// satellites.
#pragma once

#include "telemetry_ctx.h"

int telemetry_pre_device_info(TelemetryCtx *ctx);
// Reads /tmp/sync-server/mesh_dev_list into a new array.
int telemetry_init_device_list_info_from_file();
int telemetry_get_hwversion_info_from_ctx(const TelemetryCtx *ctx);
// Hardware version from the firmware tool; `buffer` holds 65 characters.
int telemetry_get_hwversion_info_from_getfirm(char *buffer);
int telemetry_set_device_nickname(void *user, uci_context *uci, uci_element *section);
int telemetry_set_device_prefer(void *user, uci_context *uci, uci_element *section);
int telemetry_get_device_nickname();
int telemetry_get_device_prefer();
int telemetry_collect_fap_device_info();
int telemetry_collect_RE_device_info();
void telemetry_print_device_info();
