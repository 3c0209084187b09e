#include "telemetry_bus_call.h"

#include "telemetry_guarded.h"
#include "telemetry_handles.h"

namespace {
struct PendingReply {
    TelemetryBusReply reply;
    void *user;
    bool failed;
};
} // namespace

static void pass_reply_on(ubus_request *request, int, blob_attr *message) {
    auto *pending = static_cast<PendingReply *>(request->priv);
    if (pending->reply != nullptr &&
        !telemetry_guarded("answer", [&] { pending->reply(message, pending->user); }))
        pending->failed = true;
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
    PendingReply pending{reply, user, false};
    const int status = ubus_invoke(bus.get(), id, method, arguments, pass_reply_on, &pending, timeout_ms);
    return status == UBUS_STATUS_OK && !pending.failed ? TELEMETRY_BUS_OK : TELEMETRY_BUS_CALL_FAILED;
}
