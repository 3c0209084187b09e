#include <algorithm>
#include <cstdlib>
#include <cstring>

extern "C" {
#include <libubox/blob.h>
}

// Cookies are offsets from the start of the buffer, which may move; the bias keeps them apart from null.
static constexpr uintptr_t cookie_bias = 0x1000;
// A length word has 24 bits and must be able to hold the padding as well.
static constexpr size_t max_total = BLOB_ATTR_LEN_MASK & ~static_cast<size_t>(BLOB_ATTR_ALIGN - 1);
static constexpr size_t grow_step = 256;

// Smallest sizes by type; numbers have exactly this size.
static constexpr unsigned int type_size[BLOB_ATTR_LAST] = {0, 0, 0, 1, 1, 2, 4, 8, 8};

static char *buf_base(const blob_buf *buf) {
    return static_cast<char *>(buf->buf);
}

// Bytes from the start of the buffer to the end of the attribute being filled.
static size_t used_bytes(const blob_buf *buf) {
    return static_cast<size_t>(reinterpret_cast<char *>(buf->head) - buf_base(buf)) + blob_pad_len(buf->head);
}

static bool grow_by_realloc(blob_buf *buf, int minlen) {
    size_t have = static_cast<size_t>(buf->buflen);
    size_t step = std::max({static_cast<size_t>(minlen), grow_step, have / 2});
    size_t size = have + step;
    size_t head = buf->head ? static_cast<size_t>(reinterpret_cast<char *>(buf->head) - buf_base(buf)) : 0;
    void *moved = std::realloc(buf->buf, size);
    if (!moved)
        return false;
    std::memset(static_cast<char *>(moved) + have, 0, size - have);
    buf->buf = moved;
    buf->buflen = static_cast<int>(size);
    if (buf->head)
        buf->head = reinterpret_cast<blob_attr *>(static_cast<char *>(moved) + head);
    return true;
}

static void init_attr(blob_attr *attr, int id, size_t raw_len) {
    uint32_t word = (static_cast<uint32_t>(id) << BLOB_ATTR_ID_SHIFT) & BLOB_ATTR_ID_MASK;
    attr->id_len = cpu_to_be32(word | (static_cast<uint32_t>(raw_len) & BLOB_ATTR_LEN_MASK));
}

// Appends an attribute whose length is `raw_len`, to the buffer only; the attribute around it does not know
// it yet.
static blob_attr *append_attr(blob_buf *buf, int id, size_t raw_len) {
    if (!buf->head || raw_len > max_total || !blob_buf_grow(buf, static_cast<int>(raw_len + BLOB_ATTR_ALIGN)))
        return nullptr;
    blob_attr *attr = blob_next(buf->head);
    init_attr(attr, id, raw_len);
    blob_fill_pad(attr);
    return attr;
}

static void extend_head(blob_buf *buf, size_t bytes) {
    blob_set_raw_len(buf->head, static_cast<unsigned int>(blob_pad_len(buf->head) + bytes));
}

int blob_buf_init(struct blob_buf *buf, int id) {
    if (!buf->grow)
        buf->grow = grow_by_realloc;
    buf->head = static_cast<blob_attr *>(buf->buf);
    if (static_cast<size_t>(buf->buflen) < sizeof(blob_attr) && !buf->grow(buf, sizeof(blob_attr)))
        return -1;
    buf->head = static_cast<blob_attr *>(buf->buf);
    init_attr(buf->head, id, sizeof(blob_attr));
    return 0;
}

void blob_buf_free(struct blob_buf *buf) {
    std::free(buf->buf);
    buf->head = nullptr;
    buf->buf = nullptr;
    buf->buflen = 0;
}

bool blob_buf_grow(struct blob_buf *buf, int required) {
    if (!buf->head || required < 0)
        return false;
    size_t wanted = used_bytes(buf) + static_cast<size_t>(required);
    if (wanted > max_total)
        return false;
    size_t have = static_cast<size_t>(buf->buflen);
    return wanted <= have || buf->grow(buf, static_cast<int>(wanted - have));
}

void blob_set_raw_len(struct blob_attr *attr, unsigned int len) {
    uint32_t word = be32_to_cpu(attr->id_len) & ~BLOB_ATTR_LEN_MASK;
    attr->id_len = cpu_to_be32(word | (len & BLOB_ATTR_LEN_MASK));
}

void blob_fill_pad(struct blob_attr *attr) {
    size_t raw = blob_raw_len(attr);
    std::memset(reinterpret_cast<char *>(attr) + raw, 0, blob_pad_len(attr) - raw);
}

struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload) {
    if (payload < 0)
        return nullptr;
    blob_attr *attr = append_attr(buf, id, sizeof(blob_attr) + static_cast<size_t>(payload));
    if (attr)
        extend_head(buf, blob_pad_len(attr));
    return attr;
}

struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len) {
    if (len > max_total)
        return nullptr;
    blob_attr *attr = blob_new(buf, id, static_cast<int>(len));
    if (attr && ptr && len)
        std::memcpy(blob_data(attr), ptr, len);
    else if (attr && len)
        std::memset(blob_data(attr), 0, len);
    return attr;
}

struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len) {
    size_t padded =
        (static_cast<size_t>(len) + BLOB_ATTR_ALIGN - 1) & ~static_cast<size_t>(BLOB_ATTR_ALIGN - 1);
    if (len < sizeof(blob_attr) || !ptr || padded > max_total ||
        !blob_buf_grow(buf, static_cast<int>(padded)))
        return nullptr;
    blob_attr *attr = blob_next(buf->head);
    std::memcpy(attr, ptr, len);
    std::memset(reinterpret_cast<char *>(attr) + len, 0, padded - len);
    extend_head(buf, padded);
    return attr;
}

void *blob_nest_start(struct blob_buf *buf, int id) {
    // The inner attribute is filled first; the outer one takes its length when it ends.
    blob_attr *attr = append_attr(buf, id, sizeof(blob_attr));
    if (!attr)
        return nullptr;
    size_t outer = static_cast<size_t>(reinterpret_cast<char *>(buf->head) - buf_base(buf));
    buf->head = attr;
    return reinterpret_cast<void *>(outer + cookie_bias);
}

void blob_nest_end(struct blob_buf *buf, void *cookie) {
    if (!cookie || !buf->head)
        return;
    blob_attr *inner = buf->head;
    buf->head =
        reinterpret_cast<blob_attr *>(buf_base(buf) + (reinterpret_cast<uintptr_t>(cookie) - cookie_bias));
    extend_head(buf, blob_pad_len(inner));
}

bool blob_check_type(const void *ptr, unsigned int len, int type) {
    if (type < 0 || type >= BLOB_ATTR_LAST)
        return false;
    if (len < type_size[type])
        return false;
    if (type >= BLOB_ATTR_INT8 && type <= BLOB_ATTR_INT64) // a double may be longer
        return len == type_size[type];
    return type != BLOB_ATTR_STRING || static_cast<const char *>(ptr)[len - 1] == 0;
}

int blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *, int max) {
    std::fill_n(data, max, nullptr);
    if (!attr)
        return 0;
    int found = 0;
    size_t rem = 0;
    blob_attr *pos = nullptr;
    blob_for_each_attr(pos, attr, rem) {
        int id = static_cast<int>(blob_id(pos));
        if (id >= max)
            continue;
        if (!data[id])
            found++;
        data[id] = pos;
    }
    return found;
}
