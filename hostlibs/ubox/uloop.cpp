#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

static constexpr int max_events = 32;

// Events that one wait returned. Rounds of nested runs are chained, so that a removed fd vanishes from all of
// them.
struct event_round {
    epoll_event events[max_events];
    int count;
    int next;
    event_round *outer;
};

struct signal_slot {
    int number;
    bool installed;
    struct sigaction before;
};

bool uloop_cancelled = false;

static int poll_fd = -1;
static int wake_fd = -1;
static int run_depth = 0;
static event_round *current_round = nullptr;
static volatile std::sig_atomic_t end_signal = 0;
static struct list_head timeouts = LIST_HEAD_INIT(timeouts);
static signal_slot signals[] = {{SIGINT, false, {}}, {SIGTERM, false, {}}, {SIGPIPE, false, {}}};

static void wake_loop() {
    uint64_t one = 1;
    // A full counter wakes the loop just as well.
    [[maybe_unused]] ssize_t written = write(wake_fd, &one, sizeof(one));
}

static void drain_wake() {
    uint64_t drained = 0;
    [[maybe_unused]] ssize_t got = read(wake_fd, &drained, sizeof(drained));
}

static void on_end_signal(int number) {
    int saved = errno;
    end_signal = number;
    uloop_cancelled = true;
    wake_loop();
    errno = saved;
}

static void install_signals() {
    for (signal_slot &slot : signals) {
        struct sigaction now = {};
        if (slot.installed || sigaction(slot.number, nullptr, &now) != 0 || now.sa_handler != SIG_DFL)
            continue;
        struct sigaction ours = {};
        ours.sa_handler = slot.number == SIGPIPE ? SIG_IGN : on_end_signal;
        sigemptyset(&ours.sa_mask);
        slot.installed = sigaction(slot.number, &ours, &slot.before) == 0;
    }
}

static void restore_signals() {
    for (signal_slot &slot : signals) {
        if (slot.installed)
            sigaction(slot.number, &slot.before, nullptr);
        slot.installed = false;
    }
}

static timeval monotonic_now() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {now.tv_sec, now.tv_nsec / 1000};
}

// a - b in microseconds.
static int64_t time_diff_us(const timeval &a, const timeval &b) {
    return (static_cast<int64_t>(a.tv_sec) - b.tv_sec) * 1000000 + (a.tv_usec - b.tv_usec);
}

static uint32_t epoll_mask(unsigned int flags) {
    uint32_t mask = 0;
    if (flags & ULOOP_READ)
        mask |= EPOLLIN | EPOLLRDHUP;
    if (flags & ULOOP_WRITE)
        mask |= EPOLLOUT;
    if (flags & ULOOP_EDGE_TRIGGER)
        mask |= EPOLLET;
    return mask;
}

static int watch_fd(uloop_fd *sock, unsigned int flags) {
    epoll_event event = {};
    event.events = epoll_mask(flags);
    event.data.ptr = sock;
    if (epoll_ctl(poll_fd, sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, sock->fd, &event) == 0)
        return 0;
    // The descriptor was closed (and perhaps opened anew) behind the loop's back.
    if (errno == ENOENT)
        return epoll_ctl(poll_fd, EPOLL_CTL_ADD, sock->fd, &event);
    if (errno == EEXIST)
        return epoll_ctl(poll_fd, EPOLL_CTL_MOD, sock->fd, &event);
    return -1;
}

static void forget_events(const uloop_fd *sock) {
    for (event_round *round = current_round; round; round = round->outer) {
        for (int i = round->next; i < round->count; i++) {
            if (round->events[i].data.ptr == sock)
                round->events[i].data.ptr = nullptr;
        }
    }
}

static void run_fd_event(uloop_fd *sock, uint32_t got) {
    unsigned int events = 0;
    if (got & EPOLLIN)
        events |= ULOOP_READ;
    if (got & EPOLLOUT)
        events |= ULOOP_WRITE;
    if (got & (EPOLLRDHUP | EPOLLHUP))
        sock->eof = true;
    if (got & (EPOLLERR | EPOLLHUP)) {
        sock->error = true;
        if (!(sock->flags & ULOOP_ERROR_CB))
            uloop_fd_delete(sock);
    }
    // A hang-up is news for a reader even where nothing is left to read.
    if (sock->eof && (sock->flags & ULOOP_READ))
        events |= ULOOP_READ;
    // Outer rounds must not report once more what this callback is about to consume.
    forget_events(sock);
    if (sock->cb)
        sock->cb(sock, events);
}

static void run_events(int timeout_ms) {
    event_round round = {};
    do {
        round.count = epoll_wait(poll_fd, round.events, max_events, timeout_ms);
    } while (round.count < 0 && errno == EINTR && !uloop_cancelled && timeout_ms < 0);
    round.outer = current_round;
    current_round = &round;
    while (round.next < round.count && !uloop_cancelled) {
        const epoll_event &event = round.events[round.next++];
        if (event.data.ptr == &wake_fd) {
            drain_wake();
        } else if (event.data.ptr) {
            run_fd_event(static_cast<uloop_fd *>(event.data.ptr), event.events);
        }
    }
    current_round = round.outer;
}

// Timers that the callbacks set come up in the next pass at the earliest, so that descriptors get their turn.
static void run_timeouts() {
    timeval now = monotonic_now();
    while (!list_empty(&timeouts) && !uloop_cancelled) {
        uloop_timeout *first = list_first_entry(&timeouts, uloop_timeout, list);
        if (time_diff_us(first->time, now) > 0)
            return;
        uloop_timeout_cancel(first);
        if (first->cb)
            first->cb(first);
    }
}

int uloop_init(void) {
    if (poll_fd < 0) {
        poll_fd = epoll_create1(EPOLL_CLOEXEC);
        wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.ptr = &wake_fd;
        if (poll_fd < 0 || wake_fd < 0 || epoll_ctl(poll_fd, EPOLL_CTL_ADD, wake_fd, &event) != 0) {
            uloop_done();
            return -1;
        }
    }
    install_signals();
    return 0;
}

int uloop_run_timeout(int timeout) {
    if (run_depth++ == 0) {
        drain_wake();
        uloop_cancelled = false;
        end_signal = 0;
    }
    while (!uloop_cancelled && poll_fd >= 0) {
        run_timeouts();
        if (uloop_cancelled || poll_fd < 0)
            break;
        int wait_ms = uloop_get_next_timeout();
        if (timeout >= 0 && (wait_ms < 0 || timeout < wait_ms))
            wait_ms = timeout;
        run_events(wait_ms);
        if (timeout >= 0)
            break;
    }
    int status = end_signal;
    if (--run_depth == 0)
        end_signal = 0;
    return status;
}

void uloop_end(void) {
    uloop_cancelled = true;
    wake_loop();
}

void uloop_done(void) {
    restore_signals();
    if (run_depth == 0)
        end_signal = 0;
    if (poll_fd >= 0)
        close(poll_fd);
    if (wake_fd >= 0)
        close(wake_fd);
    poll_fd = -1;
    wake_fd = -1;
    for (event_round *round = current_round; round; round = round->outer)
        round->next = round->count;
    while (!list_empty(&timeouts))
        uloop_timeout_cancel(list_first_entry(&timeouts, uloop_timeout, list));
}

bool uloop_cancelling(void) {
    return run_depth > 0 && uloop_cancelled;
}

int uloop_fd_add(struct uloop_fd *sock, unsigned int flags) {
    if (!(flags & ULOOP_EVENT_MASK))
        return uloop_fd_delete(sock);
    if (!sock->registered && !(flags & ULOOP_BLOCKING)) {
        int status = fcntl(sock->fd, F_GETFL, 0);
        if (status < 0 || fcntl(sock->fd, F_SETFL, status | O_NONBLOCK) < 0)
            return -1;
    }
    if (watch_fd(sock, flags) != 0)
        return -1;
    sock->flags = static_cast<uint8_t>(flags);
    sock->registered = true;
    sock->eof = false;
    sock->error = false;
    return 0;
}

int uloop_fd_delete(struct uloop_fd *sock) {
    forget_events(sock);
    if (!sock->registered)
        return 0;
    sock->registered = false;
    return epoll_ctl(poll_fd, EPOLL_CTL_DEL, sock->fd, nullptr);
}

int uloop_timeout_add(struct uloop_timeout *timeout) {
    if (timeout->pending)
        return -1;
    // From the end: timers of one due time stay in the order in which they were set.
    list_head *before = timeouts.prev;
    while (before != &timeouts &&
           time_diff_us(list_entry(before, uloop_timeout, list)->time, timeout->time) > 0)
        before = before->prev;
    list_add(&timeout->list, before);
    timeout->pending = true;
    return 0;
}

int uloop_timeout_set(struct uloop_timeout *timeout, int msecs) {
    if (timeout->pending)
        uloop_timeout_cancel(timeout);
    timeval due = monotonic_now();
    int64_t usec = due.tv_usec + static_cast<int64_t>(msecs) * 1000;
    int64_t carry = usec / 1000000;
    if (usec % 1000000 < 0)
        carry--;
    due.tv_sec += static_cast<time_t>(carry);
    due.tv_usec = static_cast<suseconds_t>(usec - carry * 1000000);
    timeout->time = due;
    return uloop_timeout_add(timeout);
}

int uloop_timeout_cancel(struct uloop_timeout *timeout) {
    if (!timeout->pending)
        return -1;
    list_del(&timeout->list);
    timeout->pending = false;
    return 0;
}

int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout) {
    if (!timeout->pending)
        return -1;
    return std::max<int64_t>(time_diff_us(timeout->time, monotonic_now()) / 1000, 0);
}

int uloop_timeout_remaining(struct uloop_timeout *timeout) {
    return static_cast<int>(std::min<int64_t>(uloop_timeout_remaining64(timeout), INT_MAX));
}

int uloop_get_next_timeout(void) {
    if (list_empty(&timeouts))
        return -1;
    int64_t us = time_diff_us(list_first_entry(&timeouts, uloop_timeout, list)->time, monotonic_now());
    return us <= 0 ? 0 : static_cast<int>(std::min<int64_t>((us + 999) / 1000, INT_MAX));
}
