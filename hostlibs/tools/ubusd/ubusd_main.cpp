// ubusd [-s socket]: the bus daemon.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "../../ubusd/ubusd.h"

int main(int argc, char **argv) {
    const char *path = UBUS_UNIX_SOCKET;
    int option;
    while ((option = getopt(argc, argv, "s:")) != -1) {
        if (option != 's') {
            std::fprintf(stderr, "Usage: %s [-s <socket>]\n", argv[0]);
            return 1;
        }
        path = optarg;
    }

    if (uloop_init() != 0) {
        std::fprintf(stderr, "ubusd: no event loop: %s\n", std::strerror(errno));
        return 1;
    }
    ubusd_server server;
    if (!ubusd_listen(server, path)) {
        std::fprintf(stderr, "ubusd: cannot listen on %s: %s\n", path, std::strerror(errno));
        return 1;
    }
    uloop_run();
    ubusd_stop(server);
    unlink(path);
    uloop_done();
    return 0;
}
