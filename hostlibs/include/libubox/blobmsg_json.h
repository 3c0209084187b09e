/* Between blobmsg values and JSON. */
#ifndef LIBUBOX_BLOBMSG_JSON_H
#define LIBUBOX_BLOBMSG_JSON_H

#include <stdbool.h>

#include "blobmsg.h"

struct json_object;

/*
 * Add JSON values to a message: integers within the signed 32-bit range as int32 and others as int64,
 * booleans as int8, reals as double, null as type 0. False (and nothing added) for anything but an object,
 * for bad text, for values nested too deeply or for a message that becomes too long.
 */
bool blobmsg_add_object(struct blob_buf *b, struct json_object *obj);
bool blobmsg_add_json_from_string(struct blob_buf *b, const char *str);
bool blobmsg_add_json_from_file(struct blob_buf *b, const char *file);

/*
 * The JSON text of a message or value, to be released with free. `list`: the contents as an object (an array
 * for a value that is one); else the value with its name in front. `indent` < 0: compact; else that many tabs
 * around it. int8 prints as true or false. Malformed values are left out; null without memory or when nested
 * too deeply.
 */
char *blobmsg_format_json_indent(struct blob_attr *attr, bool list, int indent);

static inline char *blobmsg_format_json(struct blob_attr *attr, bool list) {
    return blobmsg_format_json_indent(attr, list, -1);
}

/* The value alone, without its name, compact. */
char *blobmsg_format_json_value(struct blob_attr *attr);

#endif
