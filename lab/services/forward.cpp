#include "forward.h"

#include <algorithm>

namespace lab {

namespace {

struct Opcode {
    uint32_t code;
    const char *method;
};
constexpr Opcode kOpcodes[] = {
    {50946, "collect_device_info"}, {50947, "collect_client_info"}, {50948, "collect_system_info"},
    {50949, "collect_usb_info"},    {50952, "collect_afc_info"},
};

constexpr char kDaemonObject[] = "telemetry";

} // namespace

const char *forward_method(uint32_t opcode) {
    for (const Opcode &known : kOpcodes) {
        if (known.code == opcode)
            return known.method;
    }
    return nullptr;
}

// A call in progress: a connection to the node's bus, the request, its limit.
class NodeCall {
  public:
    NodeCall(Forward *owner, const std::string &socket) : owner_(owner), bus_(ubus_connect(socket.c_str())) {}
    ~NodeCall() {
        if (waiting_) // or the connection's end completes it, and the owner counts calls that are gone
            ubus_abort_request(bus_, &request_);
        if (bus_ != nullptr)
            ubus_free(bus_);
    }
    NodeCall(const NodeCall &) = delete;
    NodeCall &operator=(const NodeCall &) = delete;

    void start(const char *method, blob_attr *arguments, int limit_ms) {
        uint32_t id = 0;
        waiting_ = bus_ != nullptr && ubus_lookup_id(bus_, kDaemonObject, &id) == UBUS_STATUS_OK &&
                   ubus_invoke_async(bus_, id, method, arguments, &request_) == UBUS_STATUS_OK;
        if (!waiting_)
            return;
        bus_->connection_lost = on_lost;
        ubus_add_uloop(bus_);
        request_.priv = this;
        request_.data_cb = on_data;
        request_.complete_cb = on_complete;
        ubus_complete_request_async(bus_, &request_);
        timer_.set(limit_ms);
    }
    bool waiting() const {
        return waiting_;
    }
    // Members of the reply, as they came; meaningful when answered().
    const std::string &members() const {
        return members_;
    }
    bool answered() const {
        return answered_;
    }

  private:
    static void on_data(ubus_request *request, int, blob_attr *message) {
        auto *call = static_cast<NodeCall *>(request->priv);
        if (message == nullptr)
            return;
        call->members_.assign(static_cast<const char *>(blob_data(message)), blob_len(message));
        call->has_data_ = true;
    }
    static void on_complete(ubus_request *request, int status) {
        auto *call = static_cast<NodeCall *>(request->priv);
        call->answered_ = status == UBUS_STATUS_OK && call->has_data_;
        call->end();
    }
    static void on_limit(void *self) {
        auto *call = static_cast<NodeCall *>(self);
        ubus_abort_request(call->bus_, &call->request_);
        call->end();
    }
    // The node's bus has gone: its call ends at its limit, and nothing else does.
    static void on_lost(ubus_context *) {}
    void end() {
        waiting_ = false;
        timer_.cancel();
        owner_->settle();
    }

    Forward *owner_;
    ubus_context *bus_;
    ubus_request request_ = {};
    Timer timer_{on_limit, this};
    std::string members_;
    bool waiting_ = false, has_data_ = false, answered_ = false;
};

Forward::Forward(const char *method, blob_attr *params, Done done) : method_(method), done_(std::move(done)) {
    blob_buf_init(&arguments_, 0);
    blob_attr *attr;
    size_t rest;
    if (params != nullptr) {
        blobmsg_for_each_attr(attr, params, rest) blobmsg_add_blob(&arguments_, attr);
    }
}

Forward::~Forward() {
    blob_buf_free(&arguments_);
}

void Forward::call(const std::string &socket, int limit_ms) {
    calls_.push_back(std::make_unique<NodeCall>(this, socket));
    calls_.back()->start(method_.c_str(), arguments_.head, limit_ms);
}

void Forward::start() {
    settle();
}

void Forward::settle() {
    // Not from here: the connections are still in use by the callback that brought us.
    if (std::none_of(calls_.begin(), calls_.end(), [](const auto &call) { return call->waiting(); }))
        finish_timer_.set(0);
}

void Forward::finish() {
    std::erase_if(calls_, [](const auto &call) { return !call->answered(); });
    blob_buf reply = {};
    blob_buf_init(&reply, 0);
    const size_t count = calls_.size();
    blobmsg_add_u32(&reply, "success", static_cast<uint32_t>(count));
    void *list = count == 1 ? nullptr : blobmsg_open_array(&reply, "data");
    for (const auto &call : calls_) {
        void *answer = blobmsg_open_table(&reply, count == 1 ? "data" : nullptr);
        blobmsg_add_field(&reply, BLOBMSG_TYPE_TABLE, "result", call->members().data(),
                          static_cast<unsigned>(call->members().size()));
        blobmsg_close_table(&reply, answer);
    }
    if (list != nullptr)
        blobmsg_close_array(&reply, list);
    calls_.clear();
    finished_ = true;
    done_(reply.head);
    blob_buf_free(&reply);
}

} // namespace lab
