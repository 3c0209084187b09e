// Memory that runs short: malloc and its like, libraries' calls included, refuse what the run's input
// chooses.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <new>

#include "support/fuzz_memory.h"

#if __has_feature(address_sanitizer)
#define SYSTEM(name) __interceptor_##name
#else
#define SYSTEM(name) __libc_##name
// As AddressSanitizer's, which is never refused: json-c counts on it.
extern "C" char *strdup(const char *text) {
    const FuzzPlenty plenty;
    return static_cast<char *>(memcpy(malloc(strlen(text) + 1), text, strlen(text) + 1));
}
#endif
extern "C" void *SYSTEM(malloc)(size_t size);
extern "C" void *SYSTEM(calloc)(size_t count, size_t size);
extern "C" void *SYSTEM(realloc)(void *block, size_t size);

// What is new is malloc's here, and little of what was freed is kept from use, for speed.
extern "C" const char *__asan_default_options() {
    return "alloc_dealloc_mismatch=0:quarantine_size_mb=8:malloc_context_size=8:max_malloc_fill_size=0";
}

// Asked, too, before the sanitizers are ready.
__attribute__((no_sanitize("address", "undefined"))) static bool refused(const void *caller) {
    FuzzMemory &memory = fuzz_memory;
    if (!memory.counts)
        return false;
    memory.seen++;
    if (memory.first == 0 || memory.seen < memory.first || (memory.seen > memory.first && !memory.all))
        return false;
    // json-c loses what it has read by then.
    Dl_info info;
    extern const char __executable_start, etext; // the linker's
    const bool ours = caller >= &__executable_start && caller < &etext;
    if (!ours && dladdr(caller, &info) != 0 && strstr(info.dli_fname, "libjson-c") != nullptr)
        return false;
    memory.refused = true;
    errno = ENOMEM;
    return true;
}

extern "C" void *malloc(size_t size) {
    return refused(__builtin_return_address(0)) ? nullptr : SYSTEM(malloc)(size);
}

extern "C" void *calloc(size_t count, size_t size) {
    return refused(__builtin_return_address(0)) ? nullptr : SYSTEM(calloc)(count, size);
}

extern "C" void *realloc(void *block, size_t size) {
    return refused(__builtin_return_address(0)) ? nullptr : SYSTEM(realloc)(block, size);
}

void *operator new(size_t size) {
    void *block = malloc(size > 0 ? size : 1);
    if (block == nullptr && std::get_new_handler() != nullptr)
        std::get_new_handler()();
    return block != nullptr ? block : throw std::bad_alloc();
}

void *operator new[](size_t size) {
    return operator new(size);
}

void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return malloc(size > 0 ? size : 1);
}

void *operator new[](size_t size, const std::nothrow_t &) noexcept {
    return malloc(size > 0 ? size : 1);
}
