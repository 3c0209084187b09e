// Files: opened, locked, read with a bound, replaced in one step.
#include "uci_internal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ucilib {

namespace {

constexpr mode_t new_file_mode = S_IRUSR | S_IWUSR;
constexpr int lock_tries = 500; // of 10 ms

// A lock that another process keeps must not stop the caller for good.
bool lock_file(int fd, int lock) {
    for (int i = 0; i < lock_tries; i++) {
        if (flock(fd, lock | LOCK_NB) == 0)
            return true;
        if (errno != EWOULDBLOCK && errno != EINTR)
            return false;
        poll(nullptr, 0, 10);
    }
    return false;
}

bool still_named(const std::string &path, int fd) {
    struct stat named, opened;
    return stat(path.c_str(), &named) == 0 && fstat(fd, &opened) == 0 && named.st_dev == opened.st_dev &&
           named.st_ino == opened.st_ino;
}

} // namespace

std::string path_in(const std::string &dir, std::string_view name) {
    return dir + "/" + std::string(name);
}

file_handle &file_handle::operator=(file_handle &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
}

file_handle::~file_handle() {
    if (fd_ >= 0)
        close(fd_);
}

int file_open(const std::string &path, int flags, file_handle &file) {
    // O_NONBLOCK: a fifo of that name must not stop the caller.
    file_handle opened(open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, new_file_mode));
    if (!opened)
        return errno == ENOENT ? UCI_ERR_NOTFOUND : UCI_ERR_IO;
    struct stat info;
    if (fstat(opened.get(), &info) != 0 || !S_ISREG(info.st_mode))
        return UCI_ERR_IO;
    file = std::move(opened);
    return UCI_OK;
}

int file_open_locked(const std::string &path, int flags, int lock, file_handle &file) {
    // A commit replaces the file: a lock that was waited for may be on the old one.
    for (int i = 0; i < lock_tries; i++) {
        file_handle opened;
        int rc = file_open(path, flags, opened);
        if (rc != UCI_OK)
            return rc;
        if (!lock_file(opened.get(), lock))
            return UCI_ERR_IO;
        if (still_named(path, opened.get())) {
            file = std::move(opened);
            return UCI_OK;
        }
    }
    return UCI_ERR_IO;
}

int file_read(int fd, size_t limit, std::string &text) {
    text.clear();
    char block[8192];
    for (off_t at = 0;;) {
        ssize_t got = pread(fd, block, sizeof(block), at);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return UCI_ERR_IO;
        if (got == 0)
            return UCI_OK;
        text.append(block, static_cast<size_t>(got));
        at += got;
        if (text.size() > limit)
            return UCI_ERR_PARSE;
    }
}

int file_write(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t done = write(fd, text.data(), text.size());
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return UCI_ERR_IO;
        text.remove_prefix(static_cast<size_t>(done));
    }
    return UCI_OK;
}

int file_replace(const std::string &path, const std::string &package, int old, std::string_view text) {
    struct stat info;
    if (fstat(old, &info) != 0)
        return UCI_ERR_IO;
    const size_t slash = path.rfind('/');
    std::string temporary = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
    temporary += "." + package + ".uci-XXXXXX";
    file_handle file(mkostemp(temporary.data(), O_CLOEXEC));
    if (!file)
        return UCI_ERR_IO;
    const int fd = file.get();
    if ((info.st_uid != geteuid() || info.st_gid != getegid()) && fchown(fd, info.st_uid, info.st_gid) != 0)
        info.st_mode &= 0777; // another's file: never its set-id bits
    if (file_write(fd, text) == UCI_OK && fchmod(fd, info.st_mode & 07777) == 0 && fsync(fd) == 0 &&
        rename(temporary.c_str(), path.c_str()) == 0)
        return UCI_OK;
    unlink(temporary.c_str());
    return UCI_ERR_IO;
}

} // namespace ucilib
