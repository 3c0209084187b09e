#include "telemetry_bus_call.h"

#include <cerrno>
#include <optional>

#include "telemetry_blob.h"
#include "telemetry_bus_limit.h"
#include "telemetry_guarded.h"
#include "telemetry_memory.h"

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

static TelemetryBusError failed(int status, TelemetryBusError error) {
    if (status == UBUS_STATUS_NO_MEMORY)
        telemetry_memory_refused();
    return error;
}

TelemetryBusError telemetry_bus_call(const char *socket, const char *object, const char *method,
                                     blob_attr *arguments, int timeout_ms, TelemetryBusReply reply,
                                     void *user) {
    std::optional<TelemetryBusLimit> limit(std::in_place);
    errno = 0;
    const BusContextPtr bus(ubus_connect(socket));
    if (!bus) {
        telemetry_memory_refused_by_errno();
        return TELEMETRY_BUS_NO_CONNECTION;
    }
    TelemetryBusLimit::watch(bus->sock.fd);
    uint32_t id = 0;
    const int found = ubus_lookup_id(bus.get(), object, &id);
    limit.reset(); // the call has a time-out
    if (found != UBUS_STATUS_OK)
        return failed(found, TELEMETRY_BUS_NO_OBJECT);

    BlobBuffer empty;
    if (arguments == nullptr)
        arguments = empty.head();
    PendingReply pending{reply, user, false};
    const int status = ubus_invoke(bus.get(), id, method, arguments, pass_reply_on, &pending, timeout_ms);
    return status == UBUS_STATUS_OK && !pending.failed ? TELEMETRY_BUS_OK
                                                       : failed(status, TELEMETRY_BUS_CALL_FAILED);
}
