// The listening socket and those who connect to it.
#include "ubusd.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Clients accepted in one turn of the event loop.
constexpr int accepts_per_turn = 16;

int open_spare() {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

// Out of descriptors a waiting client would wake the loop for ever: it is taken with the spare one and sent
// away.
void refuse_one(ubusd_server &server) {
    if (server.spare_fd < 0)
        return;
    close(server.spare_fd);
    int fd = accept4(server.listening.sock.fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0)
        close(fd);
    server.spare_fd = open_spare();
}

void listen_ready(uloop_fd *sock, unsigned int) {
    ubusd_server &server = *container_of(sock, ubusd_listen_socket, sock)->server;
    for (int i = 0; i < accepts_per_turn; i++) {
        int fd = accept4(sock->fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            ubusd_client_add(server, fd);
            continue;
        }
        if (errno == EMFILE || errno == ENFILE)
            refuse_one(server);
        if (errno != EINTR && errno != ECONNABORTED)
            break;
    }
    ubusd_reap(server);
}

void make_directory_of(const std::string &path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0755);
}

bool bind_and_listen(int fd, const sockaddr_un &addr) {
    struct stat left_over;
    if (lstat(addr.sun_path, &left_over) == 0 && S_ISSOCK(left_over.st_mode))
        unlink(addr.sun_path);
    // Every user of the system may talk to the bus.
    mode_t old_mask = umask(0111);
    bool ok = bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) == 0;
    umask(old_mask);
    return ok && listen(fd, SOMAXCONN) == 0;
}

} // namespace

bool ubusd_listen(ubusd_server &server, const char *path) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(addr.sun_path, path, std::strlen(path) + 1);
    make_directory_of(path);

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return false;
    if (!bind_and_listen(fd, addr)) {
        int error = errno;
        close(fd);
        errno = error;
        return false;
    }
    server.spare_fd = open_spare();
    server.listening.server = &server;
    server.listening.sock.fd = fd;
    server.listening.sock.cb = listen_ready;
    return uloop_fd_add(&server.listening.sock, ULOOP_READ) == 0;
}

void ubusd_stop(ubusd_server &server) {
    for (auto &[id, client] : server.clients)
        ubusd_client_drop(*client);
    ubusd_reap(server);
    if (server.listening.sock.registered) {
        uloop_fd_delete(&server.listening.sock);
        close(server.listening.sock.fd);
    }
    if (server.spare_fd >= 0)
        close(server.spare_fd);
    server.spare_fd = -1;
}
