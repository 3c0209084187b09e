// Memory of a process that sleeps between cycles, and requests for it that were refused: counted where they
// are made, so that what was being built meanwhile can be given up as a whole instead of going out with a
// part missing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

// Before anything has been allocated: how the heap grows. C libraries other than glibc decide by themselves.
void telemetry_memory_keep_small();
// Free pages within the heap go back to the system: after work that took much more than what stays.
void telemetry_memory_give_back();

// From here on every refused request of C++, of cJSON and of libcrypto counts; before the latter's first one.
void telemetry_memory_watch();
// Counts what another library could not get, by its result.
void telemetry_memory_refused();
// The same when `errno` says so, after a call of the C library failed.
void telemetry_memory_refused_by_errno();
// Refused requests so far.
uint32_t telemetry_memory_failures();

// `count` zeroed records for free(); null, counted, when they are refused.
template <typename Record> Record *telemetry_zeroed(size_t count) {
    auto *const records = static_cast<Record *>(calloc(count, sizeof(Record)));
    if (records == nullptr)
        telemetry_memory_refused();
    return records;
}
