// Every method of the bus object with arbitrary message bytes: the first byte picks the method, the rest is
// the content of the call's data. The handlers answer over a real connection to a bus that knows no services.
#include "telemetry_ubus.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"

// --- The platform: no waiting, no driver, and commands that only show what would reach a shell -------------

extern "C" unsigned sleep(unsigned) {
    return 0;
}

extern "C" int ioctl(int, unsigned long, ...) noexcept;
extern "C" int ioctl(int, unsigned long, ...) noexcept {
    return -1;
}

extern "C" FILE *popen(const char *command, const char *) {
    for (const std::string start : {"ping -c 3 ", "ping6 -c 3 "}) {
        if (strncmp(command, start.c_str(), start.size()) != 0)
            continue;
        const char *host = command + start.size();
        if (strspn(host, "0123456789abcdefABCDEF:.") != strcspn(host, " |"))
            abort(); // something other than an address would have been run
    }
    static char output[] = "1.5\n";
    return fmemopen(output, sizeof(output) - 1, "r");
}

extern "C" int pclose(FILE *stream) {
    return fclose(stream);
}

// --- The bus: greets, registers, and finds nothing ---------------------------------------------------------

static void put_u32(std::string *bytes, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes->push_back(static_cast<char>(value >> shift));
}

static uint32_t get_u32(const std::string &bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i)
        value = value << 8 | static_cast<uint8_t>(bytes[at + i]);
    return value;
}

// A frame of one type whose attributes are 32-bit integers; `address` is the sequence number and the peer.
static std::string frame(uint8_t type, const std::string &address,
                         const std::map<uint32_t, uint32_t> &attributes) {
    std::string bytes{'\0', static_cast<char>(type)};
    bytes += address;
    put_u32(&bytes, static_cast<uint32_t>(4 + 8 * attributes.size()));
    for (const auto &[id, value] : attributes) {
        put_u32(&bytes, id << 24 | 8);
        put_u32(&bytes, value);
    }
    return bytes;
}

static std::string answer_frame(const std::string &request) {
    const auto type = static_cast<uint8_t>(request[1]);
    const std::string address = request.substr(2, 6);
    if (type == UBUS_MSG_ADD_OBJECT)
        return frame(UBUS_MSG_DATA, address, {{UBUS_ATTR_OBJID, 5000}, {UBUS_ATTR_OBJTYPE, 5001}}) +
               frame(UBUS_MSG_STATUS, address, {{UBUS_ATTR_STATUS, UBUS_STATUS_OK}});
    if (type == UBUS_MSG_LOOKUP || type == UBUS_MSG_INVOKE)
        return frame(UBUS_MSG_STATUS, address, {{UBUS_ATTR_STATUS, UBUS_STATUS_NOT_FOUND}});
    return {}; // the handlers' replies
}

// False when the connection is over.
static bool serve_connection(int fd, std::string *received) {
    char block[65536];
    const ssize_t n = recv(fd, block, sizeof(block), 0);
    if (n <= 0)
        return false;
    received->append(block, static_cast<size_t>(n));
    while (received->size() >= 12) {
        const size_t length = 8 + (get_u32(*received, 8) & 0xffffff);
        if (received->size() < length)
            break;
        const std::string answer = answer_frame(*received);
        if (send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) < 0)
            return false;
        received->erase(0, length);
    }
    return true;
}

static void serve_bus(int listener) {
    std::map<int, std::string> connections;
    for (;;) {
        std::vector<pollfd> ready = {{listener, POLLIN, 0}};
        for (const auto &connection : connections)
            ready.push_back({connection.first, POLLIN, 0});
        poll(ready.data(), ready.size(), -1);
        for (size_t i = 1; i < ready.size(); ++i) {
            if (ready[i].revents == 0 || serve_connection(ready[i].fd, &connections[ready[i].fd]))
                continue;
            close(ready[i].fd);
            connections.erase(ready[i].fd);
        }
        if (ready[0].revents == 0)
            continue;
        const int fd = accept(listener, nullptr, nullptr);
        const std::string hello = frame(UBUS_MSG_HELLO, std::string("\0\0\0\0\x10\0", 6), {});
        send(fd, hello.data(), hello.size(), MSG_NOSIGNAL);
        connections[fd];
    }
}

static std::string fuzz_root;
static TelemetryCtx fuzz_ctx;
static ubus_context *fuzz_bus;

static int start_daemon_on_bus() {
    char root[] = "/tmp/tlf-XXXXXX";
    if (mkdtemp(root) == nullptr)
        abort();
    fuzz_root = root;
    atexit([] { std::filesystem::remove_all(fuzz_root); });
    setenv("TELEMETRY_SYSROOT", root, 1);
    for (const char *directory : {"/var/run", "/tmp/telemetry", "/etc/config"})
        std::filesystem::create_directories(fuzz_root + directory);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    copy_text(address.sun_path, telemetry_path(kBusSocketPath).c_str());
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
        listen(listener, 16) != 0)
        abort();
    std::thread(serve_bus, listener).detach();
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    uloop_init();
    fuzz_bus = ubus_connect(telemetry_bus_default_socket());
    if (fuzz_bus == nullptr || telemetry_init_ubus(&fuzz_ctx) != 0)
        abort();
    copy_text(fuzz_ctx.dev_mac, "0A0B0C0D0E0F");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int started = start_daemon_on_bus();
    if (size == 0 || size > 65536 || started != 0)
        return 0;
    const ubus_object *object = telemetry_ubus_object();
    const ubus_method &method = object->methods[data[0] % object->n_methods];
    telemetry_debug_enable = 1;
    // The message ends with its allocation, so that a step beyond it is seen.
    const size_t length = sizeof(blob_attr) + size - 1;
    const std::unique_ptr<char[]> bytes(new char[length]);
    memcpy(bytes.get() + sizeof(blob_attr), data + 1, size - 1);
    auto *message = reinterpret_cast<blob_attr *>(bytes.get());
    message->id_len = htobe32(static_cast<uint32_t>(length));

    ubus_request_data request = {};
    request.object = object->id;
    request.peer = 4321;
    const int status =
        method.handler(fuzz_bus, const_cast<ubus_object *>(object), &request, method.name, message);
    if (status != UBUS_STATUS_OK && status != UBUS_STATUS_INVALID_ARGUMENT)
        abort();
    if (telemetry_debug_level > TELEMETRY_LOG_ERROR)
        abort();
    uloop_timeout_cancel(&fuzz_ctx.collect_timer);
    uloop_timeout_cancel(&fuzz_ctx.post_timer);
    return 0;
}
