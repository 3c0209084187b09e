// Printing of cJSON trees with the number rule of the wire format: "%d" when the value is integral and within
// the signed 32-bit range, "%.2f" otherwise, null when it is not finite. Layout and escapes are cJSON's own;
// what is no UTF-8 in a text or key becomes U+FFFD, one for each malformed sequence.
#pragma once

#include <cstddef>

#include "telemetry_handles.h"

// Compact text, zero-terminated; `length` (may be null) receives its length without the zero. Null for a null
// or invalid tree or when memory runs out.
TextPtr telemetry_json_print(const cJSON *item, size_t *length = nullptr);

// The same into `buffer` of `size` bytes, without measuring it first: its length, 0 when it does not fit.
size_t telemetry_json_print_to(const cJSON *item, char *buffer, size_t size);

// The same as telemetry_json_print with line breaks and tabs, for people.
TextPtr telemetry_json_print_formatted(const cJSON *item);

// Length of the compact text without making it: -1 for a null or invalid tree.
long telemetry_json_length(const cJSON *item);
