#include "telemetry_memory.h"

#include <cerrno>
#include <cstdlib>
#include <new>

#include <malloc.h>

#include <cjson/cJSON.h>
#include <openssl/crypto.h>

#include "telemetry_log.h"

static uint32_t failures;

static void *allocate(size_t size) {
    void *const block = malloc(size);
    if (block == nullptr)
        telemetry_memory_refused();
    return block;
}

static void *allocate_for_crypto(size_t size, const char * /*file*/, int /*line*/) {
    return size == 0 ? nullptr : allocate(size);
}

static void *reallocate_for_crypto(void *block, size_t size, const char * /*file*/, int /*line*/) {
    if (size == 0) {
        free(block);
        return nullptr;
    }
    void *const moved = realloc(block, size);
    if (moved == nullptr)
        telemetry_memory_refused();
    return moved;
}

static void free_for_crypto(void *block, const char * /*file*/, int /*line*/) {
    free(block);
}

// From 16 KiB on a buffer gets pages of its own: it leaves no hole in the heap when it goes, and what an idle
// slot never writes to takes no memory. The heap grows by little more than it needs, and what is free at its
// end goes back.
void telemetry_memory_keep_small() {
#ifdef M_MMAP_THRESHOLD
    mallopt(M_MMAP_THRESHOLD, 16384);
    mallopt(M_TOP_PAD, 4096);
    mallopt(M_TRIM_THRESHOLD, 16384);
#endif
}

// A small block at its end keeps the heap as long as it was.
void telemetry_memory_give_back() {
#ifdef M_MMAP_THRESHOLD
    malloc_trim(0);
#endif
}

void telemetry_memory_watch() {
    std::set_new_handler([] {
        telemetry_memory_refused();
        throw std::bad_alloc();
    });
    cJSON_Hooks hooks = {allocate, free};
    cJSON_InitHooks(&hooks);
    if (CRYPTO_set_mem_functions(allocate_for_crypto, reallocate_for_crypto, free_for_crypto) != 1)
        LOG_ERROR("libcrypto's requests for memory are not counted");
}

void telemetry_memory_refused() {
    failures++;
}

void telemetry_memory_refused_by_errno() {
    if (errno == ENOMEM)
        telemetry_memory_refused();
}

uint32_t telemetry_memory_failures() {
    return failures;
}
