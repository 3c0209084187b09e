#include "telemetry_command.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_repeat.h"

static constexpr size_t kCommandTextSize = 300;
static constexpr size_t kMaxWords = 16;
// What was killed and still does not end hangs in the kernel: nobody waits for it any longer than this.
static constexpr int kKilledLimitMs = 1000;
static constexpr int kLongestPauseMs = 50;
static constexpr size_t kMaxAbandoned = 16;
static constexpr int kNotRunnable = 127 << 8; // exit status 127

namespace {
// Its own group, so that its children end with it; signals as a program expects them; its output in a pipe.
class SpawnSetup {
  public:
    explicit SpawnSetup(int output) {
        sigset_t none, defaults;
        sigemptyset(&none);
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE); // the loop ignores it
        constexpr short kFlags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
        usable_ = posix_spawnattr_init(&attributes_) == 0 && posix_spawn_file_actions_init(&actions_) == 0 &&
                  posix_spawnattr_setflags(&attributes_, kFlags) == 0 &&
                  posix_spawnattr_setsigdefault(&attributes_, &defaults) == 0 &&
                  posix_spawnattr_setsigmask(&attributes_, &none) == 0 &&
                  (output < 0 || posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO) == 0);
    }
    ~SpawnSetup() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnSetup(const SpawnSetup &) = delete;
    SpawnSetup &operator=(const SpawnSetup &) = delete;
    // 0 or an error number.
    int start(const char *const argv[], pid_t *pid) const {
        if (!usable_)
            return ENOMEM;
        return posix_spawnp(pid, argv[0], &actions_, &attributes_, const_cast<char *const *>(argv), environ);
    }

  private:
    posix_spawn_file_actions_t actions_ = {};
    posix_spawnattr_t attributes_ = {};
    bool usable_;
};

// The ends are nobody else's: no other program gets them.
class OutputPipe {
  public:
    OutputPipe() = default;
    ~OutputPipe() {
        close_writing();
        close_reading();
    }
    OutputPipe(const OutputPipe &) = delete;
    OutputPipe &operator=(const OutputPipe &) = delete;
    bool open() {
        return pipe2(ends_, O_CLOEXEC) == 0;
    }
    int reading() const {
        return ends_[0];
    }
    int writing() const {
        return ends_[1];
    }
    void close_reading() {
        close_end(ends_[0]);
    }
    void close_writing() {
        close_end(ends_[1]);
    }

  private:
    static void close_end(int &end) {
        if (end >= 0)
            close(end);
        end = -1;
    }
    int ends_[2] = {-1, -1};
};
} // namespace

static uint32_t killed;

uint32_t telemetry_commands_killed() {
    return killed;
}

static int64_t now_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// The words with blanks between them, for the log.
static void describe(const char *const argv[], char (&text)[kCommandTextSize]) {
    text[0] = '\0';
    for (size_t used = 0; *argv != nullptr && used < sizeof(text) - 1; ++argv) {
        snprintf(text + used, sizeof(text) - used, "%s%s", used == 0 ? "" : " ", *argv);
        used += strlen(text + used);
    }
}

// A script without its first line "#!" is the shell's to read; the words stay words.
static int start_script(const SpawnSetup &setup, const char *const argv[], pid_t *pid) {
    const char *words[kMaxWords + 1] = {"/bin/sh", "-c", "\"$0\" \"$@\""};
    for (size_t count = 3; *argv != nullptr; ++argv) {
        if (count >= kMaxWords)
            return E2BIG;
        words[count++] = *argv;
    }
    return setup.start(words, pid);
}

static int start_command(const char *const argv[], int output, pid_t *pid) {
    const SpawnSetup setup(output);
    const int error = setup.start(argv, pid);
    return error == ENOEXEC ? start_script(setup, argv, pid) : error;
}

// Of a process that cannot be made; other errors are the program's.
static bool out_of_resources(int error) {
    return error == EAGAIN || error == ENOMEM || error == EMFILE || error == ENFILE;
}

enum OutputEnd { OUTPUT_READ, OUTPUT_TOO_LATE, OUTPUT_UNREADABLE };

static OutputEnd read_output(int fd, const TelemetryCommandOutput &output, int64_t until) {
    for (size_t used = 0; used < output.size;) {
        pollfd ready = {fd, POLLIN, 0};
        const int found = poll(&ready, 1, static_cast<int>(std::max<int64_t>(until - now_ms(), 0)));
        if (found == 0)
            return OUTPUT_TOO_LATE;
        const ssize_t got = found < 0 ? -1 : read(fd, output.text + used, output.size - used);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            telemetry_memory_refused_by_errno();
            return OUTPUT_UNREADABLE;
        }
        if (got == 0 || output.read == TELEMETRY_READ_FIRST)
            return OUTPUT_READ;
        used += static_cast<size_t>(got);
    }
    return OUTPUT_READ;
}

// False when the time is over.
static bool wait_for_end(pid_t pid, int64_t until, int *status) {
    for (int pause_ms = 1;; pause_ms = std::min(2 * pause_ms, kLongestPauseMs)) {
        const pid_t ended = waitpid(pid, status, WNOHANG);
        if (ended == pid || (ended < 0 && errno != EINTR))
            return true;
        const int64_t left = until - now_ms();
        if (left <= 0)
            return false;
        poll(nullptr, 0, static_cast<int>(std::min<int64_t>(pause_ms, left)));
    }
}

// Killed programs that nobody waits for any longer (0: none), whose ends the next command takes note of.
static pid_t abandoned[kMaxAbandoned];

static void abandon(pid_t pid) {
    pid_t *const free = std::find(std::begin(abandoned), std::end(abandoned), 0);
    if (free != std::end(abandoned))
        *free = pid;
}

static void reap_abandoned() {
    for (pid_t &pid : abandoned) {
        if (pid != 0 && waitpid(pid, nullptr, WNOHANG) != 0)
            pid = 0;
    }
}

int telemetry_command_run(const char *const argv[], int limit_ms, const TelemetryCommandOutput *output,
                          int *status) {
    if (argv == nullptr || argv[0] == nullptr || (output != nullptr && output->text == nullptr)) {
        LOG_ERROR("param error");
        return TELEMETRY_COMMAND_NOT_STARTED;
    }
    if (output != nullptr)
        memset(output->text, 0, output->size);
    reap_abandoned();
    char text[kCommandTextSize];
    describe(argv, text);
    const int64_t until = now_ms() + limit_ms;
    OutputPipe pipe;
    pid_t pid = -1;
    const bool piped = output == nullptr || pipe.open();
    const int error = piped ? start_command(argv, pipe.writing(), &pid) : errno;
    if (error == ENOMEM)
        telemetry_memory_refused();
    if (!piped || out_of_resources(error)) {
        LOG_ERROR("error: popen exe [%s] failed", text);
        return TELEMETRY_COMMAND_NOT_STARTED;
    }
    int unused;
    int *const ended = status != nullptr ? status : &unused;
    *ended = kNotRunnable;
    if (error != 0) {
        LOG_MISSING("%s cannot be run: %s", argv[0], strerror(error));
        return TELEMETRY_COMMAND_ENDED;
    }
    pipe.close_writing();
    const OutputEnd end = output == nullptr ? OUTPUT_READ : read_output(pipe.reading(), *output, until);
    pipe.close_reading(); // whoever has more to say ends
    if (end == OUTPUT_READ && wait_for_end(pid, until, ended))
        return TELEMETRY_COMMAND_ENDED;
    if (end == OUTPUT_UNREADABLE) {
        LOG_ERROR("error: popen exe [%s] failed", text);
    } else {
        ++killed;
        LOG_ERROR("[%s] has not ended in %d ms and is killed", text, limit_ms);
    }
    kill(-pid, SIGKILL);
    if (!wait_for_end(pid, now_ms() + kKilledLimitMs, ended))
        abandon(pid);
    return end == OUTPUT_UNREADABLE ? TELEMETRY_COMMAND_NOT_STARTED : TELEMETRY_COMMAND_TOO_LONG;
}
