#include "lab_files.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace lab {

namespace {

std::atomic<bool> interrupted = false;

// The janitor lives in a process of its own and outlives whatever happens to this one: the closing end of the
// pipe tells it that nobody needs the directory any more.
[[noreturn]] void janitor_run(int pipe_end, const std::string &path) {
    setpgid(0, 0);
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
    if (pipe_end != 3)
        dup2(pipe_end, 3);
    close_range(4, ~0U, 0);
    char byte;
    while (read(3, &byte, 1) < 0 && errno == EINTR) {
    }
    // Processes of the lab that are still dying may write once more.
    for (int attempt = 0; attempt < 20; attempt++) {
        std::error_code error;
        std::filesystem::remove_all(path, error);
        if (!std::filesystem::exists(path, error))
            break;
        usleep(50000);
    }
    _exit(0);
}

} // namespace

JsonTree parse_json(const std::string &text, const std::string &what) {
    const char *end = nullptr;
    JsonTree tree(cJSON_ParseWithLengthOpts(text.c_str(), text.size() + 1, &end, 0));
    if (!tree) {
        const auto at = text.begin() + std::clamp<long>(end ? end - text.c_str() : 0, 0, std::ssize(text));
        const auto line_begin = std::find(std::make_reverse_iterator(at), text.rend(), '\n').base();
        throw std::runtime_error(what + ": not JSON at line " +
                                 std::to_string(std::count(text.begin(), at, '\n') + 1) + ", column " +
                                 std::to_string(at - line_begin + 1));
    }
    return tree;
}

bool json_flag(const cJSON *object, const char *name, bool fallback) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, name);
    return cJSON_IsBool(item) ? cJSON_IsTrue(item) != 0 : fallback;
}

bool file_exists(const std::string &path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

std::string read_file(const std::string &path) {
    try {
        return receiver_json::read_file(path);
    } catch (const std::runtime_error &) {
        return "";
    }
}

void make_directories(const std::string &path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error)
        throw std::runtime_error("cannot make " + path + ": " + error.message());
}

bool wait_until(const std::function<bool()> &condition, int timeout_ms) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    // What is not there soon takes longer: asking costs the one who is asked.
    for (int pause_ms = 5;; pause_ms = std::min(2 * pause_ms, 80)) {
        if (interrupted.exchange(false))
            throw std::runtime_error("interrupted");
        if (condition())
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
    }
}

void interrupt_waits() {
    interrupted = true;
}

bool interrupt_is_pending() {
    return interrupted;
}

RunDirectory::RunDirectory() {
    char name[] = "/tmp/tl-XXXXXX";
    if (!mkdtemp(name))
        throw std::runtime_error(std::string("cannot make a directory below /tmp: ") + strerror(errno));
    path_ = name;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error(std::string("pipe: ") + strerror(errno));
    janitor_ = fork();
    if (janitor_ == 0) {
        close(ends[1]);
        janitor_run(ends[0], path_);
    }
    close(ends[0]);
    alive_pipe_ = ends[1];
    if (janitor_ < 0)
        throw std::runtime_error(std::string("fork: ") + strerror(errno));
}

RunDirectory::~RunDirectory() {
    close(alive_pipe_);
    while (waitpid(janitor_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

} // namespace lab
