// Handlers of the queries between mesh nodes: each measures this node and replies with what it found, then
// "err_code", -1 when a part of it could not be had. A handler's status is the bus's.
#pragma once

#include "telemetry_blob.h"
#include "telemetry_ctx.h"

// The record that all handlers of the object `telemetry` work on; null while there is no connection.
extern TelemetryCtx *telemetry_ubus_ctx;

// Ends a reply with "err_code" (0, or -1 for a failure that the log explains) and sends it. The handler's
// status. Throws std::bad_alloc when the reply is not whole.
int telemetry_ubus_reply(ubus_context *bus, ubus_request_data *request, BlobBuffer &reply, int err_code);

int ubus_collect_client_info(ubus_context *bus, ubus_object *object, ubus_request_data *request,
                             const char *method, blob_attr *message);
int ubus_collect_system_info(ubus_context *bus, ubus_object *object, ubus_request_data *request,
                             const char *method, blob_attr *message);
int ubus_collect_usb_info(ubus_context *bus, ubus_object *object, ubus_request_data *request,
                          const char *method, blob_attr *message);
int ubus_collect_afc_info(ubus_context *bus, ubus_object *object, ubus_request_data *request,
                          const char *method, blob_attr *message);
int ubus_collect_device_info(ubus_context *bus, ubus_object *object, ubus_request_data *request,
                             const char *method, blob_attr *message);
