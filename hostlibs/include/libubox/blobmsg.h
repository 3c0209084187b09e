/*
 * Named, typed values in attributes. The data of each starts with a 16-bit big-endian name length, the name
 * and a zero byte, padded together to a multiple of 4; then the value. Elements of an array have the empty
 * name.
 */
#ifndef LIBUBOX_BLOBMSG_H
#define LIBUBOX_BLOBMSG_H

#include <stdarg.h>
#include <stdbool.h>
#include <stdint.h>

#include "blob.h"

#define BLOBMSG_ALIGN 2
#define BLOBMSG_PADDING(len) (((len) + (1u << BLOBMSG_ALIGN) - 1) & ~((1u << BLOBMSG_ALIGN) - 1))

enum blobmsg_type {
    BLOBMSG_TYPE_UNSPEC,
    BLOBMSG_TYPE_ARRAY,
    BLOBMSG_TYPE_TABLE,
    BLOBMSG_TYPE_STRING,
    BLOBMSG_TYPE_INT64,
    BLOBMSG_TYPE_INT32,
    BLOBMSG_TYPE_INT16,
    BLOBMSG_TYPE_INT8,
    BLOBMSG_TYPE_DOUBLE,
    __BLOBMSG_TYPE_LAST,
    BLOBMSG_TYPE_LAST = __BLOBMSG_TYPE_LAST - 1,
    BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8,
    /* In a policy only: any of the integer types. */
    BLOBMSG_CAST_INT64 = __BLOBMSG_TYPE_LAST
};

struct blobmsg_hdr {
    uint16_t namelen;
    uint8_t name[];
} __attribute__((packed));

/* In blobmsg_parse an entry takes the attribute of this name; BLOBMSG_TYPE_UNSPEC takes any type. */
struct blobmsg_policy {
    const char *name;
    enum blobmsg_type type;
};

static inline int blobmsg_hdrlen(unsigned int namelen) {
    return (int)BLOBMSG_PADDING(sizeof(struct blobmsg_hdr) + namelen + 1);
}

static inline int blobmsg_type(const struct blob_attr *attr) {
    return (int)blob_id(attr);
}

/*
 * The parts of an attribute whose own length is sound. A name that does not fit its attribute reads as "",
 * and the value as empty. An attribute that is not extended is all value.
 */
const char *blobmsg_name(const struct blob_attr *attr);
void *blobmsg_data(const struct blob_attr *attr);
size_t blobmsg_data_len(const struct blob_attr *attr);

/* Length of name header and value. */
static inline size_t blobmsg_len(const struct blob_attr *attr) {
    return blob_len(attr);
}

/*
 * Whether name and value are sound: the name ends inside the attribute, the type is known, numbers have the
 * size of their type, text ends with its zero. `name`: the name must not be empty. Contents of tables are not
 * looked at.
 */
bool blobmsg_check_attr(const struct blob_attr *attr, bool name);

/* The same for an attribute that stands in `len` bytes from outside. */
bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len);

/* Number of elements when this is an array or table of only that type (UNSPEC: any), else -1. */
int blobmsg_check_array(const struct blob_attr *attr, int type);
int blobmsg_check_array_len(const struct blob_attr *attr, int type, size_t len);
bool blobmsg_check_attr_list(const struct blob_attr *attr, int type);
bool blobmsg_check_attr_list_len(const struct blob_attr *attr, int type, size_t len);

/*
 * Finds each policy entry's attribute in a list of `len` bytes: tb[i] is null where it is missing or of
 * another type; the first of a name counts. 0, or -1 for an empty list or at the first attribute that is no
 * value; a list that is cut off gives what precedes the damage.
 */
int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb, void *data,
                  unsigned int len);

/* The same by position: tb[i] is the i-th element when it has the type of policy[i]. */
int blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
                        void *data, unsigned int len);

/* Appends a value; null names are empty. 0, or -1 without memory or beyond the limits of the form. */
int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data, unsigned int len);
int blobmsg_add_double(struct blob_buf *buf, const char *name, double val);

/* Opens a table or array that takes what is added until it is closed. The cookie is null on failure. */
void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array);

static inline int blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t val) {
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &val, sizeof(val));
}

static inline int blobmsg_add_u16(struct blob_buf *buf, const char *name, uint16_t val) {
    val = cpu_to_be16(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT16, name, &val, sizeof(val));
}

static inline int blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t val) {
    val = cpu_to_be32(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &val, sizeof(val));
}

static inline int blobmsg_add_u64(struct blob_buf *buf, const char *name, uint64_t val) {
    val = cpu_to_be64(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &val, sizeof(val));
}

static inline int blobmsg_add_string(struct blob_buf *buf, const char *name, const char *string) {
    return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, string, (unsigned int)strlen(string) + 1);
}

/* Adds a copy of a value with its name. */
static inline int blobmsg_add_blob(struct blob_buf *buf, struct blob_attr *attr) {
    return blobmsg_add_field(buf, blobmsg_type(attr), blobmsg_name(attr), blobmsg_data(attr),
                             (unsigned int)blobmsg_data_len(attr));
}

static inline void *blobmsg_open_array(struct blob_buf *buf, const char *name) {
    return blobmsg_open_nested(buf, name, true);
}

static inline void *blobmsg_open_table(struct blob_buf *buf, const char *name) {
    return blobmsg_open_nested(buf, name, false);
}

static inline void blobmsg_close_array(struct blob_buf *buf, void *cookie) {
    blob_nest_end(buf, cookie);
}

static inline void blobmsg_close_table(struct blob_buf *buf, void *cookie) {
    blob_nest_end(buf, cookie);
}

static inline int blobmsg_buf_init(struct blob_buf *buf) {
    return blob_buf_init(buf, BLOBMSG_TYPE_TABLE);
}

/* Values that are too short for the type asked for read as 0. */
uint8_t blobmsg_get_u8(struct blob_attr *attr);
uint16_t blobmsg_get_u16(struct blob_attr *attr);
uint32_t blobmsg_get_u32(struct blob_attr *attr);
uint64_t blobmsg_get_u64(struct blob_attr *attr);
double blobmsg_get_double(struct blob_attr *attr);

/* Any of the integer types, widened by its type; others read as 0. */
uint64_t blobmsg_cast_u64(struct blob_attr *attr);
int64_t blobmsg_cast_s64(struct blob_attr *attr);

/* The text; null for a null attribute, "" when the value holds no terminator. */
char *blobmsg_get_string(struct blob_attr *attr);

static inline bool blobmsg_get_bool(struct blob_attr *attr) {
    return blobmsg_get_u8(attr) != 0;
}

/* Walks the values in a table, an array or a whole message (`attr` may be null). */
#define blobmsg_for_each_attr(pos, attr, rem)                            \
    for ((rem) = (__typeof__(rem))((attr) ? blobmsg_data_len(attr) : 0), \
        blob_walk(pos, (attr) ? blobmsg_data(attr) : NULL, rem))

#endif
