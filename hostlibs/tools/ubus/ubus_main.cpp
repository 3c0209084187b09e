// ubus: list the objects of the bus, call a method, wait for objects, events and notifications, monitor. The
// exit status is the bus's status code, for a call that failed 256 minus it.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>

extern "C" {
#include <libubox/blobmsg_json.h>
}
#include <libubus.h>

namespace {

struct options {
    const char *socket = nullptr;
    int timeout_ms = 30000;
    bool simple = false;
    bool verbose = false;
    unsigned types = 0; // of messages to monitor, a bit each; 0: all
    char direction = 0; // 'r' or 't': only what the bus receives or sends
    bool timed = false; // -t was given: listen and subscribe end by it, too
};

// Exit statuses that are none of the bus: the arguments are wrong; or all has been said.
constexpr int usage_error = -UBUS_STATUS_INVALID_ARGUMENT;
constexpr int told_error = -1;

struct free_text {
    void operator()(char *text) const {
        std::free(text);
    }
};
using json_text = std::unique_ptr<char, free_text>;

struct free_bus {
    void operator()(ubus_context *bus) const {
        ubus_free(bus);
    }
};

struct message {
    blob_buf buf = {};
    message() {
        blob_buf_init(&buf, 0);
    }
    ~message() {
        blob_buf_free(&buf);
    }
    message(const message &) = delete;
    message &operator=(const message &) = delete;
};

const char *type_name(uint32_t type) {
    static constexpr const char *names[] = {"(unknown)", "Array",   "Table",     "String",
                                            "(unknown)", "Integer", "(unknown)", "Boolean"};
    return type < ARRAY_SIZE(names) ? names[type] : names[0];
}

// "method":{"argument":"Type"}
void print_method(blob_attr *method) {
    message out;
    void *table = blobmsg_open_table(&out.buf, blobmsg_name(method));
    blob_attr *arg;
    size_t left;
    blobmsg_for_each_attr(arg, method, left) {
        if (blobmsg_check_attr(arg, false) && blobmsg_type(arg) == BLOBMSG_TYPE_INT32)
            blobmsg_add_string(&out.buf, blobmsg_name(arg), type_name(blobmsg_get_u32(arg)));
    }
    blobmsg_close_table(&out.buf, table);
    json_text text(blobmsg_format_json(out.buf.head, true));
    std::string_view braced = text ? text.get() : "{}";
    std::printf("\t%.*s\n", static_cast<int>(braced.size() - 2), braced.data() + 1);
}

void print_object(ubus_context *, ubus_object_data *obj, void *priv) {
    const auto &opts = *static_cast<const options *>(priv);
    if (!opts.verbose || opts.simple) {
        std::printf("%s\n", obj->path);
        return;
    }
    std::printf("'%s' @%08x\n", obj->path, obj->id);
    blob_attr *method;
    size_t left;
    blob_for_each_attr(method, obj->signature, left) {
        if (blobmsg_check_attr(method, false))
            print_method(method);
    }
}

int run_list(ubus_context *bus, options &opts, int argc, char **argv) {
    if (argc > 1)
        return usage_error;
    return ubus_lookup(bus, argc ? argv[0] : nullptr, print_object, &opts);
}

void print_reply(ubus_request *req, int, blob_attr *msg) {
    if (!msg)
        return;
    json_text text(
        blobmsg_format_json_indent(msg, true, static_cast<const options *>(req->priv)->simple ? -1 : 0));
    if (text)
        std::printf("%s\n", text.get());
}

int call(ubus_context *bus, options &opts, int argc, char **argv) {
    message msg;
    if (argc == 3 && !blobmsg_add_json_from_string(&msg.buf, argv[2]))
        return -UBUS_STATUS_PARSE_ERROR;
    uint32_t id;
    int status = ubus_lookup_id(bus, argv[0], &id);
    if (status != UBUS_STATUS_OK)
        return status;
    return -ubus_invoke(bus, id, argv[1], msg.buf.head, print_reply, &opts, opts.timeout_ms);
}

int run_call(ubus_context *bus, options &opts, int argc, char **argv) {
    if (argc < 2 || argc > 3)
        return usage_error;
    int status = call(bus, opts, argc, argv);
    if (opts.simple)
        return std::abs(status);
    // One that reads as wrong arguments shows the usage, too, as scripts know it.
    if (status < 0) {
        std::fprintf(stderr, "Command failed: ubus call");
        for (int i = 0; i < argc; i++)
            std::fprintf(stderr, " %s", argv[i]);
        std::fprintf(stderr, " (%s)\n", ubus_strerror(-status));
    }
    return status;
}

int run_send(ubus_context *bus, options &, int argc, char **argv) {
    if (argc < 1 || argc > 2)
        return usage_error;
    message msg;
    if (argc == 2 && !blobmsg_add_json_from_string(&msg.buf, argv[1]))
        return UBUS_STATUS_PARSE_ERROR;
    return ubus_send_event(bus, argv[0], msg.buf.head);
}

// Prints what came and lets whoever reads our output have it at once.
void print_news(const char *type, blob_attr *msg) {
    json_text text(blobmsg_format_json(msg, true));
    std::printf("{ \"%s\": %s }\n", type, text ? text.get() : "{}");
    std::fflush(stdout);
}

void print_event(ubus_context *, ubus_event_handler *, const char *type, blob_attr *msg) {
    print_news(type, msg);
}

int print_notification(ubus_context *, ubus_object *, ubus_request_data *, const char *method,
                       blob_attr *msg) {
    print_news(method, msg);
    return UBUS_STATUS_OK;
}

void end_loop(uloop_timeout *) {
    uloop_end();
}

// Waits for what comes until the time given is over, a signal or the end of the bus.
int run_until_end(ubus_context *bus, int timeout_ms) {
    uloop_timeout timer = {};
    timer.cb = end_loop;
    uloop_init();
    ubus_add_uloop(bus);
    if (timeout_ms > 0)
        uloop_timeout_set(&timer, timeout_ms);
    uloop_run();
    uloop_timeout_cancel(&timer);
    uloop_done();
    return bus->sock.eof ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_OK;
}

int registration_failed(const options &opts, const char *what, int status) {
    if (!opts.simple)
        std::fprintf(stderr, "Error while registering for event '%s': %s\n", what, ubus_strerror(status));
    return told_error;
}

int run_listen(ubus_context *bus, options &opts, int argc, char **argv) {
    ubus_event_handler event = {};
    event.cb = print_event;
    const char *all = "*";
    const char *const *patterns = argc ? argv : &all;
    for (int i = 0; i < std::max(argc, 1); i++) {
        int status = ubus_register_event_handler(bus, &event, patterns[i]);
        if (status != UBUS_STATUS_OK)
            return registration_failed(opts, patterns[i], status);
    }
    return run_until_end(bus, opts.timed ? opts.timeout_ms : 0);
}

int run_subscribe(ubus_context *bus, options &opts, int argc, char **argv) {
    ubus_subscriber subscriber = {};
    subscriber.cb = print_notification;
    if (argc < 1) {
        if (!opts.simple)
            std::fprintf(stderr, "You need to specify an object to subscribe to\n");
        return told_error;
    }
    int status = ubus_register_subscriber(bus, &subscriber);
    for (int i = 0; i < argc && status == UBUS_STATUS_OK; i++) {
        uint32_t id;
        status = ubus_lookup_id(bus, argv[i], &id);
        if (status == UBUS_STATUS_OK)
            status = ubus_subscribe(bus, &subscriber, id);
    }
    return status == UBUS_STATUS_OK ? run_until_end(bus, opts.timed ? opts.timeout_ms : 0)
                                    : registration_failed(opts, argv[0], status);
}

// Names of the message types and of the attributes, by their numbers.
constexpr const char *message_types[] = {"hello",     "status",      "data",       "ping",
                                         "lookup",    "invoke",      "add_object", "remove_object",
                                         "subscribe", "unsubscribe", "notify",     "monitor"};
enum class shown_as { text, number, flag, nested };
constexpr struct {
    int id;
    const char *name;
    shown_as form;
} attributes[] = {
    {UBUS_ATTR_STATUS, "status", shown_as::number},   {UBUS_ATTR_OBJPATH, "objpath", shown_as::text},
    {UBUS_ATTR_OBJID, "objid", shown_as::number},     {UBUS_ATTR_METHOD, "method", shown_as::text},
    {UBUS_ATTR_OBJTYPE, "objtype", shown_as::number}, {UBUS_ATTR_SIGNATURE, "signature", shown_as::nested},
    {UBUS_ATTR_DATA, "data", shown_as::nested},       {UBUS_ATTR_ACTIVE, "active", shown_as::flag},
    {UBUS_ATTR_NO_REPLY, "no_reply", shown_as::flag}, {UBUS_ATTR_USER, "user", shown_as::text},
    {UBUS_ATTR_GROUP, "group", shown_as::text},
};

void add_attribute(blob_buf *out, const char *name, shown_as form, blob_attr *attr) {
    if (form == shown_as::text)
        blobmsg_add_string(out, name, blob_get_string(attr));
    else if (form == shown_as::number)
        blobmsg_add_u32(out, name, blob_get_u32(attr));
    else if (form == shown_as::flag)
        blobmsg_add_u8(out, name, blob_get_u8(attr));
    else
        blobmsg_add_field(out, BLOBMSG_TYPE_TABLE, name, blob_data(attr),
                          static_cast<unsigned>(blob_len(attr)));
}

const options *monitor_options;

void print_message(ubus_context *, uint32_t, blob_attr *message_attr) {
    blob_attr *tb[UBUS_MONITOR_MAX];
    if (blob_parse(message_attr, tb, nullptr, UBUS_MONITOR_MAX) != UBUS_MONITOR_MAX) {
        std::printf("Invalid monitor msg\n");
        return;
    }
    uint32_t type = blob_get_u32(tb[UBUS_MONITOR_TYPE]);
    bool sent = blob_get_u8(tb[UBUS_MONITOR_SEND]) != 0;
    const options &opts = *monitor_options;
    if ((opts.types && !(type < 32 && (opts.types >> type & 1))) || opts.direction == (sent ? 'r' : 't'))
        return;
    message out;
    blob_attr *content[UBUS_ATTR_MAX];
    blob_parse(tb[UBUS_MONITOR_DATA], content, nullptr, UBUS_ATTR_MAX);
    for (const auto &one : attributes) {
        if (content[one.id])
            add_attribute(&out.buf, one.name, one.form, content[one.id]);
    }
    json_text text(blobmsg_format_json(out.buf.head, true));
    std::printf("%s %08x #%08x %14s: %s\n", sent ? "->" : "<-", blob_get_u32(tb[UBUS_MONITOR_CLIENT]),
                blob_get_u32(tb[UBUS_MONITOR_PEER]),
                type < ARRAY_SIZE(message_types) ? message_types[type] : "unknown", text ? text.get() : "{}");
    std::fflush(stdout);
}

int run_monitor(ubus_context *bus, options &opts, int, char **) {
    monitor_options = &opts;
    bus->monitor_cb = print_message;
    int status = ubus_monitor_start(bus);
    if (status != UBUS_STATUS_OK)
        return status;
    status = run_until_end(bus, 0);
    if (status == UBUS_STATUS_OK)
        ubus_monitor_stop(bus);
    return status;
}

// The event handler comes first: the waiter is found from it.
struct waiter {
    ubus_event_handler event = {};
    uloop_timeout timer = {};
    char **paths = nullptr;
    int count = 0;
    int status = UBUS_STATUS_OK;
};

bool all_there(ubus_context *bus, waiter &wait) {
    auto *end = wait.paths + wait.count;
    return std::all_of(wait.paths, end, [&](const char *path) {
        std::string_view text = path;
        // Names are literal here: none ends in a '*', and none is empty.
        if (text.empty() || text.ends_with('*'))
            return false;
        uint32_t id;
        int status = ubus_lookup_id(bus, path, &id);
        if (status != UBUS_STATUS_OK && status != UBUS_STATUS_NOT_FOUND)
            wait.status = status;
        return status == UBUS_STATUS_OK && id != 0; // 0: we may not see it
    });
}

void object_came(ubus_context *bus, ubus_event_handler *event, const char *, blob_attr *) {
    waiter &wait = *container_of(event, waiter, event);
    if (all_there(bus, wait) || wait.status != UBUS_STATUS_OK)
        uloop_end();
}

void wait_over(uloop_timeout *timer) {
    container_of(timer, waiter, timer)->status = UBUS_STATUS_TIMEOUT;
    uloop_end();
}

void wait_for_objects(ubus_context *bus, const options &opts, waiter &wait) {
    // Registered before the first look, so that no object comes unseen between the two.
    wait.event.cb = object_came;
    wait.status = ubus_register_event_handler(bus, &wait.event, "ubus.object.add");
    if (wait.status != UBUS_STATUS_OK || all_there(bus, wait) || wait.status != UBUS_STATUS_OK)
        return;
    // Only now: its signal handlers would keep an operator's Ctrl-C from ending a blocking call.
    uloop_init();
    wait.timer.cb = wait_over;
    if (opts.timeout_ms > 0)
        uloop_timeout_set(&wait.timer, opts.timeout_ms);
    ubus_add_uloop(bus);
    if (uloop_run() != 0)
        wait.status = UBUS_STATUS_UNKNOWN_ERROR;
    if (bus->sock.eof)
        wait.status = UBUS_STATUS_CONNECTION_FAILED;
    uloop_timeout_cancel(&wait.timer);
    uloop_done();
}

int run_wait_for(ubus_context *bus, options &opts, int argc, char **argv) {
    if (argc < 1)
        return usage_error;
    waiter wait;
    wait.paths = argv;
    wait.count = argc;
    wait_for_objects(bus, opts, wait);
    if (!bus->sock.eof)
        ubus_unregister_event_handler(bus, &wait.event);
    return wait.status;
}

struct command {
    const char *name;
    int (*run)(ubus_context *bus, options &opts, int argc, char **argv);
};

constexpr command commands[] = {
    {"list", run_list}, {"call", run_call},           {"wait_for", run_wait_for}, {"listen", run_listen},
    {"send", run_send}, {"subscribe", run_subscribe}, {"monitor", run_monitor},
};

int usage(const char *program, int status) {
    std::fprintf(stderr,
                 "Usage: %s [<options>] <command> [arguments...]\n"
                 "Options:\n"
                 " -s <socket>:\t\tSocket of the bus\n"
                 " -t <seconds>:\t\tTime-out of a call or wait (default 30, 0: none)\n"
                 " -S:\t\t\tCompact output and no messages, for scripts\n"
                 " -v:\t\t\tWith list: methods and their arguments, too\n"
                 " -m <type>:\t\tWith monitor: only messages of this type (may be repeated)\n"
                 " -M <r|t>:\t\tWith monitor: only what the bus receives or transmits\n"
                 "Commands:\n"
                 " list [<path>]\t\t\tObjects on the bus\n"
                 " call <path> <method> [<json>]\tCall a method and print its reply\n"
                 " wait_for <path>...\t\tReturn when all these objects are there\n"
                 " listen [<event>...]\t\tPrint events; a '*' at the end stands for any rest\n"
                 " send <event> [<json>]\t\tSend an event\n"
                 " subscribe <path>...\t\tPrint what these objects tell their subscribers\n"
                 " monitor\t\t\tPrint all that goes over the bus\n",
                 program);
    return status;
}

bool add_message_type(options &opts, const char *name) {
    for (unsigned i = 0; i < ARRAY_SIZE(message_types); i++) {
        if (std::strcmp(message_types[i], name) == 0) {
            opts.types |= 1u << i;
            return true;
        }
    }
    return false;
}

bool parse_option(int option, options &opts) {
    switch (option) {
    case 's':
        opts.socket = optarg;
        return true;
    case 't':
        opts.timeout_ms = std::clamp(std::atoi(optarg), 0, INT32_MAX / 1000) * 1000;
        opts.timed = true;
        return true;
    case 'S':
        opts.simple = true;
        return true;
    case 'v':
        opts.verbose = true;
        return true;
    case 'm':
        return add_message_type(opts, optarg);
    case 'M':
        opts.direction = optarg[0];
        return std::strcmp(optarg, "r") == 0 || std::strcmp(optarg, "t") == 0;
    default:
        return false;
    }
}

bool parse_options(int argc, char **argv, options &opts) {
    int option;
    while ((option = getopt(argc, argv, "m:M:vs:t:S")) != -1) {
        if (!parse_option(option, opts))
            return false;
    }
    return optind < argc;
}

int run_command(const char *name, options &opts, int argc, char **argv) {
    std::unique_ptr<ubus_context, free_bus> bus(ubus_connect(opts.socket));
    if (!bus) {
        if (!opts.simple)
            std::fprintf(stderr, "Failed to connect to ubus\n");
        return told_error;
    }
    for (const command &one : commands) {
        if (std::strcmp(one.name, name) == 0)
            return one.run(bus.get(), opts, argc, argv);
    }
    return usage_error;
}

} // namespace

int main(int argc, char **argv) {
    options opts;
    if (!parse_options(argc, argv, opts))
        return usage(argv[0], 1);
    int status = run_command(argv[optind], opts, argc - optind - 1, argv + optind + 1);
    if (status == usage_error)
        return usage(argv[0], status);
    if (status > 0 && !opts.simple)
        std::fprintf(stderr, "Command failed: %s\n", ubus_strerror(status));
    return status;
}
