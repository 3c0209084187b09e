// LD_PRELOAD for the daemon: its monotonic clock runs ahead of the machine's by what the first 8 bytes of
// $LAB_CLOCK_FILE say (ms, signed, this machine's byte order). A test moves it, and whatever is due by then
// happens at once: retries, upload intervals, time-outs. The wall clock is the machine's; with $LAB_WALL_TIME
// (seconds since the epoch) it stands at that time, moves with the other one and by the next 8 bytes (ms).
// With $LAB_CLOCK_SLOW the monotonic clock goes that many times slower by itself: on a busy machine nothing
// is due before the test says so.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// A wait that nobody ends when the clock moves looks at it again after this time.
constexpr int kMaxWaitMs = 10;
// Above the descriptors that a program counts on.
constexpr int kFirstDescriptor = 200;
// Descriptors that a call of poll may have; with more it does not see a move.
constexpr nfds_t kPolled = 31;
// Sleeping is measuring something over real seconds; the lab has no need to be exact.
constexpr unsigned kSleepScale = 50;
constexpr int64_t kSecondNs = 1000000000;

const std::atomic<int64_t> *ahead_ms; // and behind it how far somebody has set the wall clock
int64_t wall_start_ms = -1;           // -1: the machine's wall clock
int64_t slow = 1, slow_since_ns = 0;  // the monotonic clock's speed is the machine's by `slow`, from then on
int moves_fd = -1;                    // readable when the clock has been moved; -1: nobody tells us

void watch_moves(const char *path) {
    const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_add_watch(fd, path, IN_MODIFY) >= 0)
        moves_fd = fcntl(fd, F_DUPFD_CLOEXEC, kFirstDescriptor);
    close(fd);
}

void forget_moves() {
    inotify_event moves[16];
    while (moves_fd >= 0 && read(moves_fd, moves, sizeof(moves)) > 0) {
    }
}

__attribute__((constructor)) void map_clock_file() {
    const char *path = getenv("LAB_CLOCK_FILE");
    const int fd = path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    void *mapped = mmap(nullptr, 2 * sizeof(int64_t), PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (mapped == MAP_FAILED)
        return;
    ahead_ms = static_cast<const std::atomic<int64_t> *>(mapped);
    watch_moves(path);
    const char *wall = getenv("LAB_WALL_TIME");
    if (wall != nullptr)
        wall_start_ms = strtoll(wall, nullptr, 10) * 1000;
    if (const char *wanted = getenv("LAB_CLOCK_SLOW"); wanted != nullptr) {
        timespec now = {};
        syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
        slow_since_ns = now.tv_sec * kSecondNs + now.tv_nsec;
        slow = std::max<int64_t>(strtoll(wanted, nullptr, 10), 1);
    }
}

int64_t wall_ms() {
    return wall_start_ms + ahead_ms[0].load(std::memory_order_relaxed) +
           ahead_ms[1].load(std::memory_order_relaxed);
}

} // namespace

extern "C" {

time_t time(time_t *now) noexcept {
    timespec machine = {};
    if (wall_start_ms < 0)
        syscall(SYS_clock_gettime, CLOCK_REALTIME, &machine);
    const time_t seconds = wall_start_ms < 0 ? machine.tv_sec : static_cast<time_t>(wall_ms() / 1000);
    if (now != nullptr)
        *now = seconds;
    return seconds;
}

int clock_gettime(clockid_t clock, timespec *now) noexcept {
    if (clock == CLOCK_REALTIME && wall_start_ms >= 0) {
        *now = {static_cast<time_t>(wall_ms() / 1000), static_cast<long>(wall_ms() % 1000 * 1000000)};
        return 0;
    }
    const long result = syscall(SYS_clock_gettime, clock, now);
    const bool monotonic = clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_RAW;
    if (result == 0 && monotonic && ahead_ms != nullptr) {
        const int64_t ns = now->tv_sec * kSecondNs + now->tv_nsec;
        const int64_t moved = slow_since_ns + (ns - slow_since_ns) / slow +
                              ahead_ms->load(std::memory_order_relaxed) * (kSecondNs / 1000);
        *now = {static_cast<time_t>(moved / kSecondNs), static_cast<long>(moved % kSecondNs)};
    }
    return static_cast<int>(result);
}

static int64_t monotonic_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000} + now.tv_nsec / 1000000;
}

// A move ends the wait, and whoever waits looks at the clock again: between two moves a loop sleeps as
// without us.
int epoll_wait(int fd, epoll_event *events, int count, int timeout_ms) {
    if (ahead_ms != nullptr && timeout_ms != 0) {
        if (moves_fd < 0 && (timeout_ms < 0 || timeout_ms > kMaxWaitMs))
            timeout_ms = kMaxWaitMs;
        pollfd ends[] = {{fd, POLLIN, 0}, {moves_fd, POLLIN, 0}};
        if (syscall(SYS_poll, ends, 2, timeout_ms) < 0)
            return -1;
        forget_moves();
        timeout_ms = 0;
    }
    return static_cast<int>(syscall(SYS_epoll_pwait, fd, events, count, timeout_ms, nullptr, 0));
}

// Ends when a descriptor is ready or the moved clock is past the time: a move has it looked at again.
int poll(pollfd *fds, nfds_t count, int timeout_ms) {
    pollfd ends[kPolled + 1];
    if (ahead_ms == nullptr || timeout_ms == 0 || count > kPolled)
        return static_cast<int>(syscall(SYS_poll, fds, count, timeout_ms));
    const int64_t end = monotonic_ms() + timeout_ms;
    for (;;) {
        std::copy_n(fds, count, ends);
        ends[count] = {moves_fd, POLLIN, 0};
        const int64_t left = timeout_ms < 0 ? -1 : std::max<int64_t>(end - monotonic_ms(), 0);
        const bool short_turn = moves_fd < 0 && (left < 0 || left > kMaxWaitMs);
        const long ready =
            syscall(SYS_poll, ends, count + 1, short_turn ? kMaxWaitMs : static_cast<int>(left));
        const bool moved = ready > 0 && ends[count].revents != 0;
        if (moved)
            forget_moves();
        std::copy_n(ends, count, fds);
        if (ready < 0 || ready > (moved ? 1 : 0) || left == 0)
            return static_cast<int>(ready - (moved ? 1 : 0));
    }
}

unsigned sleep(unsigned seconds) {
    const uint64_t ms = seconds * uint64_t{1000} / (ahead_ms != nullptr ? kSleepScale : 1);
    const timespec wait = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000 * 1000000)};
    nanosleep(&wait, nullptr);
    return 0;
}
}
