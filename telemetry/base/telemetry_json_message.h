// Answers of services as JSON trees, without a text in between.
#pragma once

#include "telemetry_handles.h"
#include "telemetry_platform_libs.h"

// The tree that parsing the message's JSON text (blobmsg_format_json) would give; null where that text is no
// JSON (numbers that are not finite, members without a name, damaged attributes), when it is nested too deep,
// and when memory ran out.
JsonPtr telemetry_json_of_message(blob_attr *message);
