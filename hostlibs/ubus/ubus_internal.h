// What the files of the client library share.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <new>
#include <string>
#include <vector>

#include <libubus.h>

#include "ubus_frame.h"

using ubus_clock = std::chrono::steady_clock;

// How long the bus itself may take: to greet, to answer about objects, to take in what is sent.
constexpr int bus_hello_ms = 3000;
constexpr int bus_answer_ms = 5000;
constexpr int bus_send_ms = 5000;

// Calls held back during a blocking one; more are refused with UBUS_STATUS_NO_MEMORY.
constexpr size_t held_calls_max = 1024;
constexpr size_t held_calls_max_bytes = 4 * UBUS_MAX_MSGLEN;

// No exception leaves the library: without memory a step gives `failure`.
template <typename Result, typename Step> Result ubus_guarded(Result failure, Step step) noexcept {
    try {
        return step();
    } catch (const std::bad_alloc &) {
        return failure;
    }
}
// The same for a call whose result is a status code.
template <typename Step> int ubus_guarded(Step step) noexcept {
    return ubus_guarded(int{UBUS_STATUS_NO_MEMORY}, step);
}

struct ubus_connection {
    bus_reader reader;
    std::deque<bus_frame> incoming;   // read but not yet handled
    std::deque<bus_frame> held_calls; // calls of our objects that wait for their turn
    size_t held_bytes = 0;
    bool ended = false;                 // no more can be read
    bool in_loop = false;               // also after the loop has let go of a socket at its end
    bool loss_told = false;             // connection_lost has run for this connection
    unsigned generation = 0;            // counts the connections, so that a waiting call sees its own end
    std::vector<ubus_object *> objects; // all that are to be registered on each connection
};

// libubus.cpp. Fills a context that is not connected yet.
void ubus_init(ubus_context *ctx);

// ubus_io.cpp. A fresh socket and the greeting, or false with the context unconnected.
bool ubus_open(ubus_context *ctx, const char *path);
// The second half of it: takes over a connected socket and waits for the greeting.
bool ubus_adopt_socket(ubus_context *ctx, int fd, int hello_ms);
void ubus_close(ubus_context *ctx);
// Marks the connection as ended: its owner hears of it from the event loop.
void ubus_end_connection(ubus_context *ctx);
// Reads once without waiting; false when there was nothing to read (also at the end).
bool ubus_receive(ubus_context *ctx);
// Waits at most `ms` (< 0: for ever) for something to read; false when the time is over.
bool ubus_wait_readable(ubus_context *ctx, int64_t ms);
// Sends a finished message; on failure the connection is ended and the result is false.
bool ubus_send(ubus_context *ctx, const bus_builder &msg);

// ubus_call.cpp. Calls and news for our objects: run now, or held back while a blocking call runs.
void ubus_take_call(ubus_context *ctx, bus_frame &&call);
void ubus_run_held_calls(ubus_context *ctx);
// The methods of every subscriber, by which one is told from other objects.
extern const ubus_method ubus_subscriber_methods[1];

// ubus_req.cpp. A status code: CONNECTION_FAILED, or INVALID_ARGUMENT for a message that is too long.
int ubus_start_request(ubus_context *ctx, ubus_request *req, bus_builder &msg, uint8_t type, uint32_t peer);
void ubus_dispatch(ubus_context *ctx);
void ubus_fail_requests(ubus_context *ctx, int status);

// ubus_obj.cpp. Registers all objects of the context anew. CONNECTION_FAILED or TIMEOUT when the bus went
// away meanwhile.
int ubus_register_objects(ubus_context *ctx);
