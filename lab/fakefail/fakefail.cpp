// LD_PRELOAD for the daemon: one request for memory, or one system call, fails as fail_order.h says. Programs
// that the daemon starts are left alone.
#include "fail_order.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <new>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

namespace {

FailOrder *order;

// Counts one and tells whether it is the one.
bool fails() {
    return order->seen.fetch_add(1) + 1 == order->at.load();
}

// --- Whose code ---

struct CodeRange {
    uintptr_t from, to;
    bool holds(uintptr_t address) const {
        return address >= from && address < to;
    }
};

CodeRange program, c_library;
// What stands between the program's code and its request: this library, C++'s, a sanitizer's.
CodeRange between[4];
size_t between_count;

void note_object(const dl_phdr_info *info, const CodeRange &code) {
    const char *name = info->dlpi_name;
    if (*name == '\0' && program.to == 0)
        program = code;
    else if (strstr(name, "/libc.so") != nullptr)
        c_library = code;
    else if (between_count < std::size(between) &&
             (strstr(name, "libfakefail") != nullptr || strstr(name, "libstdc++") != nullptr ||
              strstr(name, "libasan") != nullptr))
        between[between_count++] = code;
}

int find_code(dl_phdr_info *info, size_t, void *) {
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr) &part = info->dlpi_phdr[i];
        const uintptr_t from = info->dlpi_addr + part.p_vaddr;
        if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0)
            note_object(info, {from, from + part.p_memsz});
    }
    return 0;
}

_Unwind_Reason_Code judge_frame(_Unwind_Context *frame, void *own) {
    const uintptr_t address = _Unwind_GetIP(frame);
    for (size_t i = 0; i < between_count; i++)
        if (between[i].holds(address))
            return _URC_NO_REASON;
    *static_cast<bool *>(own) = program.holds(address);
    return _URC_END_OF_STACK;
}

bool asked_by_program() {
    bool own = false;
    _Unwind_Backtrace(judge_frame, &own);
    return own;
}

// --- Memory ---

thread_local bool inside; // of a request that has been counted

bool refused(size_t size) {
    static std::atomic<bool> started; // what libraries ask for before the program runs is not its own matter
    if (order == nullptr || inside)
        return false;
    const int32_t kind = order->kind.load();
    if (kind != FAIL_MEMORY && kind != FAIL_OWN_MEMORY)
        return false;
    inside = true;
    const bool counts = (kind == FAIL_MEMORY && started) || asked_by_program();
    started = started || counts;
    const bool now = counts && fails();
    inside = false;
    if (now)
        order->hit = static_cast<int64_t>(size) + 1;
    return now;
}

template <typename Function> Function *next(const char *name, Function *) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

void *cpp_new(const char *symbol, size_t size, bool throws) {
    if (refused(size)) {
        if (!throws)
            return nullptr;
        if (const std::new_handler handler = std::get_new_handler(); handler != nullptr)
            handler();
        throw std::bad_alloc();
    }
    const bool outer = inside;
    inside = true;
    using New = void *(size_t);
    void *block = next<New>(symbol, nullptr)(size);
    inside = outer;
    return block;
}
} // namespace

void *operator new(size_t size) {
    return cpp_new("_Znwm", size, true);
}
void *operator new[](size_t size) {
    return cpp_new("_Znam", size, true);
}

extern "C" {
void *malloc(size_t size) noexcept {
    static auto *const real = next("malloc", malloc);
    if (!refused(size))
        return real(size);
    errno = ENOMEM;
    return nullptr;
}
void *calloc(size_t count, size_t size) noexcept {
    static auto *const real = next("calloc", calloc);
    if (!refused(count * size))
        return real(count, size);
    errno = ENOMEM;
    return nullptr;
}
void *realloc(void *block, size_t size) noexcept {
    static auto *const real = next("realloc", realloc);
    if (size == 0 || !refused(size))
        return real(block, size);
    errno = ENOMEM;
    return nullptr;
}
char *strdup(const char *text) noexcept {
    auto *copy = static_cast<char *>(malloc(strlen(text) + 1));
    return copy == nullptr ? nullptr : strcpy(copy, text);
}
}

// --- System calls ---

#if defined(__x86_64__)
namespace {

constexpr int kCalls[] = {SYS_read,    SYS_write,      SYS_writev,   SYS_open,   SYS_openat,
                          SYS_rename,  SYS_fsync,      SYS_connect,  SYS_pipe2,  SYS_epoll_ctl,
                          SYS_ioctl,   SYS_socket,     SYS_recvfrom, SYS_sendto, SYS_recvmsg,
                          SYS_sendmsg, SYS_mkdir,      SYS_unlink,   SYS_flock,  SYS_epoll_create1,
                          SYS_lseek,   SYS_newfstatat, SYS_ftruncate};

// Not in the C library: the filter lets it pass.
long system_call(long number, const greg_t *r) {
    long result;
    register long r10 asm("r10") = r[REG_R10];
    register long r8 asm("r8") = r[REG_R8];
    register long r9 asm("r9") = r[REG_R9];
    asm volatile("syscall"
                 : "=a"(result)
                 : "a"(number), "D"(r[REG_RDI]), "S"(r[REG_RSI]), "d"(r[REG_RDX]), "r"(r10), "r"(r8), "r"(r9)
                 : "rcx", "r11", "memory");
    return result;
}

// The result in the place of the call's own, or 0 when it is to be made (with less to read or write).
long failed_result(int number, greg_t *r) {
    order->hit = number + 1;
    const int32_t error = order->error.load();
    if (error == kFailKill)
        kill(getpid(), SIGKILL);
    const bool has_length =
        number == SYS_read || number == SYS_write || number == SYS_recvfrom || number == SYS_sendto;
    if (error != kFailShort)
        return -error;
    if (!has_length || r[REG_RDX] < 2)
        return -EIO;
    r[REG_RDX] /= 2;
    return 0;
}

void answer_call(int, siginfo_t *info, void *context) {
    greg_t *r = static_cast<ucontext_t *>(context)->uc_mcontext.gregs;
    const int number = info->si_syscall;
    const bool now = order->kind.load() == FAIL_CALLS && fails();
    const long failed = now ? failed_result(number, r) : 0;
    r[REG_RAX] = failed != 0 ? failed : system_call(number, r);
}

// The calls of the list come to answer_call when the C library makes them: of this process alone, since
// another program's stands elsewhere.
void watch_calls() {
    struct sigaction action = {};
    action.sa_sigaction = answer_call;
    action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_RESTART;
    sigaction(SIGSYS, &action, nullptr);
    constexpr unsigned kIpLow = offsetof(seccomp_data, instruction_pointer), kIpHigh = kIpLow + 4;
    constexpr size_t kCount = std::size(kCalls);
    sock_filter filter[kCount + 8];
    size_t n = 0;
    const auto add = [&](sock_filter line) { filter[n++] = line; };
    // The library stands below one multiple of 4 GiB, or its calls are not watched.
    add(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kIpHigh));
    add(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(c_library.from >> 32), 0, kCount + 4));
    add(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kIpLow));
    add(BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, static_cast<uint32_t>(c_library.from), 0, kCount + 2));
    add(BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, static_cast<uint32_t>(c_library.to), kCount + 1, 0));
    add(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
    for (size_t i = 0; i < kCount; i++)
        add(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(kCalls[i]),
                     static_cast<uint8_t>(kCount - i), 0));
    add(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    add(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP));
    const sock_fprog code = {static_cast<unsigned short>(n), filter};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &code) != 0)
        order->hit = -errno; // a test sees that nothing is watched
}
} // namespace

extern "C" int posix_spawnp(pid_t *pid, const char *file, const posix_spawn_file_actions_t *actions,
                            const posix_spawnattr_t *attributes, char *const argv[], char *const env[]) {
    static auto *const real = next("posix_spawnp", posix_spawnp);
    if (order == nullptr || order->kind.load() != FAIL_CALLS || !fails())
        return real(pid, file, actions, attributes, argv, env);
    greg_t none[NGREG] = {};
    return static_cast<int>(-failed_result(SYS_clone, none));
}
#else
static void watch_calls() {}
#endif

__attribute__((constructor)) static void map_order() {
    const char *path = getenv("LAB_FAIL_FILE");
    if (path == nullptr || strcmp(program_invocation_short_name, "telemetry") != 0)
        return;
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    void *mapped = mmap(nullptr, sizeof(FailOrder), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (mapped == MAP_FAILED)
        return;
    dl_iterate_phdr(find_code, nullptr);
    order = static_cast<FailOrder *>(mapped);
    if (order->kind == FAIL_CALLS)
        watch_calls();
}
