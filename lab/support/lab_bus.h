// The base libraries' headers, some of which leave the linkage to whoever includes them.
#pragma once

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
#include <libubus.h>
}
