// The bus daemon without its main: clients, objects, and what is done with a message. One thread, one event
// loop.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>
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
constexpr size_t ubusd_max_subscriptions = 1024;

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

// Object `subscriber` gets the notifications of object `target`; twice when it has subscribed twice.
struct ubusd_subscription {
    uint32_t subscriber = 0;
    uint32_t target = 0;
};

// What a user or a group may do, of one file: lists of names, where a '*' at the end stands for any rest.
enum class ubusd_right { access, publish, listen, send, subscribe };
struct ubusd_grant {
    bool by_group = false;
    unsigned owner = 0; // uid or gid
    ubusd_right right = ubusd_right::access;
    std::string name;                 // of the object or the event
    std::vector<std::string> methods; // for access; "*" is all of them
};

struct ubusd_client {
    ubusd_server *server = nullptr;
    uint32_t id = 0;
    uloop_fd sock = {}; // fd -1: not connected, what is sent stays in the queue
    std::string user;
    std::string group;
    uid_t uid = 0; // root may do everything
    std::vector<gid_t> groups;

    bus_reader reader;
    std::deque<std::vector<char>> queue;
    size_t queue_bytes = 0;
    size_t sent = 0; // of the first message in the queue

    std::vector<uint32_t> objects;
    size_t object_bytes = 0;
    size_t listeners = 0;
    size_t subscriptions = 0;
    uint16_t told = 0; // messages of the bus itself to it
    bool monitoring = false;
    uint16_t monitor_seq = 0;
    bool doomed = false; // to be removed when the running callback is through
};

// A record of its own because the event loop's callback finds the server from the socket.
struct ubusd_listen_socket {
    uloop_fd sock = {};
    ubusd_server *server = nullptr;
};

// The handler has seen to the answer, or there is none.
constexpr int ubusd_no_status = -1;

// A message as those see it who monitor the bus.
struct ubusd_message {
    uint8_t type;
    uint16_t seq;
    uint32_t peer;
    std::string_view data; // what the attribute of id 0 holds
};

struct ubusd_server {
    std::map<uint32_t, std::unique_ptr<ubusd_client>> clients;
    std::map<uint32_t, ubusd_object> objects;
    std::map<std::string, uint32_t, std::less<>> paths;
    std::map<uint32_t, ubusd_type> types;
    std::vector<ubusd_listener> listeners;
    std::vector<ubusd_subscription> subscriptions;
    std::vector<ubusd_grant> grants;
    uint32_t acl_sequence = 0; // counts the readings of the files of rights
    size_t monitors = 0;
    std::vector<uint32_t> doomed;
    ubusd_listen_socket listening;
    int spare_fd = -1; // given up for a moment to refuse a client when descriptors run out
};

// The files stand one above the other: each calls only those that come before it here.

// ubusd_send.cpp. Sends, or queues what the socket does not take. False, with nothing queued, when the queue
// would exceed its bound.
bool ubusd_client_send(ubusd_client &client, std::vector<char> &&message);
// The same; a client that leaves no room for it is dropped.
void ubusd_client_send_or_drop(ubusd_client &client, std::vector<char> &&message);
// Sends what the socket takes now.
void ubusd_client_flush(ubusd_client &client);
// Marks a client for removal.
void ubusd_client_drop(ubusd_client &client);
// Shows a message to those who monitor the bus. `body`: the attribute of id 0; `sent`: from the bus to the
// client.
void ubusd_show(const ubusd_client &client, const ubusd_message &message, bool sent);
// Forwards a call to the owner of `object`: a UBUS_STATUS_ code. `source` null: the bus itself calls, for no
// answer.
int ubusd_forward_call(ubusd_object &object, const ubusd_client *source, uint16_t seq,
                       std::string_view method, const blob_attr *data, bool no_reply);
// A random number of at least UBUS_SYSTEM_OBJECT_MAX.
uint32_t ubusd_random_id();

// ubusd_acl.cpp. Reads all "*.json" of a directory in place of what was known.
void ubusd_acl_load(ubusd_server &server, const char *directory);
// `method` only for access. Whether the name is one of an existing object plays no part.
bool ubusd_may(const ubusd_client &client, ubusd_right right, std::string_view name,
               std::string_view method = {});

// ubusd_event.cpp. The bus's own object 1: "register" {object, pattern} and "send" {id, data}.
int ubusd_handle_event_call(ubusd_client &client, const bus_attrs &attrs);
// Tells listeners that a named object came ("ubus.object.add") or went ("ubus.object.remove").
void ubusd_announce_object(ubusd_server &server, const ubusd_object &object, bool added);
// Tells listeners that rights were read anew ("ubus.acl.sequence").
void ubusd_announce_rights(ubusd_server &server);
void ubusd_remove_listeners(ubusd_server &server, const ubusd_object &object);

// ubusd_subscribe.cpp. Handlers give a UBUS_STATUS_ code or ubusd_no_status.
int ubusd_handle_subscribe(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs);
int ubusd_handle_unsubscribe(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs);
int ubusd_handle_notify(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs);
// Ends the subscriptions of and to an object that has left the table, and tells the other side of each.
void ubusd_remove_subscriptions(ubusd_server &server, const ubusd_object &object);

// ubusd_object.cpp. Handlers give a UBUS_STATUS_ code, after sending their data.
int ubusd_handle_add_object(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs);
int ubusd_handle_remove_object(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs);
int ubusd_handle_lookup(ubusd_client &client, bus_frame &frame, const bus_attrs &attrs);
// Takes all objects of a client off the bus.
void ubusd_remove_objects(ubusd_client &client);

// ubusd_proto.cpp. Handles one message and answers it.
void ubusd_handle(ubusd_client &client, bus_frame &frame);

// ubusd_client.cpp. Takes over a connected socket (-1: none), and greets.
ubusd_client *ubusd_client_add(ubusd_server &server, int fd);
// Handles bytes that the client sent.
void ubusd_client_input(ubusd_client &client, std::string_view bytes);
// Removes the marked ones with their objects. Called at the end of each callback, when nobody holds a client.
void ubusd_reap(ubusd_server &server);

// ubusd_listen.cpp. Binds the socket (its directory is made, a stale one replaced) and accepts in the event
// loop. False with errno set. The server must stay where it is.
bool ubusd_listen(ubusd_server &server, const char *path);
// Drops all clients and stops listening.
void ubusd_stop(ubusd_server &server);
