#include "lab_process.h"
#include "lab_files.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace lab {

namespace {

std::vector<std::string> merged_environment(const std::vector<std::pair<std::string, std::string>> &env) {
    std::vector<std::string> merged;
    for (char **entry = environ; *entry; entry++) {
        std::string text = *entry;
        std::string name = text.substr(0, text.find('='));
        bool replaced = false;
        for (const auto &[key, value] : env)
            replaced = replaced || key == name;
        if (!replaced)
            merged.push_back(text);
    }
    for (const auto &[key, value] : env)
        merged.push_back(key + "=" + value);
    return merged;
}

std::vector<char *> pointers(std::vector<std::string> &texts) {
    std::vector<char *> list;
    for (std::string &text : texts)
        list.push_back(text.data());
    list.push_back(nullptr);
    return list;
}

// Runs between fork and exec: nothing here may allocate. `report` closes on exec; an errno on it tells of a
// failure.
[[noreturn]] void child_run(pid_t parent, char **argv, char **envp, int in, int out, int report) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(127);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    dup2(in, 0);
    if (out >= 0) {
        dup2(out, 1);
        dup2(out, 2);
    }
    execvpe(argv[0], argv, envp);
    int error = errno;
    if (write(report, &error, sizeof(error)) < 0)
        _exit(126);
    _exit(127);
}

// Forks and executes; `out` becomes stdout and stderr unless it is -1. Throws when the program cannot be
// executed.
pid_t spawn(const ProcessSpec &spec, int out) {
    std::vector<std::string> arguments = spec.argv;
    std::vector<std::string> environment = merged_environment(spec.env);
    std::vector<char *> argv = pointers(arguments);
    std::vector<char *> envp = pointers(environment);
    int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    int report[2];
    if (in < 0 || pipe2(report, O_CLOEXEC) != 0)
        throw std::runtime_error(std::string("cannot start a process: ") + strerror(errno));

    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0)
        child_run(parent, argv.data(), envp.data(), in, out, report[1]);
    close(in);
    close(report[1]);
    int error = pid < 0 ? errno : 0;
    ssize_t got;
    while ((got = read(report[0], &error, sizeof(error))) < 0 && errno == EINTR) {
    }
    close(report[0]);
    if (pid < 0 || got > 0) {
        if (pid > 0)
            waitpid(pid, nullptr, 0);
        throw std::runtime_error("cannot execute " + spec.argv[0] + ": " + strerror(error));
    }
    return pid;
}

int exit_of(int wait_status) {
    return WIFSIGNALED(wait_status) ? -WTERMSIG(wait_status) : WEXITSTATUS(wait_status);
}

} // namespace

Process::~Process() {
    if (pid_ > 0)
        stop();
}

Process::Process(Process &&other) noexcept
    : pid_(std::exchange(other.pid_, -1)), exit_(std::exchange(other.exit_, kStillRunning)) {}

Process &Process::operator=(Process &&other) noexcept {
    std::swap(pid_, other.pid_);
    std::swap(exit_, other.exit_);
    return *this;
}

void Process::start(const ProcessSpec &spec) {
    if (pid_ > 0)
        stop();
    int out = -1;
    if (!spec.output.empty()) {
        out = open(spec.output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (out < 0)
            throw std::runtime_error("cannot open " + spec.output + ": " + strerror(errno));
    }
    exit_ = kStillRunning;
    pid_ = spawn(spec, out);
    if (out >= 0)
        close(out);
}

void Process::reap() {
    int status = 0;
    if (pid_ > 0 && exit_ == kStillRunning && waitpid(pid_, &status, WNOHANG) == pid_) {
        exit_ = exit_of(status);
        ::kill(-pid_, SIGKILL); // whatever it left behind
    }
}

bool Process::running() {
    reap();
    return pid_ > 0 && exit_ == kStillRunning;
}

void Process::signal(int number) const {
    if (pid_ > 0 && exit_ == kStillRunning)
        ::kill(pid_, number);
}

int Process::wait(int timeout_ms) {
    wait_until([this] { return !running(); }, timeout_ms);
    return exit_;
}

int Process::stop(int timeout_ms) {
    if (running()) {
        signal(SIGTERM);
        if (wait(timeout_ms) == kStillRunning)
            kill();
    }
    pid_ = -1;
    return exit_;
}

void Process::kill() {
    if (running()) {
        ::kill(-pid_, SIGKILL);
        wait(5000);
    }
}

CommandResult run_command(const std::vector<std::string> &argv,
                          const std::vector<std::pair<std::string, std::string>> &env, int timeout_ms) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error(std::string("pipe: ") + strerror(errno));
    CommandResult result;
    pid_t pid;
    try {
        pid = spawn({argv, env}, ends[1]);
    } catch (...) {
        close(ends[0]);
        close(ends[1]);
        throw;
    }
    close(ends[1]);
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    bool in_time = true;
    for (;;) {
        auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        pollfd wanted = {ends[0], POLLIN, 0};
        int ready = poll(&wanted, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready < 0 && errno == EINTR && !interrupt_is_pending())
            continue;
        if (ready <= 0) {
            in_time = false;
            break;
        }
        char chunk[65536];
        ssize_t got = read(ends[0], chunk, sizeof(chunk));
        if (got <= 0)
            break;
        result.out.append(chunk, static_cast<size_t>(got));
    }
    close(ends[0]);
    if (!in_time)
        ::kill(-pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = in_time ? exit_of(status) : kStillRunning;
    return result;
}

} // namespace lab
