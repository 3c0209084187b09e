/*
 * A client of the bus: connects, looks objects up, calls them, and offers objects of its own. One connection
 * is one `ubus_context`; everything runs in the thread of the event loop. Functions that return int give a
 * UBUS_STATUS_ code.
 */
#ifndef LIBUBUS_H
#define LIBUBUS_H

#ifdef __cplusplus
extern "C" {
#endif

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>

#include "ubusmsg.h"

struct ubus_context;
struct ubus_connection;
struct ubus_event_handler;
struct ubus_object;
struct ubus_notify_request;
struct ubus_object_data;
struct ubus_request;
struct ubus_request_data;
struct ubus_subscriber;

/* `msg` lives only as long as the callback. */
typedef void (*ubus_lookup_handler_t)(struct ubus_context *ctx, struct ubus_object_data *obj, void *priv);
typedef int (*ubus_handler_t)(struct ubus_context *ctx, struct ubus_object *obj,
                              struct ubus_request_data *req, const char *method, struct blob_attr *msg);
typedef void (*ubus_state_handler_t)(struct ubus_context *ctx, struct ubus_object *obj);
typedef void (*ubus_remove_handler_t)(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id);
typedef void (*ubus_connect_handler_t)(struct ubus_context *ctx);
typedef void (*ubus_event_handler_t)(struct ubus_context *ctx, struct ubus_event_handler *ev,
                                     const char *type, struct blob_attr *msg);
typedef void (*ubus_data_handler_t)(struct ubus_request *req, int type, struct blob_attr *msg);
typedef void (*ubus_complete_handler_t)(struct ubus_request *req, int ret);
typedef void (*ubus_notify_complete_handler_t)(struct ubus_notify_request *req, int idx, int ret);
typedef void (*ubus_notify_data_handler_t)(struct ubus_notify_request *req, int type, struct blob_attr *msg);

/* The policy describes the arguments to others; the library does not check calls against it. */
struct ubus_method {
    const char *name; /* null: takes every method */
    ubus_handler_t handler;
    unsigned long mask; /* bits of policy entries to publish; 0: all */
    unsigned long tags;
    const struct blobmsg_policy *policy;
    int n_policy;
};

#define UBUS_METHOD(_name, _handler, _policy)                                        \
    {                                                                                \
        .name = _name, .handler = _handler, .mask = 0, .tags = 0, .policy = _policy, \
        .n_policy = (int)ARRAY_SIZE(_policy)                                         \
    }

#define UBUS_METHOD_NOARG(_name, _handler) \
    { .name = _name, .handler = _handler, .mask = 0, .tags = 0, .policy = NULL, .n_policy = 0 }

/* `id` is the bus's; 0 while no object of the type is registered. */
struct ubus_object_type {
    const char *name;
    uint32_t id;
    const struct ubus_method *methods;
    int n_methods;
};

#define UBUS_OBJECT_TYPE(_name, _methods) \
    { .name = _name, .id = 0, .methods = _methods, .n_methods = (int)ARRAY_SIZE(_methods) }

struct ubus_object {
    struct avl_node avl;

    const char *name; /* null: anonymous */
    uint32_t id;      /* the bus's; 0 while it is not registered */

    const char *path;
    struct ubus_object_type *type;

    ubus_state_handler_t subscribe_cb; /* has_subscribers has changed */
    bool has_subscribers;

    const struct ubus_method *methods;
    int n_methods;
};

/* `cb` gets the notifications of the objects that it subscribes to, `remove_cb` hears when one of them goes.
 */
struct ubus_subscriber {
    struct ubus_object obj;
    ubus_handler_t cb;
    ubus_remove_handler_t remove_cb;
};

struct ubus_event_handler {
    struct ubus_object obj;
    ubus_event_handler_t cb;
};

/* One object found by a lookup. */
struct ubus_object_data {
    uint32_t id;
    uint32_t type_id;
    const char *path;
    struct blob_attr *signature; /* null when the object has no type */
};

/* A call that arrived. `acl` names the caller's user and group. */
struct ubus_acl_key {
    const char *user;
    const char *group;
    const char *object;
};

struct ubus_request_data {
    uint32_t object;
    uint32_t peer;
    uint16_t seq;
    struct ubus_acl_key acl;
    bool deferred;
    bool no_reply;
};

/* A request that was sent. The caller keeps it until it is complete or aborted, and sets the callbacks. */
struct ubus_request {
    struct list_head list;

    int status_code;
    bool status_msg; /* the status has arrived */
    bool blocked;    /* a blocking call waits for it */
    bool cancelled;
    bool notify; /* part of a ubus_notify_request */

    uint32_t peer;
    uint16_t seq;

    ubus_data_handler_t raw_data_cb; /* gets the whole message: the attribute of id 0 */
    ubus_data_handler_t data_cb;     /* gets the reply's data, null if the reply had none */
    ubus_complete_handler_t complete_cb;

    struct ubus_context *ctx;
    void *priv;
};

#define UBUS_MAX_NOTIFY_PEERS 16

/* A notification that waits for its subscribers' answers: `status_cb` runs for each, `complete_cb` after the
 * last. */
struct ubus_notify_request {
    struct ubus_request req;
    ubus_notify_complete_handler_t status_cb;
    ubus_notify_complete_handler_t complete_cb;
    ubus_notify_data_handler_t data_cb;
    uint32_t pending;
    uint32_t id[UBUS_MAX_NOTIFY_PEERS + 1]; /* up to a zero */
};

struct ubus_context {
    struct list_head requests; /* those that wait for their status */
    struct avl_tree objects;   /* registered objects by id */

    struct uloop_fd sock;
    struct uloop_timeout pending_timer; /* runs calls that arrived during a blocking one */

    uint32_t local_id;
    uint16_t request_seq;
    int stack_depth; /* blocking calls and handlers that are running */

    /* Runs from the event loop when the bus is gone, once a connection. The default ends the loop. */
    void (*connection_lost)(struct ubus_context *ctx);

    /* Gets the monitoring messages: the attribute of id 0, which holds those of enum ubus_monitor_attr. */
    void (*monitor_cb)(struct ubus_context *ctx, uint32_t seq, struct blob_attr *data);

    struct ubus_connection *conn; /* the library's own */
};

/*
 * Connects to the bus at a socket's path, null for UBUS_UNIX_SOCKET. Null when nobody accepts, or no proper
 * greeting comes within 3 seconds.
 */
struct ubus_context *ubus_connect(const char *path);

/* The same in memory of the caller; 0 or -1. Ends with ubus_shutdown. */
int ubus_connect_ctx(struct ubus_context *ctx, const char *path);

/*
 * Closes the connection, connects again and registers all objects again; waiting requests end with
 * UBUS_STATUS_TIMEOUT. The socket is not in the loop afterwards. An object whose path is taken stays without
 * an id. On failure the context stays unconnected and this can be tried again.
 */
int ubus_reconnect(struct ubus_context *ctx, const char *path);

/* Ends waiting requests and closes; the context itself is freed by ubus_free only. Null is allowed in
 * ubus_free. */
void ubus_shutdown(struct ubus_context *ctx);
void ubus_free(struct ubus_context *ctx);

const char *ubus_strerror(int error);

/* Puts the connection into the event loop; uloop_init must have run. */
void ubus_add_uloop(struct ubus_context *ctx);

/* Works off what has arrived, for those who watch the socket themselves. */
void ubus_handle_event(struct ubus_context *ctx);

/* Calls `cb` for the object of that path, for those of a prefix that ends in '*', or for all (null). */
int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv);
int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id);

/* The object, its type and its methods must stay where they are until it is removed. */
int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);
int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj);

/*
 * Calls a method and waits; `cb` (may be null) gets the data. `timeout` in ms, 0: none. Only this connection
 * is read meanwhile, and calls that arrive on it run after this one has returned.
 */
int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                ubus_data_handler_t cb, void *priv, int timeout);

/* Sends a call. Set the callbacks in `req`, then ubus_complete_request_async or ubus_complete_request. */
int ubus_invoke_async(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                      struct ubus_request *req);

/* Waits for the status; `timeout` in ms, 0: none. */
int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout);

/* Lets the event loop take the replies; `complete_cb` runs with the status. */
void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req);

/* Forgets a request; none of its callbacks runs any more. */
void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req);

/* Answers a call with data; the handler's return value, or the deferred completion, is its status. */
int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg);

/* The handler will answer later: `new_req` keeps what ubus_complete_deferred_request needs. */
static inline void ubus_defer_request(struct ubus_context *ctx, struct ubus_request_data *req,
                                      struct ubus_request_data *new_req) {
    (void)ctx;
    req->deferred = true;
    *new_req = *req;
    new_req->acl.user = NULL;
    new_req->acl.group = NULL;
    new_req->acl.object = NULL;
}

void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req, int ret);

int ubus_register_subscriber(struct ubus_context *ctx, struct ubus_subscriber *obj);
static inline int ubus_unregister_subscriber(struct ubus_context *ctx, struct ubus_subscriber *obj) {
    return ubus_remove_object(ctx, &obj->obj);
}

/* A registered subscriber gets the notifications of object `id`, until it or the object goes or it ends that.
 */
int ubus_subscribe(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id);
int ubus_unsubscribe(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id);

/*
 * Notifies the subscribers of `obj`. With a `timeout` (ms, 0: none) it waits for the answers of all of them;
 * below 0 it asks for no answers and returns when the message is sent.
 */
int ubus_notify(struct ubus_context *ctx, struct ubus_object *obj, const char *type, struct blob_attr *msg,
                int timeout);

/* Sends it; set the callbacks, then ubus_complete_request_async(ctx, &req->req). */
int ubus_notify_async(struct ubus_context *ctx, struct ubus_object *obj, const char *type,
                      struct blob_attr *msg, struct ubus_notify_request *req);

/* Monitoring of all that goes over the bus, for root: monitor_cb gets it. */
int __ubus_monitor(struct ubus_context *ctx, const char *type);
static inline int ubus_monitor_start(struct ubus_context *ctx) {
    return __ubus_monitor(ctx, "add");
}
static inline int ubus_monitor_stop(struct ubus_context *ctx) {
    return __ubus_monitor(ctx, "remove");
}

/* Sends an event to all who listen for its name. */
int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data);

/* Events of a pattern (null: all; '*' at its end: a prefix), such as the bus's "ubus.object.add" {id, path}.
 */
int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *pattern);

static inline int ubus_unregister_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev) {
    return ubus_remove_object(ctx, &ev->obj);
}

#ifdef __cplusplus
}
#endif

#endif
