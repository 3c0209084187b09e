#include "lab_node.h"
#include "lab_bus.h"
#include "lab_config.h"
#include "lab_root.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace lab {

namespace {

// One a call: nothing is left over when a bus dies.
using BusPtr = std::unique_ptr<ubus_context, decltype(&ubus_free)>;

constexpr char kStateStart[] = "-----------telemetry ctx start-----------";
constexpr char kStateEnd[] = "-----------telemetry post end-----------";

bool socket_answers(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        throw std::runtime_error("socket path too long: " + path);
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool answers = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    close(fd);
    return answers;
}

// Our own build's program, else the system's.
std::string program(const std::string &bin_dir, const std::string &name) {
    std::string built = bin_dir + "/" + name;
    return file_exists(built) ? built : name;
}

void take_reply(ubus_request *request, int, blob_attr *message) {
    const std::unique_ptr<char, decltype(&free)> text(
        message != nullptr ? blobmsg_format_json(message, true) : nullptr, free);
    static_cast<BusReply *>(request->priv)->text = text ? text.get() : "";
}

std::string variable(const char *name) {
    const char *value = getenv(name);
    return value ? value : "";
}

} // namespace

LabNode::LabNode(const Scenario &scenario, size_t index, const std::string &directory,
                 const std::string &bin_dir)
    : scenario_(scenario), index_(index), directory_(directory),
      root_(directory + "/n" + std::to_string(index)), bin_dir_(bin_dir) {}

std::string LabNode::bus_socket() const {
    return root_ + "/var/run/ubus.sock";
}

std::vector<std::pair<std::string, std::string>> LabNode::environment() const {
    std::vector<std::pair<std::string, std::string>> env = {
        {"TELEMETRY_SYSROOT", root_},
        {"PATH", std::string(LAB_SOURCE_DIR) + "/board:" + variable("PATH")},
        {"LAB_DIR", directory_},
        {"LAB_SCENARIO", directory_ + "/scenario.json"},
        {"LAB_NODE", scenario().device_id},
        // The cloud is on this machine, whatever proxy this machine uses for the others.
        {"no_proxy", "127.0.0.1,localhost"},
        {"https_proxy", ""},
        {"HTTPS_PROXY", ""},
        {"all_proxy", ""},
        {"ALL_PROXY", ""},
    };
    return env;
}

void LabNode::start_bus() {
    unlink(bus_socket().c_str());
    bus.start({{program(bin_dir_, "ubusd"), "-s", bus_socket()}, {}, root_ + "/lab/ubusd.log"});
    if (!wait_until([&] { return !bus.running() || socket_answers(bus_socket()); }, 10000) || !bus.running())
        throw std::runtime_error("the bus of node " + scenario().device_id +
                                 " does not start: " + read_file(root_ + "/lab/ubusd.log"));
}

void LabNode::start_services() {
    std::string binary = bin_dir_ + "/lab-services";
    if (!file_exists(binary))
        return;
    services.start({{binary}, environment(), root_ + "/lab/services.log"});
}

void LabNode::start_daemon() {
    auto env = environment();
    std::string preloads;
    // By name: the list of preloaded libraries would end a path at a blank.
    const auto preload = [&](const char *library) {
        if (file_exists(bin_dir_ + "/" + library))
            preloads += (preloads.empty() ? "" : ":") + std::string(library);
    };
    if (file_exists(fail_file())) {
        preload("libfakefail.so"); // first: it is in front of a sanitizer's allocator
        env.emplace_back("LAB_FAIL_FILE", fail_file());
    }
    preload("libfakewifi.so");
    preload("libfakelog.so");
    if (file_exists(clock_file())) {
        preload("libfakeclock.so");
        env.emplace_back("LAB_CLOCK_FILE", clock_file());
    }
    if (!preloads.empty()) {
        env.emplace_back("LD_PRELOAD", preloads);
        env.emplace_back("LD_LIBRARY_PATH", bin_dir_ + ":" + variable("LD_LIBRARY_PATH"));
        // A sanitizer's runtime cannot be the first library then, and need not be: these wrap single calls.
        std::string options = variable("ASAN_OPTIONS");
        env.emplace_back("ASAN_OPTIONS", options + (options.empty() ? "" : ":") + "verify_asan_link_order=0");
    }
    daemon.start({{bin_dir_ + "/telemetry"}, env, root_ + "/lab/daemon.log"});
    write_file(root_ + "/lab/daemon.pid", std::to_string(daemon.pid()) + "\n");
}

std::string LabNode::fail_file() const {
    return root_ + "/lab/fail";
}

std::string LabNode::clock_file() const {
    return root_ + "/lab/clock";
}

void LabNode::advance_clock(int64_t ms) {
    clock_ms_[0] += ms;
    write_clock();
}

void LabNode::shift_wall_clock(int64_t ms) {
    clock_ms_[1] = ms;
    write_clock();
}

void LabNode::write_clock() const {
    if (!file_exists(clock_file()))
        write_file(clock_file(), std::string(sizeof(clock_ms_), '\0'));
    // In place: the daemon has the file mapped.
    const int fd = open(clock_file().c_str(), O_WRONLY | O_CLOEXEC);
    const bool written = pwrite(fd, clock_ms_, sizeof(clock_ms_), 0) == sizeof(clock_ms_);
    close(fd);
    if (!written)
        throw std::runtime_error("cannot write " + clock_file());
}

void LabNode::stop() {
    daemon.stop();
    services.stop();
    bus.stop();
}

BusReply LabNode::call_object(const std::string &object, const std::string &method,
                              const std::string &arguments, double timeout_s) const {
    BusReply reply;
    reply.status = UBUS_STATUS_CONNECTION_FAILED;
    const BusPtr connection(ubus_connect(bus_socket().c_str()), ubus_free);
    if (!connection)
        return reply;
    uint32_t id = 0;
    reply.status = ubus_lookup_id(connection.get(), object.c_str(), &id);
    if (reply.status != UBUS_STATUS_OK)
        return reply;
    blob_buf message = {};
    blob_buf_init(&message, 0);
    reply.status = UBUS_STATUS_INVALID_ARGUMENT;
    if (blobmsg_add_json_from_string(&message, arguments.c_str()))
        reply.status = ubus_invoke(connection.get(), id, method.c_str(), message.head, take_reply, &reply,
                                   static_cast<int>(timeout_s * 1000));
    blob_buf_free(&message);
    reply.json.reset(cJSON_Parse(reply.text.c_str()));
    return reply;
}

BusReply LabNode::call(const std::string &method, const std::string &arguments, double timeout_s) const {
    return call_object("telemetry", method, arguments, timeout_s);
}

bool LabNode::wait_for_object(const std::string &object, int timeout_ms) const {
    return wait_until(
        [&] {
            const BusPtr connection(ubus_connect(bus_socket().c_str()), ubus_free);
            uint32_t id = 0;
            return connection && ubus_lookup_id(connection.get(), object.c_str(), &id) == UBUS_STATUS_OK;
        },
        timeout_ms);
}

std::string LabNode::read(const std::string &path) const {
    return read_file(root_ + path);
}

void LabNode::write(const std::string &path, const std::string &text) const {
    root_write(root_, path, text);
}

void LabNode::remove(const std::string &path) const {
    unlink((root_ + path).c_str());
}

bool LabNode::exists(const std::string &path) const {
    return file_exists(root_ + path);
}

std::string LabNode::config(const std::string &package, const std::string &section,
                            const std::string &option) const {
    return config_parse(read("/etc/config/" + package)).get(section, option);
}

void LabNode::set_config(const std::string &package, const std::string &section, const std::string &option,
                         const std::string &value) const {
    ConfigPackage content = config_parse(read("/etc/config/" + package));
    content.set(section, option, value);
    write("/etc/config/" + package, config_print(content));
}

void LabNode::set_faults(const std::string &json) const {
    write("/lab/faults.json", json);
}

std::string LabNode::console(size_t from) const {
    std::ifstream file(root_ + "/dev/console", std::ios::binary);
    file.seekg(static_cast<std::streamoff>(from));
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

size_t LabNode::console_length() const {
    std::error_code error;
    const auto size = std::filesystem::file_size(root_ + "/dev/console", error);
    return error ? 0 : static_cast<size_t>(size);
}

bool LabNode::wait_for_console(const std::string &text, int timeout_ms, size_t from) const {
    return wait_until([&] { return console(from).find(text) != std::string::npos; }, timeout_ms);
}

size_t LabNode::count_in_console(const std::string &text, size_t from) const {
    const std::string all = console(from);
    size_t count = 0;
    for (size_t at = all.find(text); at != all.npos; at = all.find(text, at + 1))
        count++;
    return count;
}

std::string LabNode::log() const {
    std::istringstream lines(console());
    std::string line, text;
    bool in_dump = false;
    while (std::getline(lines, line)) {
        in_dump = in_dump || line.find(kStateStart) != line.npos;
        if (!in_dump)
            text += line + "\n";
        in_dump = in_dump && line.find(kStateEnd) == line.npos;
    }
    return text;
}

std::map<std::string, std::string> LabNode::state() const {
    const size_t from = console_length();
    std::map<std::string, std::string> values;
    if (call("print").status != 0 || !wait_for_console(kStateEnd, 2000, from))
        return values;
    std::istringstream lines(console(from));
    std::string line;
    bool inside = false, in_list = false;
    while (std::getline(lines, line) && line.find(kStateEnd) == line.npos) {
        inside = inside || line.find(kStateStart) != line.npos;
        const size_t prefix = line.rfind("[telemetry][", 0) == 0 ? line.find("): ") : line.npos;
        // The list's lines but the first have no prefix.
        if (prefix == line.npos && in_list)
            values["list"] += line + "\n";
        if (!inside || prefix == line.npos)
            continue;
        const std::string text = line.substr(prefix + 3);
        in_list = text.rfind("[", 0) == 0 && text.rfind("[post request", 0) != 0;
        const size_t colon = text.find(": ");
        if (in_list)
            values["list"] = text + "\n";
        else if (text.rfind("used: ", 0) == 0 && text != "used: 0")
            values["uploading"] = "1";
        else if (colon != text.npos)
            values.emplace(text.substr(0, colon), text.substr(colon + 2));
    }
    return values;
}

long LabNode::number(const std::string &line) const {
    return atol(state()[line].c_str());
}

bool LabNode::wait_for_state(const std::string &line, const std::string &value, int timeout_ms) const {
    return wait_until([&] { return state()[line] == value; }, timeout_ms);
}

} // namespace lab
