// Services on a bus that answer at once, from replies made before, in a process of their own.
#pragma once

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <sys/prctl.h>
#include <sys/wait.h>

#include "bus_daemon.h"
#include "telemetry_blob.h"
#include "telemetry_handles.h"

namespace {

// By "object.method"; that of a satellites' request by its opcode, too: "sync.request.50946" goes before
// "sync.request".
using Replies = std::map<std::string, std::unique_ptr<BlobBuffer>>;

Replies served;

int answer(ubus_context *bus, ubus_object *object, ubus_request_data *request, const char *method,
           blob_attr *message) {
    const std::string name = std::string(object->name) + "." + method;
    const TextPtr text(blobmsg_format_json(message, true));
    const char *digits = strpbrk(text.get(), "0123456789");
    auto found = served.find(name + "." + std::to_string(digits != nullptr ? atoi(digits) : 0));
    if (found == served.end())
        found = served.find(name);
    return found == served.end() ? UBUS_STATUS_METHOD_NOT_FOUND
                                 : ubus_send_reply(bus, request, found->second->head());
}

[[noreturn]] void serve(const std::string &socket, const std::vector<const char *> &names, int ready) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    static const ubus_method methods[] = {
        UBUS_METHOD_NOARG("get", answer),           UBUS_METHOD_NOARG("get_myself", answer),
        UBUS_METHOD_NOARG("list", answer),          UBUS_METHOD_NOARG("request", answer),
        UBUS_METHOD_NOARG("telemetry_get", answer), UBUS_METHOD_NOARG("status", answer)};
    std::vector<ubus_object_type> types(names.size());
    std::vector<ubus_object> objects(names.size());
    uloop_init();
    const BusContextPtr bus(ubus_connect(socket.c_str()));
    for (size_t i = 0; i < names.size(); ++i) {
        types[i] = {names[i], 0, methods, std::size(methods)};
        objects[i].name = names[i];
        objects[i].type = &types[i];
        objects[i].methods = methods;
        objects[i].n_methods = std::size(methods);
        if (!bus || ubus_add_object(bus.get(), &objects[i]) != UBUS_STATUS_OK)
            _exit(1);
    }
    ubus_add_uloop(bus.get());
    if (write(ready, "", 1) == 1)
        uloop_run();
    _exit(0);
}

// Objects of these names, with the replies that `served` has when they start.
class Services {
  public:
    Services(const std::string &socket, const std::vector<const char *> &names) {
        int ready[2];
        if (pipe(ready) != 0 || (pid_ = fork()) < 0)
            abort();
        if (pid_ == 0)
            serve(socket, names, ready[1]);
        close(ready[1]);
        char byte = 0;
        if (read(ready[0], &byte, 1) != 1)
            abort();
        close(ready[0]);
    }
    ~Services() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Services(const Services &) = delete;
    Services &operator=(const Services &) = delete;

  private:
    pid_t pid_ = -1;
};

} // namespace
