// ioctl() for a process that has no Wi-Fi hardware: the driver's private request is answered from the
// scenario, all other requests reach the real function. <sys/ioctl.h> stays out: its declaration is the one
// that is replaced.
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>
#include <linux/wireless.h>
#include <mutex>
#include <string>

#include "scenario.h"

namespace {

using IoctlFunction = int (*)(int fd, unsigned long request, void *argument);

constexpr unsigned long kPrivateRequest = 0x8BE1;

bool is_ipv4_datagram_socket(int fd) {
    int domain = 0;
    int type = 0;
    socklen_t size = sizeof(domain);
    if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0)
        return false;
    size = sizeof(type);
    return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && domain == AF_INET && type == SOCK_DGRAM;
}

int answer_private_request(int fd, iwreq *block) {
    if (!is_ipv4_datagram_socket(fd))
        return ENOTTY;
    if (block == nullptr)
        return EFAULT;
    static std::mutex lock;
    const std::lock_guard<std::mutex> guard(lock);
    const cJSON *scenario = fakewifi::scenario_current();
    if (scenario == nullptr)
        return ENODEV;
    const std::string ifname(block->ifr_name, strnlen(block->ifr_name, sizeof(block->ifr_name)));
    size_t answered = 0;
    const int error = fakewifi::scenario_answer(scenario, ifname.c_str(), block->u.data.flags,
                                                static_cast<uint8_t *>(block->u.data.pointer),
                                                block->u.data.length, &answered);
    if (error == 0)
        block->u.data.length = static_cast<uint16_t>(answered);
    return error;
}

} // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (request != kPrivateRequest) {
        static const auto real = reinterpret_cast<IoctlFunction>(dlsym(RTLD_NEXT, "ioctl"));
        if (real != nullptr)
            return real(fd, request, argument);
        errno = ENOSYS;
        return -1;
    }
    const int error = answer_private_request(fd, static_cast<iwreq *>(argument));
    if (error == 0)
        return 0;
    errno = error;
    return -1;
}
