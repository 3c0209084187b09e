// What fuzz targets share: a router's root of their own that goes with the process.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include "fuzz_memory.h"

class FuzzRoot {
  public:
    FuzzRoot() {
        // In memory where that is to be had.
        char memory[] = "/dev/shm/tlf-XXXXXX", disk[] = "/tmp/tlf-XXXXXX";
        const char *name = mkdtemp(memory) != nullptr ? memory : mkdtemp(disk);
        require(name != nullptr);
        root_ = name;
        setenv("TELEMETRY_SYSROOT", name, 1);
        for (const char *directory : {"/etc/config", "/etc/profile.d", "/tmp/telemetry", "/tmp/sync-server",
                                      "/tmp/client_mgmt", "/var/run", "/save"})
            std::filesystem::create_directories(root_ + directory);
    }
    ~FuzzRoot() {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    FuzzRoot(const FuzzRoot &) = delete;
    FuzzRoot &operator=(const FuzzRoot &) = delete;
    // The real path of a router path.
    std::string path(const std::string &router_path) const {
        return root_ + router_path;
    }
    void write(const std::string &router_path, std::string_view content) const {
        const FuzzPlenty plenty;
        const int fd = open(path(router_path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        require(::write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
        close(fd);
    }

  private:
    std::string root_;
};

// Made by the first call.
inline const FuzzRoot &fuzz_root() {
    static const FuzzRoot root;
    return root;
}
