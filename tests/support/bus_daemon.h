// The bus daemon as a process of its own, and a client that calls methods of objects in this very process.
#pragma once

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

#include "telemetry_blob.h"
#include "telemetry_handles.h"

class BusDaemon {
  public:
    explicit BusDaemon(std::string socket) : socket_(std::move(socket)) {
        start();
    }
    ~BusDaemon() {
        kill();
    }
    BusDaemon(const BusDaemon &) = delete;
    BusDaemon &operator=(const BusDaemon &) = delete;

    // Returns when the bus greets its clients.
    void start() {
        if (pid_ > 0)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            close_range(3, ~0U, 0); // they stay with the test
            execl(TEST_BIN_DIR "/ubusd", "ubusd", "-s", socket_.c_str(), nullptr);
            perror(TEST_BIN_DIR "/ubusd");
            _exit(127);
        }
        for (int tries = 0; tries < 10000; ++tries) {
            if (BusContextPtr(ubus_connect(socket_.c_str())))
                return;
            usleep(1000);
        }
        fprintf(stderr, "no bus daemon answers on %s\n", socket_.c_str());
        abort();
    }
    // As a crash ends it: no message to the clients, the socket's file stays.
    void kill() {
        if (pid_ <= 0)
            return;
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    const std::string &socket() const {
        return socket_;
    }

  private:
    std::string socket_;
    pid_t pid_ = -1;
};

// What a call gave: its status and the reply as compact JSON ("" without one).
struct BusReply {
    int status = -1;
    std::string json;
};

// Calls over a connection of its own inside this process's event loop, so that objects of this process can
// answer.
class LoopClient {
  public:
    explicit LoopClient(const std::string &socket) : bus_(ubus_connect(socket.c_str())) {
        if (!bus_) {
            fprintf(stderr, "no bus at %s\n", socket.c_str());
            abort();
        }
        ubus_add_uloop(bus_.get());
    }
    ubus_context *bus() {
        return bus_.get();
    }

    // Runs the loop until the call is answered. No object: UBUS_STATUS_NOT_FOUND.
    BusReply call(const char *object, const char *method, blob_attr *arguments) {
        BusReply reply;
        uint32_t id = 0;
        reply.status = ubus_lookup_id(bus_.get(), object, &id);
        if (reply.status != UBUS_STATUS_OK)
            return reply;
        ubus_request request = {};
        reply.status = ubus_invoke_async(bus_.get(), id, method, arguments, &request);
        if (reply.status != UBUS_STATUS_OK)
            return reply;
        request.priv = &reply;
        request.data_cb = take_data;
        request.complete_cb = take_status;
        ubus_complete_request_async(bus_.get(), &request);
        uloop_run();
        return reply;
    }
    BusReply call(const char *object, const char *method, const std::string &json = "{}") {
        BlobBuffer arguments;
        blobmsg_add_json_from_string(arguments.get(), json.c_str());
        return call(object, method, arguments.head());
    }

  private:
    static void take_data(ubus_request *request, int, blob_attr *message) {
        if (message == nullptr)
            return;
        const TextPtr text(blobmsg_format_json(message, true));
        static_cast<BusReply *>(request->priv)->json = text ? text.get() : "";
    }
    static void take_status(ubus_request *request, int status) {
        static_cast<BusReply *>(request->priv)->status = status;
        uloop_end();
    }
    BusContextPtr bus_;
};

// Somebody who holds a name on the bus.
class Squatter {
  public:
    explicit Squatter(const std::string &socket, const char *name = "telemetry")
        : type_{name, 0, nullptr, 0}, client_(socket) {
        object_.name = name;
        object_.type = &type_;
        if (ubus_add_object(client_.bus(), &object_) != UBUS_STATUS_OK)
            abort();
    }

  private:
    ubus_object_type type_;
    ubus_object object_ = {};
    LoopClient client_;
};
