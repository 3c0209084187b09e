// One synchronous call of another service's bus object, over a connection of its own that is closed
// afterwards.
#pragma once

#include "telemetry_handles.h"

// Handler of the reply, run inside the call; `message` is null when the reply had no data. `user` is the
// caller's.
using TelemetryBusReply = void (*)(blob_attr *message, void *user);

enum TelemetryBusError {
    TELEMETRY_BUS_OK = 0,
    TELEMETRY_BUS_NO_CONNECTION = -1,
    TELEMETRY_BUS_NO_OBJECT = -2,
    TELEMETRY_BUS_CALL_FAILED = -3,
};

// Connects to `socket` (null: the library's default), looks `object` up and invokes `method` with `arguments`
// (null: an empty table), waiting `timeout_ms`. Logs nothing: each caller has its own words.
TelemetryBusError telemetry_bus_call(const char *socket, const char *object, const char *method,
                                     blob_attr *arguments, int timeout_ms, TelemetryBusReply reply,
                                     void *user);
