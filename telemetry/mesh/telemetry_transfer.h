// The asking side of the queries between mesh nodes: one request to the synchronisation service, which
// forwards it to the satellites and joins their answers.
#pragma once

#include <cstdint>

#include <cjson/cJSON.h>

#include "telemetry_platform_libs.h"

enum TelemetryTransferOpcode : int32_t {
    TELEMETRY_TRANSFER_DEVICE = 50946,
    TELEMETRY_TRANSFER_CLIENT = 50947,
    TELEMETRY_TRANSFER_SYSTEM = 50948,
    TELEMETRY_TRANSFER_USB = 50949,
    TELEMETRY_TRANSFER_AFC = 50952,
};

// Applies one answer's "result" object.
using TelemetryTransferApply = void (*)(const cJSON *result, void *user);

// Calls object.method over a fresh connection, waiting up to 50 s: 0 or -1.
int ubus_client_call(const char *object, const char *method, blob_attr *arguments,
                     void (*reply)(blob_attr *message, void *user), void *user);
// Asks the satellites (and this node when include_myself) by opcode; `ip_ap_addr`, when given, goes into
// "params". The combined reply is handed to `reply` as it came: 0, or -1 when the call failed.
int telemetry_transfer_call(int32_t opcode, bool include_myself, const char *ip_ap_addr,
                            void (*reply)(blob_attr *message, void *user), void *user);
// The same, with each answer's result handed to `apply`.
int telemetry_transfer_request(int32_t opcode, bool include_myself, const char *ip_ap_addr,
                               TelemetryTransferApply apply, void *user);
// Walks a combined reply ("success", "data") and applies each answer's result.
void telemetry_transfer_handle_reply(blob_attr *message, TelemetryTransferApply apply, void *user);
const cJSON *getTransferMsgReply(const cJSON *answer);
