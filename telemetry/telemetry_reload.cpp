#include "telemetry_reload.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include "telemetry_guarded.h"
#include "telemetry_log.h"

// The signal's handler writes, the loop reads; both ends never block.
static int wish_ends[2] = {-1, -1};
static TelemetryCtx *reload_ctx;
static void (*reload)(TelemetryCtx *ctx);

static void note_wish(int) {
    const int error = errno;
    // What a full pipe refuses is asked for already.
    [[maybe_unused]] const ssize_t written = write(wish_ends[1], "", 1);
    errno = error;
}

static void answer_wishes(uloop_fd *, unsigned) {
    char wishes[256];
    bool asked = false;
    while (read(wish_ends[0], wishes, sizeof(wishes)) > 0)
        asked = true;
    if (asked)
        telemetry_guarded("reload", [] { reload(reload_ctx); });
}

static uloop_fd wish_watch;

void telemetry_catch_reload_signal() {
    if (wish_ends[0] < 0 && pipe2(wish_ends, O_NONBLOCK | O_CLOEXEC) != 0) {
        LOG_ERROR("no pipe for SIGHUP, the configuration is read at the start only");
        signal(SIGHUP, SIG_IGN);
        return;
    }
    struct sigaction action = {};
    action.sa_handler = note_wish;
    action.sa_flags = SA_RESTART;
    sigaction(SIGHUP, &action, nullptr);
}

void telemetry_watch_reload(TelemetryCtx *ctx, void (*answer)(TelemetryCtx *ctx)) {
    reload_ctx = ctx;
    reload = answer;
    wish_watch.fd = wish_ends[0];
    wish_watch.cb = answer_wishes;
    if (wish_watch.fd >= 0 && uloop_fd_add(&wish_watch, ULOOP_READ) != 0)
        LOG_ERROR("the loop cannot watch the pipe for SIGHUP, the configuration is read at the start only");
}

void telemetry_unwatch_reload() {
    if (wish_watch.fd >= 0)
        uloop_fd_delete(&wish_watch);
}
