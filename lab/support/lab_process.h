// Child processes of the lab. Each is the leader of a process group of its own (Ctrl-C on the terminal
// reaches only the runner, and ending a child ends what it started) and is killed by the kernel when the
// thread that started it dies.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace lab {

struct ProcessSpec {
    std::vector<std::string> argv;                             // argv[0] is a path, or a name found in PATH
    std::vector<std::pair<std::string, std::string>> env = {}; // put over this process's own environment
    std::string output = {}; // stdout and stderr are appended here; empty: inherited
};

// Exit of a child: the exit status, or -signal when a signal ended it.
inline constexpr int kStillRunning = -1000;

class Process {
  public:
    Process() = default;
    ~Process();
    Process(Process &&other) noexcept;
    Process &operator=(Process &&other) noexcept;
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    // Starts a program; throws std::runtime_error when it cannot be executed. A child still running is
    // stopped first.
    void start(const ProcessSpec &spec);
    bool running();
    pid_t pid() const {
        return pid_;
    }
    void signal(int number) const;
    // Waits for the end; its exit (see above), or kStillRunning after `timeout_ms`.
    int wait(int timeout_ms);
    // SIGTERM, after `timeout_ms` SIGKILL; its exit.
    int stop(int timeout_ms = 5000);
    // SIGKILL, as a crash would end it.
    void kill();

  private:
    void reap();
    pid_t pid_ = -1;
    int exit_ = kStillRunning;
};

// Result of a command that was run to its end.
struct CommandResult {
    int status = -1; // exit status, -signal, or kStillRunning when `timeout_ms` ran out and it was killed
    std::string out; // stdout and stderr
};
CommandResult run_command(const std::vector<std::string> &argv,
                          const std::vector<std::pair<std::string, std::string>> &env, int timeout_ms);

} // namespace lab
