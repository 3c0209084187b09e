// ubusd [-s socket] [-A directory of rights]: the bus daemon. SIGHUP makes it read the rights anew.
#include <csignal>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/signalfd.h>
#include <unistd.h>

#include "../../ubusd/ubusd.h"

namespace {

struct options {
    const char *socket = UBUS_UNIX_SOCKET;
    const char *rights = "/usr/share/acl.d";
};

// A record of its own because the event loop's callback finds the rest from the descriptor.
struct reload {
    uloop_fd signal = {};
    ubusd_server *server = nullptr;
    const char *rights = nullptr;
};

void reload_rights(uloop_fd *signal, unsigned int) {
    reload &self = *container_of(signal, reload, signal);
    signalfd_siginfo info;
    while (read(signal->fd, &info, sizeof(info)) > 0) {
        ubusd_acl_load(*self.server, self.rights);
        ubusd_announce_rights(*self.server);
        ubusd_reap(*self.server);
    }
}

bool watch_for_reload(reload &self) {
    sigset_t hang_up;
    sigemptyset(&hang_up);
    sigaddset(&hang_up, SIGHUP);
    sigprocmask(SIG_BLOCK, &hang_up, nullptr);
    self.signal.fd = signalfd(-1, &hang_up, SFD_CLOEXEC | SFD_NONBLOCK);
    self.signal.cb = reload_rights;
    return self.signal.fd >= 0 && uloop_fd_add(&self.signal, ULOOP_READ) == 0;
}

bool parse_options(int argc, char **argv, options &opts) {
    int option;
    while ((option = getopt(argc, argv, "A:s:")) != -1) {
        if (option == 'A')
            opts.rights = optarg;
        else if (option == 's')
            opts.socket = optarg;
        else
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv) {
    options opts;
    if (!parse_options(argc, argv, opts)) {
        std::fprintf(stderr, "Usage: %s [-s <socket>] [-A <directory of rights>]\n", argv[0]);
        return 1;
    }
    ubusd_server server;
    reload hang_up = {{}, &server, opts.rights};
    if (uloop_init() != 0 || !watch_for_reload(hang_up)) {
        std::fprintf(stderr, "ubusd: no event loop: %s\n", std::strerror(errno));
        return 1;
    }
    ubusd_acl_load(server, opts.rights);
    if (!ubusd_listen(server, opts.socket)) {
        std::fprintf(stderr, "ubusd: cannot listen on %s: %s\n", opts.socket, std::strerror(errno));
        return 1;
    }
    uloop_run();
    ubusd_stop(server);
    unlink(opts.socket);
    uloop_done();
    return 0;
}
