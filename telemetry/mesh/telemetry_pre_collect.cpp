#include "telemetry_pre_collect.h"

#include "telemetry_log.h"
#include "telemetry_pre_client.h"
#include "telemetry_pre_device.h"
#include "telemetry_snapshot.h"

int telemetry_pre_collect_info(TelemetryCtx *ctx) {
    int result = 0;
    if (telemetry_pre_device_info(ctx) != 0) {
        LOG_ERROR("pre_collect get device info failed");
        result = -1;
    }
    if (telemetry_pre_clients_info() != 0) {
        LOG_ERROR("pre_collect get clients info failed");
        result = -1;
    }
    return result;
}

void telemetry_free_pre_collect_info() {
    telemetry_free_client_info_list();
    telemetry_free_device_info_list();
}
