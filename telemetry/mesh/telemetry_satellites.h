// What the satellites know of themselves and of their clients, asked for and put into the snapshot.
#pragma once

#include <cjson/cJSON.h>

#include "telemetry_platform_libs.h"

int telemetry_collect_re_backhaul_info(const char *fap_ipaddr);
int telemetry_get_re_client_sta_list();
void telemetry_apply_re_backhaul_result(const cJSON *result);
void parseClientStaInfoMsg(const cJSON *result);
void handle_ubus_call_from_re_backhaul_info(blob_attr *message, void *user);
void handle_ubus_call_from_re_client_sta_list(blob_attr *message, void *user);
