/*
 * Attributes: a 32-bit big-endian word (bit 31 "extended", bits 24-30 the id, bits 0-23 the length with these
 * 4 bytes and without padding) and data, padded with zeros to a multiple of 4 bytes. Attributes nest.
 */
#ifndef LIBUBOX_BLOB_H
#define LIBUBOX_BLOB_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "utils.h"

enum {
    BLOB_ATTR_UNSPEC,
    BLOB_ATTR_NESTED,
    BLOB_ATTR_BINARY,
    BLOB_ATTR_STRING,
    BLOB_ATTR_INT8,
    BLOB_ATTR_INT16,
    BLOB_ATTR_INT32,
    BLOB_ATTR_INT64,
    BLOB_ATTR_DOUBLE,
    BLOB_ATTR_LAST
};

#define BLOB_ATTR_ID_MASK 0x7f000000u
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffffu
#define BLOB_ATTR_ALIGN 4u
#define BLOB_ATTR_EXTENDED 0x80000000u

struct blob_attr {
    uint32_t id_len;
    char data[];
} __attribute__((packed));

/* Limits of attributes, which blob_parse does not know here: none can be made. */
struct blob_attr_info;

/* `head` is the attribute being filled. Starts as all zeros; `buf` keeps its memory from one init to the
 * next. */
struct blob_buf {
    struct blob_attr *head;
    bool (*grow)(struct blob_buf *buf, int minlen);
    int buflen;
    void *buf;
};

static inline void *blob_data(const struct blob_attr *attr) {
    return (void *)attr->data;
}

static inline unsigned int blob_id(const struct blob_attr *attr) {
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

static inline bool blob_is_extended(const struct blob_attr *attr) {
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_EXTENDED) != 0;
}

/* Length with the header, without padding. */
static inline size_t blob_raw_len(const struct blob_attr *attr) {
    return be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK;
}

/* Length of the data alone; 0 for a length word that does not even cover the header. */
static inline size_t blob_len(const struct blob_attr *attr) {
    size_t raw = blob_raw_len(attr);
    return raw < sizeof(struct blob_attr) ? 0 : raw - sizeof(struct blob_attr);
}

/* Length with header and padding. */
static inline size_t blob_pad_len(const struct blob_attr *attr) {
    return (blob_raw_len(attr) + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static inline struct blob_attr *blob_next(const struct blob_attr *attr) {
    return (struct blob_attr *)(void *)((char *)attr + blob_pad_len(attr));
}

/* Whether a whole attribute with its padding stands in the `rem` bytes at `attr`. */
static inline bool blob_attr_fits(const struct blob_attr *attr, size_t rem) {
    return rem >= sizeof(struct blob_attr) && blob_raw_len(attr) >= sizeof(struct blob_attr) &&
           blob_pad_len(attr) <= rem;
}

/* The integers are big-endian in the data; data that is too short reads as 0. */
static inline uint8_t blob_get_u8(const struct blob_attr *attr) {
    return blob_len(attr) < 1 ? 0 : (uint8_t)attr->data[0];
}

static inline uint16_t blob_get_u16(const struct blob_attr *attr) {
    uint16_t value = 0;
    if (blob_len(attr) >= sizeof(value))
        memcpy(&value, attr->data, sizeof(value));
    return be16_to_cpu(value);
}

static inline uint32_t blob_get_u32(const struct blob_attr *attr) {
    uint32_t value = 0;
    if (blob_len(attr) >= sizeof(value))
        memcpy(&value, attr->data, sizeof(value));
    return be32_to_cpu(value);
}

static inline uint64_t blob_get_u64(const struct blob_attr *attr) {
    uint64_t value = 0;
    if (blob_len(attr) >= sizeof(value))
        memcpy(&value, attr->data, sizeof(value));
    return be64_to_cpu(value);
}

static inline int8_t blob_get_int8(const struct blob_attr *attr) {
    return (int8_t)blob_get_u8(attr);
}

static inline int16_t blob_get_int16(const struct blob_attr *attr) {
    return (int16_t)blob_get_u16(attr);
}

static inline int32_t blob_get_int32(const struct blob_attr *attr) {
    return (int32_t)blob_get_u32(attr);
}

static inline int64_t blob_get_int64(const struct blob_attr *attr) {
    return (int64_t)blob_get_u64(attr);
}

/* The text; empty when the data holds no terminator. */
static inline const char *blob_get_string(const struct blob_attr *attr) {
    return memchr(attr->data, 0, blob_len(attr)) ? attr->data : "";
}

/* Start a message: `buf` becomes one empty attribute of that id. 0, or -1 without memory. */
int blob_buf_init(struct blob_buf *buf, int id);
void blob_buf_free(struct blob_buf *buf);

/* Makes room for `required` more bytes behind the ones in use. */
bool blob_buf_grow(struct blob_buf *buf, int required);

/* Sets the length word, keeping id and the extended bit. */
void blob_set_raw_len(struct blob_attr *attr, unsigned int len);

/* Zeroes the padding behind the data. */
void blob_fill_pad(struct blob_attr *attr);

/* Appends an empty attribute with room for `payload` bytes; null without memory or beyond 16 MiB in all. */
struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload);
struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len);

/* Appends ready-made attributes, `len` bytes in all. */
struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len);

/* What is put until blob_nest_end goes into a new attribute of that id. The cookie is null on failure. */
void *blob_nest_start(struct blob_buf *buf, int id);
void blob_nest_end(struct blob_buf *buf, void *cookie);

/* Whether `len` bytes at `ptr` can be a value of that BLOB_ATTR_ type. */
bool blob_check_type(const void *ptr, unsigned int len, int type);

/*
 * Sorts the attributes inside `attr` into `data[0..max)` by id; of several with one id the last stays. `info`
 * is null. Returns how many entries were filled.
 */
int blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *info, int max);

static inline struct blob_attr *blob_put_string(struct blob_buf *buf, int id, const char *str) {
    return blob_put(buf, id, str, (unsigned int)strlen(str) + 1);
}

static inline struct blob_attr *blob_put_u8(struct blob_buf *buf, int id, uint8_t val) {
    return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u16(struct blob_buf *buf, int id, uint16_t val) {
    val = cpu_to_be16(val);
    return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u32(struct blob_buf *buf, int id, uint32_t val) {
    val = cpu_to_be32(val);
    return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u64(struct blob_buf *buf, int id, uint64_t val) {
    val = cpu_to_be64(val);
    return blob_put(buf, id, &val, sizeof(val));
}

#define blob_put_int8 blob_put_u8
#define blob_put_int16 blob_put_u16
#define blob_put_int32 blob_put_u32
#define blob_put_int64 blob_put_u64

/* Steps of the walks below; the casts keep them free of warnings for any integer type of `rem`. */
#define blob_walk(pos, list, rem)       \
    (pos) = (struct blob_attr *)(list); \
    blob_attr_fits(pos, (size_t)(rem)); \
    (rem) = (__typeof__(rem))((size_t)(rem)-blob_pad_len(pos)), (pos) = blob_next(pos)

/* Walks the attributes in `rem` bytes from `list`, up to the first that does not fit; `rem` counts down. */
#define __blob_for_each_attr(pos, list, rem) for (blob_walk(pos, list, rem))

/* Walks the attributes inside `attr` (may be null); `rem` is a variable for the bytes that remain. */
#define blob_for_each_attr(pos, attr, rem)                       \
    for ((rem) = (__typeof__(rem))((attr) ? blob_len(attr) : 0), \
        blob_walk(pos, (attr) ? blob_data(attr) : NULL, rem))

#endif
