// The client library's input: everything that a bus sends after its greeting, while the client looks up,
// registers an object, calls and waits. The first byte tells what the client does.
#include <cstdint>
#include <sys/socket.h>
#include <unistd.h>

#include "../hostlibs/ubus/ubus_internal.h"
#include "support/fuzz_root.h"

namespace {

// Bytes that a socket takes at once.
constexpr size_t max_input = 65536;

int answer(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    ubus_send_reply(ctx, req, msg);
    return UBUS_STATUS_OK;
}

void read_whole(blob_attr *msg) {
    blob_attr *pos;
    size_t left;
    blobmsg_for_each_attr(pos, msg, left) {
        volatile bool sound = blobmsg_check_attr(pos, false);
        (void)sound;
    }
}

void take_reply(ubus_request *, int, blob_attr *msg) {
    if (msg)
        read_whole(msg);
}

void take_object(ubus_context *, ubus_object_data *obj, void *) {
    if (obj->signature)
        read_whole(obj->signature);
}

const blobmsg_policy policy[] = {{"text", BLOBMSG_TYPE_STRING}};
const ubus_method methods[] = {UBUS_METHOD("echo", answer, policy), UBUS_METHOD_NOARG(nullptr, answer)};

void act(ubus_context *ctx, uint8_t what) {
    ubus_object_type type = UBUS_OBJECT_TYPE("test", methods);
    ubus_object object = {};
    object.name = "test";
    object.type = &type;
    object.methods = methods;
    object.n_methods = static_cast<int>(ARRAY_SIZE(methods));
    uint32_t id;
    if (what & 1)
        ubus_add_object(ctx, &object);
    if (what & 2)
        ubus_lookup(ctx, "*", take_object, nullptr);
    if (what & 4)
        ubus_lookup_id(ctx, "test", &id);
    if (what & 8)
        ubus_invoke(ctx, 6000, "m", nullptr, take_reply, nullptr, 0);
    ubus_request req;
    if (what & 16 && ubus_invoke_async(ctx, 6000, "m", nullptr, &req) == UBUS_STATUS_OK) {
        req.data_cb = take_reply;
        ubus_complete_request_async(ctx, &req);
    }
    ubus_handle_event(ctx);
    require(ctx->conn->ended && list_empty(&ctx->requests)); // at the stream's end nobody waits any more
    ubus_shutdown(ctx);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    int ends[2];
    if (size < 1 || size > max_input || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return 0;
    bus_builder hello;
    bus_finish(hello, UBUS_MSG_HELLO, 0, 5000);
    bool sent = write(ends[1], hello.bytes.data(), hello.bytes.size()) > 0 &&
                (size == 1 || write(ends[1], data + 1, size - 1) > 0);
    shutdown(ends[1], SHUT_WR);

    ubus_context ctx;
    ubus_init(&ctx);
    ctx.connection_lost = [](ubus_context *) {};
    require(sent && ubus_adopt_socket(&ctx, ends[0], 1000));
    act(&ctx, data[0]);
    close(ends[1]);
    return 0;
}
