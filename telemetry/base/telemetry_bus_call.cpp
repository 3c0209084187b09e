#include "telemetry_bus_call.h"

#include "telemetry_handles.h"

namespace {
struct PendingReply {
    TelemetryBusReply reply;
    void *user;
};
} // namespace

static void pass_reply_on(ubus_request *request, int, blob_attr *message) {
    const auto *pending = static_cast<const PendingReply *>(request->priv);
    if (pending->reply != nullptr)
        pending->reply(message, pending->user);
}

TelemetryBusError telemetry_bus_call(const char *socket, const char *object, const char *method,
                                     blob_attr *arguments, int timeout_ms, TelemetryBusReply reply,
                                     void *user) {
    const BusContextPtr bus(ubus_connect(socket));
    if (!bus)
        return TELEMETRY_BUS_NO_CONNECTION;
    uint32_t id = 0;
    if (ubus_lookup_id(bus.get(), object, &id) != UBUS_STATUS_OK)
        return TELEMETRY_BUS_NO_OBJECT;

    BlobBuffer empty;
    if (arguments == nullptr)
        arguments = empty.head();
    PendingReply pending{reply, user};
    const int status = ubus_invoke(bus.get(), id, method, arguments, pass_reply_on, &pending, timeout_ms);
    return status == UBUS_STATUS_OK ? TELEMETRY_BUS_OK : TELEMETRY_BUS_CALL_FAILED;
}
