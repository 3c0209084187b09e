#include "lab_node.h"
#include "lab_config.h"
#include "lab_root.h"

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace lab {

namespace {

constexpr char kStateStart[] = "-----------telemetry ctx start-----------";
constexpr char kStateEnd[] = "-----------telemetry ctx end-----------";

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
    std::string preloads = bin_dir_ + "/libfakewifi.so";
    if (!file_exists(preloads))
        preloads.clear();
    if (file_exists(clock_file())) {
        preloads += (preloads.empty() ? "" : ":") + bin_dir_ + "/libfakeclock.so";
        env.emplace_back("LAB_CLOCK_FILE", clock_file());
    }
    if (!preloads.empty()) {
        env.emplace_back("LD_PRELOAD", preloads);
        // A sanitizer's runtime cannot be the first library then, and need not be: these wrap single calls.
        std::string options = variable("ASAN_OPTIONS");
        env.emplace_back("ASAN_OPTIONS", options + (options.empty() ? "" : ":") + "verify_asan_link_order=0");
    }
    daemon.start({{bin_dir_ + "/telemetry"}, env, root_ + "/lab/daemon.log"});
}

std::string LabNode::clock_file() const {
    return root_ + "/lab/clock";
}

void LabNode::advance_clock(int64_t ms) {
    clock_ahead_ms_ += ms;
    if (!file_exists(clock_file()))
        write_file(clock_file(), std::string(sizeof(clock_ahead_ms_), '\0'));
    // In place: the daemon has the file mapped.
    const int fd = open(clock_file().c_str(), O_WRONLY | O_CLOEXEC);
    const bool written = pwrite(fd, &clock_ahead_ms_, sizeof(clock_ahead_ms_), 0) == sizeof(clock_ahead_ms_);
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
                              const std::string &arguments, int timeout_s) const {
    CommandResult result = run_command({program(bin_dir_, "ubus"), "-s", bus_socket(), "-t",
                                        std::to_string(timeout_s), "-S", "call", object, method, arguments},
                                       {}, (timeout_s + 5) * 1000);
    BusReply reply;
    reply.status = result.status;
    reply.text = result.out;
    while (reply.text.ends_with('\n'))
        reply.text.pop_back();
    reply.json.reset(cJSON_Parse(reply.text.c_str()));
    return reply;
}

BusReply LabNode::call(const std::string &method, const std::string &arguments, int timeout_s) const {
    return call_object("telemetry", method, arguments, timeout_s);
}

bool LabNode::wait_for_object(const std::string &object, int timeout_ms) const {
    return wait_until(
        [&] {
            return run_command({program(bin_dir_, "ubus"), "-s", bus_socket(), "-S", "list", object}, {},
                               5000)
                       .status == 0;
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
    std::string text = read("/dev/console");
    return from < text.size() ? text.substr(from) : "";
}

bool LabNode::wait_for_console(const std::string &text, int timeout_ms, size_t from) const {
    return wait_until([&] { return console(from).find(text) != std::string::npos; }, timeout_ms);
}

std::map<std::string, std::string> LabNode::state() const {
    size_t from = read("/dev/console").size();
    std::map<std::string, std::string> values;
    if (call("print").status != 0 || !wait_for_console(kStateEnd, 2000, from))
        return values;
    std::istringstream lines(console(from));
    std::string line;
    bool inside = false;
    while (std::getline(lines, line)) {
        if (line.find(kStateStart) != line.npos)
            inside = true;
        if (line.find(kStateEnd) != line.npos)
            break;
        size_t prefix = line.find("): ");
        size_t colon = prefix == line.npos ? line.npos : line.find(": ", prefix + 3);
        if (inside && colon != line.npos)
            values[line.substr(prefix + 3, colon - prefix - 3)] = line.substr(colon + 2);
    }
    return values;
}

bool LabNode::wait_for_state(const std::string &line, const std::string &value, int timeout_ms) const {
    return wait_until([&] { return state()[line] == value; }, timeout_ms);
}

} // namespace lab
