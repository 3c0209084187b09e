// The bus daemon without its main: clients, objects, and what is done with a message. One thread, one event
// loop.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "../ubus/ubus_frame.h"

extern "C" {
#include <libubox/uloop.h>
}

// What one client may hold in the daemon.
constexpr size_t ubusd_max_queue = 4 * UBUS_MAX_MSGLEN; // bytes on their way to it
constexpr size_t ubusd_max_objects = 1024;
constexpr size_t ubusd_max_object_bytes = 2 * UBUS_MAX_MSGLEN; // paths and signatures
constexpr size_t ubusd_max_listeners = 256;                    // event patterns

struct ubusd_client;
struct ubusd_server;

struct ubusd_type {
    uint32_t id = 0;
    std::vector<char> signature; // content of the attribute
    size_t users = 0;
};

struct ubusd_object {
    uint32_t id = 0;
    std::string path; // empty: anonymous
    ubusd_type *type = nullptr;
    ubusd_client *owner = nullptr;
    size_t bytes = 0; // counted against the owner
};

// Object `object` gets the events whose name matches.
struct ubusd_listener {
    uint32_t object = 0;
    std::string pattern; // without the '*' of a prefix
    bool prefix = false;
};

struct ubusd_client {
    ubusd_server *server = nullptr;
    uint32_t id = 0;
    uloop_fd sock = {}; // fd -1: not connected, what is sent stays in the queue
    std::string user;
    std::string group;

    bus_reader reader;
    std::deque<std::vector<char>> queue;
    size_t queue_bytes = 0;
    size_t sent = 0; // of the first message in the queue

    std::vector<uint32_t> objects;
    size_t object_bytes = 0;
    size_t listeners = 0;
    bool doomed = false; // to be removed when the running callback is through
};

// A record of its own because the event loop's callback finds the server from the socket.
struct ubusd_listen_socket {
    uloop_fd sock = {};
    ubusd_server *server = nullptr;
};

struct ubusd_server {
    std::unordered_map<uint32_t, std::unique_ptr<ubusd_client>> clients;
    std::unordered_map<uint32_t, ubusd_object> objects;
    std::map<std::string, uint32_t, std::less<>> paths;
    std::unordered_map<uint32_t, ubusd_type> types;
    std::vector<ubusd_listener> listeners;
    std::vector<uint32_t> doomed;
    ubusd_listen_socket listening;
    int spare_fd = -1; // given up for a moment to refuse a client when descriptors run out
};

// ubusd_listen.cpp. Binds the socket (its directory is made, a stale one replaced) and accepts in the event
// loop. False with errno set. The server must stay where it is.
bool ubusd_listen(ubusd_server &server, const char *path);
// Drops all clients and stops listening.
void ubusd_stop(ubusd_server &server);

// ubusd_client.cpp. Takes over a connected socket (-1: none), and greets.
ubusd_client *ubusd_client_add(ubusd_server &server, int fd);
// Handles bytes that the client sent.
void ubusd_client_input(ubusd_client &client, std::string_view bytes);
// Sends, or queues what the socket does not take. False, with nothing queued, when the queue would exceed its
// bound.
bool ubusd_client_send(ubusd_client &client, std::vector<char> &&message);
// The same; a client that leaves no room for it is dropped.
void ubusd_client_send_or_drop(ubusd_client &client, std::vector<char> &&message);
// Marks a client for removal.
void ubusd_client_drop(ubusd_client &client);
// Removes the marked ones with their objects. Called at the end of each callback, when nobody holds a client.
void ubusd_reap(ubusd_server &server);

// ubusd_proto.cpp. Handles one message and answers it.
void ubusd_handle(ubusd_client &client, bus_frame &frame);
// Forwards a call to the owner of `object`: a UBUS_STATUS_ code. `source` null: the bus itself calls, for no
// answer.
int ubusd_forward_call(ubusd_object &object, const ubusd_client *source, const bus_frame &frame,
                       std::string_view method, const blob_attr *data, bool no_reply);
// A random number of at least UBUS_SYSTEM_OBJECT_MAX.
uint32_t ubusd_random_id();

// ubusd_object.cpp. Handlers give a UBUS_STATUS_ code, after sending their data.
int ubusd_handle_add_object(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs);
int ubusd_handle_remove_object(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs);
int ubusd_handle_lookup(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs);
// Takes all objects of a client off the bus.
void ubusd_remove_objects(ubusd_client &client);

// ubusd_event.cpp. The bus's own object 1: "register" {object, pattern} and "send" {id, data}.
int ubusd_handle_event_call(ubusd_client &client, const bus_frame &frame, const bus_attrs &attrs);
// Tells listeners that a named object came ("ubus.object.add") or went ("ubus.object.remove").
void ubusd_announce_object(ubusd_server &server, const ubusd_object &object, bool added);
void ubusd_remove_listeners(ubusd_server &server, const ubusd_object &object);
