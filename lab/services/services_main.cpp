// lab-services: the platform's services of one node of the lab, on the node's own bus.
//   environment: TELEMETRY_SYSROOT the node's root, LAB_DIR the lab's, LAB_SCENARIO the scenario's file,
//   LAB_NODE the node's device id
// How they misbehave stands in lab/faults.json below the node's root (README.md).
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include <unistd.h>

#include "faults.h"
#include "forward.h"
#include "lab_files.h"
#include "replies.h"
#include "timer.h"

namespace lab {

namespace {

constexpr int kFaultCheckMs = 50;

std::string required(const char *name) {
    const char *value = getenv(name);
    if (value == nullptr || *value == '\0')
        throw std::runtime_error(std::string(name) + " is not set");
    return value;
}

// One object on the bus.
struct ServiceObject {
    ubus_object object = {}; // first: the bus hands this out
    std::string name;
    std::vector<ubus_method> methods;
    ubus_object_type type = {};
    bool registered = false;
};

// A call that is answered later: by its forward, or after a delay.
struct PendingCall {
    ubus_request_data request = {};
    Fault fault;
    std::unique_ptr<Forward> forward;
    blob_buf reply = {};
    bool answered = false;
    Timer timer{send, this};

    PendingCall() = default;
    ~PendingCall() {
        blob_buf_free(&reply);
    }
    PendingCall(const PendingCall &) = delete;
    PendingCall &operator=(const PendingCall &) = delete;
    static void send(void *self);
};

class Services;
Services *services; // bus callbacks know nothing of their owner

class Services {
  public:
    Services();
    ~Services();
    Services(const Services &) = delete;
    Services &operator=(const Services &) = delete;
    ubus_context *bus() {
        return bus_;
    }

  private:
    void add_method(const ServiceMethod &method);
    void register_objects();
    void answer(PendingCall &call, blob_attr *reply);
    int forward(PendingCall &call, blob_attr *message);
    int serve(ServiceObject &service, ubus_request_data *request, const char *method, blob_attr *message);
    static int on_call(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *);
    void check_faults();

    std::string root_ = required("TELEMETRY_SYSROOT");
    std::string lab_ = required("LAB_DIR");
    Scenario scenario_ = scenario_load(required("LAB_SCENARIO"));
    const ScenarioNode *self_ = scenario_.node(required("LAB_NODE"));
    FaultFile faults_{root_ + "/lab/faults.json"};
    bool changed_ = false;
    ForwardLimits limits_;
    std::vector<std::unique_ptr<ServiceObject>> objects_;
    std::vector<std::unique_ptr<PendingCall>> pending_;
    ubus_context *bus_ = nullptr;
    Timer fault_timer_{[](void *self) { static_cast<Services *>(self)->check_faults(); }, this};
};

Services::Services() {
    if (self_ == nullptr)
        throw std::runtime_error("the scenario has no node " + required("LAB_NODE"));
    const cJSON *limits = cJSON_GetObjectItemCaseSensitive(scenario_.json.get(), "sync");
    limits_.own_ms = static_cast<int>(json_number(limits, "own_limit_ms", limits_.own_ms));
    limits_.other_ms = static_cast<int>(json_number(limits, "other_limit_ms", limits_.other_ms));
    services = this;
    bus_ = ubus_connect((root_ + "/var/run/ubus.sock").c_str());
    if (bus_ == nullptr)
        throw std::runtime_error("no bus below " + root_);
    ubus_add_uloop(bus_);
    for (const ServiceMethod &method : kServiceMethods) {
        if (service_is_there(method, *self_))
            add_method(method);
    }
    register_objects();
    write_file(root_ + "/lab/services.ready", "");
    fault_timer_.set(kFaultCheckMs);
}

Services::~Services() {
    pending_.clear();
    ubus_free(bus_);
}

void Services::add_method(const ServiceMethod &method) {
    if (objects_.empty() || objects_.back()->name != method.object) {
        objects_.push_back(std::make_unique<ServiceObject>());
        objects_.back()->name = method.object;
    }
    ubus_method entry = {};
    entry.name = method.method;
    entry.handler = on_call;
    objects_.back()->methods.push_back(entry);
}

// Puts on the bus what belongs there, and takes off what does not.
void Services::register_objects() {
    for (auto &service : objects_) {
        const bool wanted = !faults_.is_absent(service->name);
        if (wanted == service->registered)
            continue;
        ubus_object &object = service->object;
        if (!wanted) {
            service->registered = ubus_remove_object(bus_, &object) != UBUS_STATUS_OK;
            continue;
        }
        service->type = {};
        service->type.name = service->name.c_str();
        service->type.methods = service->methods.data();
        service->type.n_methods = static_cast<int>(service->methods.size());
        object = {};
        object.name = service->name.c_str();
        object.type = &service->type;
        object.methods = service->type.methods;
        object.n_methods = service->type.n_methods;
        service->registered = ubus_add_object(bus_, &object) == UBUS_STATUS_OK;
        if (!service->registered)
            fprintf(stderr, "cannot register %s\n", service->name.c_str());
    }
}

void Services::check_faults() {
    changed_ |= faults_.refresh();
    if (std::exchange(changed_, false))
        register_objects();
    std::erase_if(pending_, [](const auto &call) { return call->answered; });
    fault_timer_.set(kFaultCheckMs);
}

int Services::on_call(ubus_context *, ubus_object *object, ubus_request_data *request, const char *method,
                      blob_attr *message) {
    return services->serve(*reinterpret_cast<ServiceObject *>(object), request, method, message);
}

// Sends what the call's fault makes of a reply: at once, or after its delay.
void Services::answer(PendingCall &call, blob_attr *reply) {
    blob_buf_init(&call.reply, 0);
    if (call.fault.kind == FaultKind::types || call.fault.kind == FaultKind::huge) {
        fault_distort_reply(call.fault, reply, &call.reply);
    } else {
        blob_put_raw(&call.reply, blob_data(reply), static_cast<unsigned>(blob_len(reply)));
    }
    call.timer.set(call.fault.kind == FaultKind::slow ? call.fault.delay_ms : 0);
}

void PendingCall::send(void *self) {
    auto *call = static_cast<PendingCall *>(self);
    for (int i = 0; i < call->fault.times; i++)
        ubus_send_reply(services->bus(), &call->request, call->reply.head);
    ubus_complete_deferred_request(services->bus(), &call->request, UBUS_STATUS_OK);
    if (call->fault.kind == FaultKind::twice) // and once more when nobody waits any longer
        ubus_send_reply(services->bus(), &call->request, call->reply.head);
    call->answered = true;
}

enum { REQUEST_OPCODE, REQUEST_TARGET, REQUEST_MYSELF, REQUEST_DATA, REQUEST_MEMBERS };
const blobmsg_policy kRequestPolicy[REQUEST_MEMBERS] = {
    {"opcode", BLOBMSG_TYPE_INT32},
    {"target_type", BLOBMSG_TYPE_STRING},
    {"include_myself", BLOBMSG_TYPE_BOOL},
    {"data", BLOBMSG_TYPE_TABLE},
};
const blobmsg_policy kDataPolicy = {"params", BLOBMSG_TYPE_TABLE};

int Services::forward(PendingCall &call, blob_attr *message) {
    blob_attr *tb[REQUEST_MEMBERS] = {}, *params = nullptr;
    blobmsg_parse(kRequestPolicy, REQUEST_MEMBERS, tb, blob_data(message),
                  static_cast<unsigned>(blob_len(message)));
    if (tb[REQUEST_OPCODE] == nullptr || tb[REQUEST_TARGET] == nullptr)
        return UBUS_STATUS_INVALID_ARGUMENT;
    const char *method = forward_method(blobmsg_get_u32(tb[REQUEST_OPCODE]));
    if (method == nullptr || std::string(blobmsg_get_string(tb[REQUEST_TARGET])) != "RE")
        return UBUS_STATUS_NOT_SUPPORTED;
    if (tb[REQUEST_DATA] != nullptr)
        blobmsg_parse(&kDataPolicy, 1, &params, blobmsg_data(tb[REQUEST_DATA]),
                      static_cast<unsigned>(blobmsg_data_len(tb[REQUEST_DATA])));
    const bool myself = tb[REQUEST_MYSELF] != nullptr && blobmsg_get_bool(tb[REQUEST_MYSELF]);
    call.forward =
        std::make_unique<Forward>(method, params, [this, &call](blob_attr *reply) { answer(call, reply); });
    for (size_t index = 0; index < scenario_.nodes.size(); index++) {
        const bool own = &scenario_.nodes[index] == self_;
        if (own ? myself : scenario_.nodes[index].role == "RE")
            call.forward->call(lab_ + "/n" + std::to_string(index) + "/var/run/ubus.sock",
                               own ? limits_.own_ms : limits_.other_ms);
    }
    call.forward->start();
    return UBUS_STATUS_OK;
}

int Services::serve(ServiceObject &service, ubus_request_data *request, const char *method,
                    blob_attr *message) {
    changed_ |= faults_.refresh(); // what that puts on the bus or off it has to wait for the call's end
    auto call = std::make_unique<PendingCall>();
    call->fault = faults_.take(service.name, method);
    switch (call->fault.kind) {
    case FaultKind::die:
        fprintf(stderr, "dying in %s.%s, as told\n", service.name.c_str(), method);
        _exit(3);
    case FaultKind::status:
        return call->fault.status;
    case FaultKind::no_data:
        return UBUS_STATUS_OK;
    case FaultKind::silent:
        fprintf(stderr, "silent in %s.%s, as told\n", service.name.c_str(), method);
        ubus_defer_request(bus_, request, &call->request);
        return UBUS_STATUS_OK;
    default:
        break;
    }

    const auto known =
        std::find_if(std::begin(kServiceMethods), std::end(kServiceMethods), [&](const auto &candidate) {
            return service.name == candidate.object && std::string(method) == candidate.method;
        });
    PendingCall &kept = *pending_.emplace_back(std::move(call));
    const FaultKind kind = kept.fault.kind;
    const bool invented = kind == FaultKind::garbage || kind == FaultKind::nonsense ||
                          kind == FaultKind::reply || kind == FaultKind::empty;
    if (!invented && known->build == nullptr && known->asked == nullptr) {
        const int status = forward(kept, message);
        if (status != UBUS_STATUS_OK) {
            pending_.pop_back();
            return status;
        }
    } else {
        blob_buf reply = {};
        blob_buf_init(&reply, 0);
        if (invented)
            fault_make_reply(kept.fault, &reply);
        else if (known->asked != nullptr)
            known->asked(*self_, message, &reply);
        else
            known->build(scenario_, *self_, &reply);
        answer(kept, reply.head);
        blob_buf_free(&reply);
    }
    ubus_defer_request(bus_, request, &kept.request);
    return UBUS_STATUS_OK;
}

} // namespace

} // namespace lab

int main() {
    try {
        uloop_init();
        lab::Services node_services;
        uloop_run();
    } catch (const std::exception &error) {
        fprintf(stderr, "lab-services: %s\n", error.what());
        return 1;
    }
    uloop_done();
    return 0;
}
