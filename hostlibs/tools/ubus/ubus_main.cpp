// ubus: list the objects of the bus, call a method, wait for objects. The exit status is the bus's status
// code.
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
};

// Not a status of the bus: the arguments are wrong.
constexpr int usage_error = -1;

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
    switch (type) {
    case BLOBMSG_TYPE_INT8:
        return "Boolean";
    case BLOBMSG_TYPE_INT16:
    case BLOBMSG_TYPE_INT32:
    case BLOBMSG_TYPE_INT64:
        return "Integer";
    case BLOBMSG_TYPE_STRING:
        return "String";
    case BLOBMSG_TYPE_ARRAY:
        return "Array";
    case BLOBMSG_TYPE_TABLE:
        return "Table";
    default:
        return "(unknown)";
    }
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
    if (!static_cast<const options *>(priv)->verbose) {
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

int run_call(ubus_context *bus, options &opts, int argc, char **argv) {
    if (argc < 2 || argc > 3)
        return usage_error;
    message msg;
    if (argc == 3 && !blobmsg_add_json_from_string(&msg.buf, argv[2]))
        return UBUS_STATUS_PARSE_ERROR;
    uint32_t id;
    int status = ubus_lookup_id(bus, argv[0], &id);
    if (status != UBUS_STATUS_OK)
        return status;
    return ubus_invoke(bus, id, argv[1], msg.buf.head, print_reply, &opts, opts.timeout_ms);
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
        uint32_t id;
        int status = ubus_lookup_id(bus, path, &id);
        if (status != UBUS_STATUS_OK && status != UBUS_STATUS_NOT_FOUND)
            wait.status = status;
        return status == UBUS_STATUS_OK;
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
    {"list", run_list},
    {"call", run_call},
    {"wait_for", run_wait_for},
};

int usage(const char *program) {
    std::fprintf(stderr,
                 "Usage: %s [<options>] <command> [arguments...]\n"
                 "Options:\n"
                 " -s <socket>:\t\tSocket of the bus\n"
                 " -t <seconds>:\t\tTime-out of a call or wait (default 30, 0: none)\n"
                 " -S:\t\t\tCompact output and no messages, for scripts\n"
                 " -v:\t\t\tWith list: methods and their arguments, too\n"
                 "Commands:\n"
                 " list [<path>]\t\t\tObjects on the bus\n"
                 " call <path> <method> [<json>]\tCall a method and print its reply\n"
                 " wait_for <path>...\t\tReturn when all these objects are there\n",
                 program);
    return 1;
}

bool parse_options(int argc, char **argv, options &opts) {
    int option;
    while ((option = getopt(argc, argv, "s:t:Sv")) != -1) {
        char *end;
        switch (option) {
        case 's':
            opts.socket = optarg;
            break;
        case 't': {
            long seconds = std::strtol(optarg, &end, 10);
            if (end == optarg || *end || seconds < 0 || seconds > INT32_MAX / 1000)
                return false;
            opts.timeout_ms = static_cast<int>(seconds) * 1000;
            break;
        }
        case 'S':
            opts.simple = true;
            break;
        case 'v':
            opts.verbose = true;
            break;
        default:
            return false;
        }
    }
    return optind < argc;
}

int run_command(const command &cmd, options &opts, int argc, char **argv) {
    std::unique_ptr<ubus_context, free_bus> bus(ubus_connect(opts.socket));
    if (!bus)
        return UBUS_STATUS_CONNECTION_FAILED;
    return cmd.run(bus.get(), opts, argc, argv);
}

} // namespace

int main(int argc, char **argv) {
    options opts;
    if (!parse_options(argc, argv, opts))
        return usage(argv[0]);
    const char *name = argv[optind];
    const auto *cmd = std::find_if(std::begin(commands), std::end(commands),
                                   [name](const command &c) { return std::strcmp(c.name, name) == 0; });
    if (cmd == std::end(commands))
        return usage(argv[0]);

    int status = run_command(*cmd, opts, argc - optind - 1, argv + optind + 1);
    if (status == usage_error)
        return usage(argv[0]);
    if (status != UBUS_STATUS_OK && !opts.simple)
        std::fprintf(stderr, "Command failed: %s\n", ubus_strerror(status));
    return status;
}
