/* The event loop: one thread waits for file descriptors, timers and the signals that end it. */
#ifndef LIBUBOX_ULOOP_H
#define LIBUBOX_ULOOP_H

#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>

#include "list.h"

struct uloop_fd;
struct uloop_timeout;

typedef void (*uloop_fd_handler)(struct uloop_fd *u, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout *t);

#define ULOOP_READ (1 << 0)
#define ULOOP_WRITE (1 << 1)
#define ULOOP_EDGE_TRIGGER (1 << 2)
#define ULOOP_BLOCKING (1 << 3)
/* Stay in the loop after an error or a hang-up; without it the fd leaves the loop just before its callback.
 */
#define ULOOP_ERROR_CB (1 << 6)
#define ULOOP_EVENT_MASK (ULOOP_READ | ULOOP_WRITE)

struct uloop_fd {
    uloop_fd_handler cb;
    int fd;
    bool eof;
    bool error;
    bool registered;
    uint8_t flags;
};

struct uloop_timeout {
    struct list_head list;
    bool pending;
    uloop_timeout_handler cb;
    struct timeval time; /* due time on the monotonic clock */
};

extern bool uloop_cancelled;

/*
 * Creates the loop's descriptors, ignores SIGPIPE and lets SIGINT and SIGTERM end the loop (each only where
 * the default action is in force). Further calls change nothing. 0 or -1.
 */
int uloop_init(void);

/*
 * Runs until uloop_end or a signal; what came of either before it started is forgotten. With a time-out of 0
 * or more ms: one pass only, which runs what is due and then waits at most that long for descriptors. Returns
 * 0 or the number of the signal that ended the loop.
 */
int uloop_run_timeout(int timeout);

static inline int uloop_run(void) {
    return uloop_run_timeout(-1);
}

/* Ends the loop after the running callback. */
void uloop_end(void);

/* Cancels all timers, closes the loop's descriptors and puts the signal handlers back. */
void uloop_done(void);

/* True between the end of the loop and the return of the outermost uloop_run. */
bool uloop_cancelling(void);

/* Adds the descriptor or changes its flags; no READ or WRITE in `flags` removes it. 0 or -1. */
int uloop_fd_add(struct uloop_fd *sock, unsigned int flags);

/* Events that were already waiting for it are dropped. 0 (also when it was not in the loop) or -1. */
int uloop_fd_delete(struct uloop_fd *sock);

/* Enters the timer at the time that stands in `time`. 0, or -1 when it is pending. */
int uloop_timeout_add(struct uloop_timeout *timeout);

/* Enters the timer `msecs` from now; a pending one is moved. 0. */
int uloop_timeout_set(struct uloop_timeout *timeout, int msecs);

/* 0, or -1 when it was not pending. */
int uloop_timeout_cancel(struct uloop_timeout *timeout);

/* Milliseconds to go (0 when overdue), -1 when not pending. */
int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout);

/* The same within an int. */
int uloop_timeout_remaining(struct uloop_timeout *timeout) __attribute__((deprecated("use the 64 bit form")));

/* Milliseconds to the first timer, rounded up; 0 when one is due, -1 without timers. */
int uloop_get_next_timeout(void);

#endif
