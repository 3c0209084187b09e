// telemetry_bus_call() in the place of the daemon's: answers from a table in this process, without a bus.
// Included by one source file of a program, which then links this one.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "telemetry_bus_call.h"
#include "telemetry_blob.h"
#include "telemetry_handles.h"

struct ServiceAnswer {
    std::string json = "{}";                   // the reply, unless `fill` makes it
    std::function<void(blob_buf *)> fill = {}; // for types that JSON has not, and for what is no message
    TelemetryBusError error = TELEMETRY_BUS_OK;
    bool has_data = true;
};

struct ServiceCall {
    std::string name; // "object.method"
    std::string arguments;
    int timeout_ms;
};

inline std::map<std::string, ServiceAnswer> fake_services; // by "object.method"; no entry: no object
inline std::vector<ServiceCall> fake_service_calls;

TelemetryBusError telemetry_bus_call(const char *, const char *object, const char *method,
                                     blob_attr *arguments, int timeout_ms, TelemetryBusReply reply,
                                     void *user) {
    const std::string name = std::string(object) + "." + method;
    const TextPtr text(arguments != nullptr ? blobmsg_format_json(arguments, true) : nullptr);
    fake_service_calls.push_back({name, text ? text.get() : "", timeout_ms});
    const auto found = fake_services.find(name);
    if (found == fake_services.end())
        return TELEMETRY_BUS_NO_OBJECT;
    const ServiceAnswer &answer = found->second;
    if (answer.error != TELEMETRY_BUS_OK)
        return answer.error;
    if (!answer.has_data)
        return TELEMETRY_BUS_OK;
    BlobBuffer message;
    if (answer.fill)
        answer.fill(message.get());
    else
        blobmsg_add_json_from_string(message.get(), answer.json.c_str());
    reply(message.head(), user);
    return TELEMETRY_BUS_OK;
}
