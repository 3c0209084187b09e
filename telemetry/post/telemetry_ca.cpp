#include "telemetry_ca.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_uci.h"
#include "telemetry_utils.h"

static constexpr int kPathSize = 2048;
static char configured_path[kPathSize]; // empty: none

static const char *chosen_path() {
    if (configured_path[0] != '\0')
        return configured_path;
    const bool bundle = !telemetry_file_exists(kCaCertificatePath) && telemetry_file_exists(kCaBundlePath);
    return bundle ? kCaBundlePath : kCaCertificatePath;
}

// What is wrong with a file of certificates; null when it can be read. A pipe in its place is not waited for.
static const char *defect_of(const char *path) {
    const FdHandle file(open(telemetry_path(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat info = {};
    if (!file.valid() || fstat(file.get(), &info) != 0)
        return strerror(errno);
    if (!S_ISREG(info.st_mode))
        return "no regular file";
    return info.st_size == 0 ? "empty" : nullptr;
}

void telemetry_load_ca_file() {
    char path[kPathSize] = {};
    if (telemetry_get_uci_value("telemetry", "cloud", "ca_file", path, sizeof(path), TELEMETRY_UCI_SYSTEM) ==
            0 &&
        path[0] != '/') {
        LOG_ERROR("telemetry.cloud.ca_file is no absolute path: %.256s", path);
        path[0] = '\0';
    }
    copy_text(configured_path, path);
    const char *chosen = chosen_path();
    const char *defect = defect_of(chosen);
    if (defect == nullptr)
        return;
    if (chosen == kCaCertificatePath && !telemetry_file_exists(chosen))
        LOG_ERROR("no certificates to check the cloud's with: neither %s nor %s is there", kCaCertificatePath,
                  kCaBundlePath);
    else
        LOG_ERROR("the certificates to check the cloud's with cannot be read: %.256s: %s", chosen, defect);
}

bool telemetry_ca_file_is_configured() {
    return configured_path[0] != '\0';
}

std::string telemetry_ca_file() {
    const std::string path = telemetry_path(chosen_path());
    struct stat info = {};
    // Opening a pipe would wait for its writer, and the loop with it: such a transfer fails like an empty
    // file's.
    const bool waits = stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode);
    return waits ? "/dev/null" : path;
}
