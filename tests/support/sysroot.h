// A directory in the place of the router's root, and what tests put into it: files, configuration packages,
// commands.
//
// The daemon reads TELEMETRY_SYSROOT once, so a test process has one root. It is made by the first call of
// test_sysroot(), emptied between tests by SysrootTest, and removed when the process ends.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "telemetry_repeat.h"

class TestSysroot {
  public:
    TestSysroot() : owner_(getpid()) {
        // Short: the bus socket below it has at most 107 characters.
        char name[] = "/tmp/tlm-XXXXXX";
        if (mkdtemp(name) == nullptr) {
            perror("mkdtemp");
            abort();
        }
        root_ = name;
        setenv("TELEMETRY_SYSROOT", root_.c_str(), 1);
        const char *path = getenv("PATH");
        setenv("PATH", (root_ + "/bin:" + (path == nullptr ? "/usr/bin:/bin" : path)).c_str(), 1);
        clean();
    }
    ~TestSysroot() {
        if (getpid() != owner_)
            return; // a forked child
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    TestSysroot(const TestSysroot &) = delete;
    TestSysroot &operator=(const TestSysroot &) = delete;

    // Empties the root and lays out the directories that a router has after boot.
    void clean() const {
        for (const auto &entry : std::filesystem::directory_iterator(root_))
            std::filesystem::remove_all(entry.path());
        for (const char *directory :
             {"/bin", "/dev", "/etc/config", "/etc/profile.d", "/tmp/run", "/var/run"})
            std::filesystem::create_directories(root_ + directory);
    }

    const std::string &root() const {
        return root_;
    }
    // The real path of a router path.
    std::string path(std::string_view router_path) const {
        return root_ + std::string(router_path);
    }
    bool exists(std::string_view router_path) const {
        return std::filesystem::exists(path(router_path));
    }
    void remove(std::string_view router_path) const {
        std::filesystem::remove_all(path(router_path));
    }
    void write(std::string_view router_path, std::string_view content) const {
        const std::filesystem::path file = path(router_path);
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
    }
    // Content of a file, empty when there is none.
    std::string read(std::string_view router_path) const {
        std::ifstream file(path(router_path), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    // Package files, in the syntax of the configuration system.
    void write_config(std::string_view package, std::string_view content) const {
        write("/etc/config/" + std::string(package), content);
    }
    void write_profile(std::string_view content) const {
        write("/etc/profile.d/profile", content);
    }
    void write_backup(std::string_view content) const {
        write("/tmp/telemetry/telemetry", content);
    }
    // A shell script that stands first in PATH under this name.
    void add_command(std::string_view name, std::string_view body) const {
        const std::string router_path = "/bin/" + std::string(name);
        write(router_path, "#!/bin/sh\n" + std::string(body) + "\n");
        std::filesystem::permissions(path(router_path), std::filesystem::perms::owner_all);
    }

  private:
    std::string root_;
    pid_t owner_;
};

inline TestSysroot &test_sysroot() {
    static TestSysroot sysroot;
    return sysroot;
}

// A fixture with an empty root for each test.
class SysrootTest : public ::testing::Test {
  protected:
    SysrootTest() : root(test_sysroot()) {
        root.clean();
    }
    TestSysroot &root;
};

// Collects what the process writes to standard output (or another descriptor) while it lives.
class OutputCapture {
  public:
    explicit OutputCapture(FILE *stream = stdout) : stream_(stream), fd_(fileno(stream)), file_(tmpfile()) {
        fflush(stream_);
        saved_ = dup(fd_);
        dup2(fileno(file_), fd_);
        // Nothing was said before.
        telemetry_repeat_forget();
    }
    ~OutputCapture() {
        fflush(stream_);
        dup2(saved_, fd_);
        close(saved_);
        fclose(file_);
    }
    OutputCapture(const OutputCapture &) = delete;
    OutputCapture &operator=(const OutputCapture &) = delete;

    // All that was written so far.
    std::string text() const {
        fflush(stream_);
        std::string content;
        char block[4096];
        off_t at = 0;
        for (ssize_t n; (n = pread(fileno(file_), block, sizeof(block), at)) > 0; at += n)
            content.append(block, static_cast<size_t>(n));
        return content;
    }
    // The log lines without their prefix (time, file, function): the messages.
    std::vector<std::string> messages() const {
        std::vector<std::string> found;
        const std::string all = text();
        for (size_t from = 0; from < all.size();) {
            size_t end = all.find('\n', from);
            if (end == std::string::npos)
                end = all.size();
            const std::string line = all.substr(from, end - from);
            const size_t prefix = line.rfind("[telemetry][", 0) == 0 ? line.find("): ") : std::string::npos;
            found.push_back(prefix == std::string::npos ? line : line.substr(prefix + 3));
            from = end + 1;
        }
        return found;
    }
    bool has(std::string_view part) const {
        return text().find(part) != std::string::npos;
    }

  private:
    FILE *stream_;
    int fd_;
    FILE *file_;
    int saved_;
};

// What `action` writes to the log, as messages.
template <typename Action> std::vector<std::string> logged_messages(Action action) {
    const OutputCapture capture;
    action();
    return capture.messages();
}

// What `call` gives and writes to the log, in one to compare.
using LoggedResult = std::pair<int, std::vector<std::string>>;
template <typename Call> LoggedResult logged_result(Call call) {
    LoggedResult result;
    result.second = logged_messages([&] { result.first = call(); });
    return result;
}

template <typename Call> void expect_logged(int result, const std::vector<std::string> &log, Call call) {
    EXPECT_EQ(logged_result(call), LoggedResult(result, log));
}
