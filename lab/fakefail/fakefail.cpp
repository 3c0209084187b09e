// LD_PRELOAD for the daemon: one request for memory, or one system call, fails as fail_order.h says. Programs
// that the daemon starts are left alone.
#include "fail_order.h"

#include <algorithm>
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
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <type_traits>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

namespace {

FailOrder *order;

// --- Whose code, and from where ---

enum Owner {
    OTHER,
    PROGRAM,
    C_LIBRARY,
    BETWEEN, // a program's code and its request: this library, C++'s, a sanitizer's
    STAND_IN // for a driver, the log; or a sanitizer's check: not to fail on its own
};

struct Code {
    uintptr_t from, to, base;
    Owner owner;
};

Code codes[64];
size_t code_count;

Owner owner_of(const char *name) {
    if (*name == '\0')
        return code_count == 0 ? PROGRAM : OTHER;
    if (strstr(name, "/libc.so") != nullptr)
        return C_LIBRARY;
    for (const char *between : {"libfakefail", "libstdc++", "libasan"})
        if (strstr(name, between) != nullptr)
            return BETWEEN;
    return strstr(name, "libfake") != nullptr || strstr(name, "libubsan") != nullptr ? STAND_IN : OTHER;
}

int find_code(dl_phdr_info *info, size_t, void *) {
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr) &part = info->dlpi_phdr[i];
        const uintptr_t from = info->dlpi_addr + part.p_vaddr;
        const Code code = {from, from + part.p_memsz, info->dlpi_addr, owner_of(info->dlpi_name)};
        if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0 && code_count < std::size(codes))
            codes[code_count++] = code;
    }
    return 0;
}

const Code *code_at(uintptr_t address) {
    for (size_t i = 0; i < code_count; i++)
        if (address >= codes[i].from && address < codes[i].to)
            return &codes[i];
    return nullptr;
}

struct Stack {
    uint64_t hash;
    Owner asker;
    bool stand_in; // asks
    int depth;
    size_t own; // frames of the program
    uint64_t from[std::extent_v<decltype(FailOrder::from)>];
};

_Unwind_Reason_Code add_frame(_Unwind_Context *frame, void *data) {
    auto &stack = *static_cast<Stack *>(data);
    const uintptr_t address = _Unwind_GetIP(frame);
    const Code *code = code_at(address);
    const Owner owner = code == nullptr ? OTHER : code->owner;
    if (owner == BETWEEN)
        return _URC_NO_REASON;
    const uintptr_t place = code == nullptr ? 0 : address - code->base;
    stack.hash = (stack.hash ^ place) * 1099511628211U;
    stack.stand_in = stack.stand_in || owner == STAND_IN;
    if (owner == PROGRAM && stack.own < std::size(stack.from))
        stack.from[stack.own++] = place - 1;
    if (stack.depth++ == 0)
        stack.asker = owner;
    return stack.depth < 64 ? _URC_NO_REASON : _URC_END_OF_STACK;
}

Stack stack_here() {
    Stack stack = {};
    _Unwind_Backtrace(add_frame, &stack);
    return stack;
}

// Notes a stack; false when it was noted before.
bool note_stack(uint64_t hash) {
    for (size_t i = 0; i < kFailStacks / 2; i++) {
        std::atomic<uint64_t> &slot = order->stacks[(hash + i) % kFailStacks];
        if (slot == hash)
            return false;
        if (slot == 0) {
            slot = hash;
            return true;
        }
    }
    return false;
}

// Whether one is still to fail: only then is the stack looked at, which takes most of the time.
bool is_armed(FailKind kind, FailKind other) {
    const int32_t wanted = order == nullptr ? int32_t{FAIL_NOTHING} : order->kind.load();
    return wanted != FAIL_NOTHING && (wanted == kind || wanted == other) && order->at != 0 && order->hit == 0;
}

// Whether it is the one that fails, by its number or by where it comes from.
bool is_due(int64_t number, const Stack &stack) {
    if (const int64_t at = order->at.load(); at != kFailUnseen)
        return number == at;
    const uint64_t hash = stack.hash + static_cast<uint64_t>(order->error.load()) * 7919;
    return note_stack(hash == 0 ? 1 : hash) && order->unseen.fetch_add(1) % order->step == 0;
}

// Counts a call and tells whether it fails; `what` is told of it then.
bool fails(const Stack &stack, int64_t what) {
    if (stack.stand_in || !is_due(order->seen.fetch_add(1) + 1, stack))
        return false;
    std::copy(std::begin(stack.from), std::end(stack.from), std::begin(order->from));
    order->hit = what;
    return true;
}

thread_local bool inside; // of a call that has been counted

// --- Memory ---

bool refused(size_t size) {
    static std::atomic<bool> started; // what libraries ask for before the program runs is not its own matter
    // `inside` last: a sanitizer asks before it is there.
    if (!is_armed(FAIL_MEMORY, FAIL_OWN_MEMORY) || inside)
        return false;
    inside = true;
    const Stack stack = stack_here();
    started = started || stack.asker == PROGRAM;
    const bool counts = stack.asker == PROGRAM || (order->kind == FAIL_MEMORY && started);
    const bool now = counts && fails(stack, static_cast<int64_t>(size) + 1);
    inside = false;
    return now;
}

template <typename Function> Function *next(const char *name, Function *) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

void *cpp_new(const char *symbol, size_t size, bool throws) {
    if (refused(size)) {
        if (!throws)
            return nullptr;
        // The handler of the program's own C++ library, not of the one in here.
        static auto *const get_handler = next("_ZSt15get_new_handlerv", std::get_new_handler);
        if (const std::new_handler handler = get_handler == nullptr ? nullptr : get_handler();
            handler != nullptr)
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
    bool now = false;
    if (!inside && is_armed(FAIL_CALLS, FAIL_CALLS)) {
        inside = true;
        now = fails(stack_here(), number + 1);
        inside = false;
    }
    const long failed = now ? failed_result(number, r) : 0;
    r[REG_RAX] = failed != 0 ? failed : system_call(number, r);
}

// The calls of the list come to answer_call when this process's C library makes them. A program that it
// starts has its own elsewhere: at the fixed place, where the randomized one of this process is not.
void watch_calls() {
    personality(ADDR_NO_RANDOMIZE);
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
    const Code *c_library = codes;
    while (c_library->owner != C_LIBRARY)
        ++c_library;
    add(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kIpHigh));
    add(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(c_library->from >> 32), 0, kCount + 4));
    add(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kIpLow));
    add(BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, static_cast<uint32_t>(c_library->from), 0, kCount + 2));
    add(BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, static_cast<uint32_t>(c_library->to), kCount + 1, 0));
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
    if (!is_armed(FAIL_CALLS, FAIL_CALLS) || !fails(stack_here(), SYS_clone + 1))
        return real(pid, file, actions, attributes, argv, env);
    greg_t none[NGREG] = {};
    return failed_result(SYS_clone, none) == -ENOMEM ? ENOMEM : EAGAIN; // there are no others
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
    inside = true;
    stack_here(); // what unwinding asks for once, it asks for now
    inside = false;
    if (order->kind == FAIL_CALLS)
        watch_calls();
}
