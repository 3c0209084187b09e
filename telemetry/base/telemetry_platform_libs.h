// The platform's base libraries. The libubox headers are plain C without a guard of their own.
#pragma once

extern "C" {
#include <libubox/blob.h>
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
}
#include <libubus.h>
#include <uci.h>

// The record that embeds a timer or list node, from the address of that member. The record is standard
// layout.
#define TELEMETRY_RECORD_OF(pointer, Record, member) \
    (reinterpret_cast<Record *>(reinterpret_cast<char *>(pointer) - offsetof(Record, member)))
