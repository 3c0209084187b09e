#include "telemetry_bus_limit.h"

#include <cerrno>
#include <csignal>

#include <sys/socket.h>
#include <sys/time.h>

// Again and again: the first signal may come just before the library begins to wait.
static constexpr int kAgainMs = 200;
static const volatile int *volatile watched;

static void end_wait(int) {
    const int before = errno;
    if (watched != nullptr && *watched >= 0)
        shutdown(*watched, SHUT_RDWR);
    errno = before;
}

// The system's clock, whatever the wall clock does.
static void set_timer(int ms, int again_ms) {
    const auto time = [](int span_ms) { return timeval{span_ms / 1000, span_ms % 1000 * 1000}; };
    const itimerval timer = {time(again_ms), time(ms)};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

TelemetryBusLimit::TelemetryBusLimit() {
    static bool ready;
    if (!ready) {
        struct sigaction action = {};
        action.sa_handler = end_wait; // without SA_RESTART: a system call ends with EINTR
        sigaction(SIGALRM, &action, nullptr);
        sigset_t alarm; // the starter may have held it back
        sigemptyset(&alarm);
        sigaddset(&alarm, SIGALRM);
        sigprocmask(SIG_UNBLOCK, &alarm, nullptr);
        ready = true;
    }
    watched = nullptr;
    set_timer(wait_ms, kAgainMs);
}

TelemetryBusLimit::~TelemetryBusLimit() {
    set_timer(0, 0);
    watched = nullptr;
}

void TelemetryBusLimit::watch(const int &socket) {
    watched = &socket;
}
