#include "telemetry_paths.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

static std::string read_sysroot() {
    const char *value = getenv("TELEMETRY_SYSROOT");
    if (value == nullptr)
        return {};
    std::string root = value;
    constexpr char kAllowed[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-";
    if (root.find_first_not_of(kAllowed) != std::string::npos) {
        fprintf(stderr, "TELEMETRY_SYSROOT has characters outside [A-Za-z0-9/._-]\n");
        _exit(1);
    }
    while (!root.empty() && root.back() == '/')
        root.pop_back();
    return root;
}

const std::string &telemetry_sysroot() {
    static const std::string root = read_sysroot();
    return root;
}

std::string telemetry_path(std::string_view path) {
    std::string full = telemetry_sysroot();
    full.append(path);
    return full;
}

const char *telemetry_bus_default_socket() {
    if (telemetry_sysroot().empty())
        return nullptr;
    static const std::string socket = telemetry_path(kBusSocketPath);
    return socket.c_str();
}

const char *telemetry_bus_named_socket() {
    if (!telemetry_sysroot().empty())
        return telemetry_bus_default_socket();
    return access(kBusSocketPath, F_OK) == 0 ? kBusSocketPath : nullptr;
}
