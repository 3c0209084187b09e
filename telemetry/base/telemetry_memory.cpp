#include "telemetry_memory.h"

#include <cerrno>
#include <cstdlib>
#include <new>

#include <cjson/cJSON.h>

static uint32_t failures;

static void *allocate_for_json(size_t size) {
    void *const block = malloc(size);
    if (block == nullptr)
        telemetry_memory_refused();
    return block;
}

void telemetry_memory_watch() {
    std::set_new_handler([] {
        telemetry_memory_refused();
        throw std::bad_alloc();
    });
    cJSON_Hooks hooks = {allocate_for_json, free};
    cJSON_InitHooks(&hooks);
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
