// Requests for memory that were refused: counted where they are made, so that what was being built meanwhile
// can be given up as a whole instead of going out with a part missing.
#pragma once

#include <cstdint>

// From here on every refused request of C++ and of cJSON counts.
void telemetry_memory_watch();
// Counts what another library could not get, by its result.
void telemetry_memory_refused();
// The same when `errno` says so, after a call of the C library failed.
void telemetry_memory_refused_by_errno();
// Refused requests so far.
uint32_t telemetry_memory_failures();
