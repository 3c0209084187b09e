// The bus object `telemetry`: commands for operators, queries between mesh nodes.
#pragma once

#include "telemetry_ctx.h"

// Connects, registers the object and keeps the connection alive from then on. 0, or -1.
int telemetry_init_ubus(TelemetryCtx *ctx);
// Frees the connection, if there is one.
void telemetry_free_ubus();
// The context that the handlers use; null before telemetry_init_ubus.
TelemetryCtx *telemetry_ubus_ctx();
// The object with its methods, registered or not.
const ubus_object *telemetry_ubus_object();

// Ends a reply with "err_code" (0, or -1 for a failure that the log explains) and sends it. The handler's
// status.
int telemetry_ubus_reply(ubus_context *bus, ubus_request_data *request, blob_buf *reply, int err_code);

// Handlers of the satellite queries (telemetry_ubus_query.cpp).
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
