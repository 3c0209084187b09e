#include "telemetry_transfer.h"

#include "telemetry_blob.h"
#include "telemetry_bus_call.h"
#include "telemetry_handles.h"
#include "telemetry_json_message.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"

static constexpr int kTransferTimeoutMs = 50000;
// More nodes than any mesh has: every answer that is none costs a line of the log.
static constexpr int kMaxAnswers = 256;

int ubus_client_call(const char *object, const char *method, blob_attr *arguments,
                     void (*reply)(blob_attr *message, void *user), void *user) {
    const TelemetryBusError error = telemetry_bus_call(telemetry_bus_named_socket(), object, method,
                                                       arguments, kTransferTimeoutMs, reply, user);
    if (error == TELEMETRY_BUS_OK)
        return 0;
    if (error == TELEMETRY_BUS_NO_CONNECTION)
        LOG_ERROR("ubus connect failed");
    else
        LOG_ERROR("ubus invoke failed.");
    return -1;
}

const cJSON *getTransferMsgReply(const cJSON *answer) {
    const cJSON *result = cJSON_GetObjectItemCaseSensitive(answer, "result");
    if (result == nullptr)
        LOG_ERROR("cJSON_GetObject filed");
    return result;
}

static void apply_answer(const cJSON *answer, TelemetryTransferApply apply, void *user) {
    const cJSON *result = getTransferMsgReply(answer);
    if (result != nullptr)
        apply(result, user);
}

void telemetry_transfer_handle_reply(blob_attr *message, TelemetryTransferApply apply, void *user) {
    if (message == nullptr) {
        LOG_ERROR("error callback");
        return;
    }
    const JsonPtr root = telemetry_json_of_message(message);
    if (!root) {
        LOG_ERROR("cJSON Parse failed");
        return;
    }
    int64_t success = 0;
    const cJSON *data = cJSON_GetObjectItemCaseSensitive(root.get(), "data");
    if (!json_int64(root.get(), "success", &success) || success <= 0 || data == nullptr) {
        LOG_ERROR("cJSON_get_object success failed");
        return;
    }
    if (success == 1) {
        apply_answer(data, apply, user);
        return;
    }
    int64_t seen = 0;
    for (const cJSON *answer = data->child; answer != nullptr && seen < success;
         answer = answer->next, ++seen) {
        if (seen == kMaxAnswers) {
            LOG_ERROR("more than %d nodes answered, the rest is left out", kMaxAnswers);
            return;
        }
        apply_answer(answer, apply, user);
    }
    if (seen < success) {
        apply_answer(nullptr, apply, user); // once for all that are missing
        LOG_ERROR("%lld answers announced, %lld there", static_cast<long long>(success),
                  static_cast<long long>(seen));
    }
}

namespace {
struct TransferReply {
    TelemetryTransferApply apply;
    void *user;
};
} // namespace

static void handle_transfer_reply(blob_attr *message, void *user) {
    const auto *reply = static_cast<const TransferReply *>(user);
    telemetry_transfer_handle_reply(message, reply->apply, reply->user);
}

// Fills the request table.
static void build_transfer_request(blob_buf *request, int32_t opcode, bool include_myself,
                                   const char *ip_ap_addr) {
    blobmsg_add_u32(request, "opcode", static_cast<uint32_t>(opcode));
    blobmsg_add_string(request, "target_type", "RE");
    if (include_myself)
        blobmsg_add_u8(request, "include_myself", 1);
    const BlobTable data(request, "data");
    if (ip_ap_addr != nullptr) {
        const BlobTable params(request, "params");
        blobmsg_add_string(request, "ip_ap_addr", ip_ap_addr);
    }
}

int telemetry_transfer_call(int32_t opcode, bool include_myself, const char *ip_ap_addr,
                            void (*reply)(blob_attr *message, void *user), void *user) {
    BlobBuffer request;
    build_transfer_request(request.get(), opcode, include_myself, ip_ap_addr);
    return ubus_client_call("sync", "request", request.head(), reply, user);
}

int telemetry_transfer_request(int32_t opcode, bool include_myself, const char *ip_ap_addr,
                               TelemetryTransferApply apply, void *user) {
    TransferReply reply = {apply, user};
    return telemetry_transfer_call(opcode, include_myself, ip_ap_addr, handle_transfer_reply, &reply);
}
