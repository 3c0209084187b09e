#include "telemetry_uci_stamp.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <iterator>
#include <string>

#include <sys/stat.h>

#include "telemetry_paths.h"
#include "telemetry_platform_libs.h"

static constexpr int64_t kSecondNs = 1000000000;

static int64_t to_ns(const timespec &time) {
    return int64_t{time.tv_sec} * kSecondNs + time.tv_nsec;
}

TelemetryUciStamp::TelemetryUciStamp(const char *package) {
    const std::string name = std::string("/") + package;
    const std::string paths[] = {
        telemetry_path(kSystemConfigDir) + name,
        telemetry_path(kSystemConfigSaveDir) + name,
#ifdef UCI_CONF2DIR
        UCI_CONF2DIR + name,
#endif
    };
    timespec now = {};
    // A file that is being written has the same time for some milliseconds.
    settled_ = clock_gettime(CLOCK_REALTIME_COARSE, &now) == 0;
    for (size_t i = 0; i < std::size(paths); ++i) {
        struct stat info;
        if (stat(paths[i].c_str(), &info) == 0) {
            files_[i] = {info.st_dev, info.st_ino, info.st_size, to_ns(info.st_mtim), to_ns(info.st_ctim)};
            settled_ = settled_ && to_ns(now) - files_[i].changed_ns > kSecondNs;
        } else {
            settled_ = settled_ && errno == ENOENT;
        }
    }
}

bool TelemetryUciStamp::holds(const TelemetryUciStamp &later) const {
    return settled_ && std::equal(std::begin(files_), std::end(files_), std::begin(later.files_));
}
