#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

extern "C" {
#include <libubox/blobmsg.h>
}

// What a value of each blobmsg type is in terms of plain attributes; UNSPEC for "anything".
static constexpr int value_kind[__BLOBMSG_TYPE_LAST] = {
    BLOB_ATTR_UNSPEC, BLOB_ATTR_NESTED, BLOB_ATTR_NESTED, BLOB_ATTR_STRING, BLOB_ATTR_INT64,
    BLOB_ATTR_INT32,  BLOB_ATTR_INT16,  BLOB_ATTR_INT8,   BLOB_ATTR_DOUBLE,
};
static constexpr size_t max_name = UINT16_MAX;
static constexpr size_t max_value = BLOB_ATTR_LEN_MASK;

struct attr_parts {
    bool sound;
    std::string_view name;
    const char *value;
    size_t value_len;
};

// Finds name and value; looks only at the bytes that the attribute's own length covers.
static attr_parts split_attr(const blob_attr *attr) {
    const char *data = attr->data;
    size_t len = blob_len(attr);
    if (!blob_is_extended(attr))
        return {true, {}, data, len};
    attr_parts broken = {false, {}, data + len, 0};
    if (len < sizeof(blobmsg_hdr) + 1)
        return broken;
    size_t name_len = static_cast<size_t>(static_cast<uint8_t>(data[0])) << 8 | static_cast<uint8_t>(data[1]);
    size_t header = static_cast<size_t>(blobmsg_hdrlen(static_cast<unsigned int>(name_len)));
    if (header > len || data[sizeof(blobmsg_hdr) + name_len] != 0)
        return broken;
    return {true, {data + sizeof(blobmsg_hdr), name_len}, data + header, len - header};
}

template <typename T> static T read_value(const blob_attr *attr) {
    T value = 0;
    attr_parts parts = split_attr(attr);
    if (parts.value_len >= sizeof(value))
        std::memcpy(&value, parts.value, sizeof(value));
    return value;
}

static bool type_matches(int wanted, int type) {
    if (wanted == BLOBMSG_CAST_INT64)
        return type >= BLOBMSG_TYPE_INT64 && type <= BLOBMSG_TYPE_INT8;
    return wanted == BLOBMSG_TYPE_UNSPEC || wanted == type;
}

static void write_name(blob_attr *attr, std::string_view name, size_t header) {
    attr->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
    char *data = static_cast<char *>(blob_data(attr));
    std::memset(data, 0, header);
    data[0] = static_cast<char>(name.size() >> 8);
    data[1] = static_cast<char>(name.size() & 0xff);
    std::copy(name.begin(), name.end(), data + sizeof(blobmsg_hdr));
}

// Whether all of `len` bytes at `pos` are attributes; up to 3 bytes behind the last are nobody's.
template <typename F> static bool walk_list(void *data, size_t len, F &&visit) {
    auto *pos = static_cast<blob_attr *>(data);
    while (len >= sizeof(blob_attr)) {
        if (!blob_attr_fits(pos, len) || !blobmsg_check_attr(pos, false) || !visit(pos))
            return false;
        len -= blob_pad_len(pos);
        pos = blob_next(pos);
    }
    return true;
}

const char *blobmsg_name(const struct blob_attr *attr) {
    attr_parts parts = split_attr(attr);
    return parts.name.data() ? parts.name.data() : "";
}

void *blobmsg_data(const struct blob_attr *attr) {
    return const_cast<char *>(split_attr(attr).value);
}

size_t blobmsg_data_len(const struct blob_attr *attr) {
    return split_attr(attr).value_len;
}

bool blobmsg_check_attr(const struct blob_attr *attr, bool name) {
    attr_parts parts = split_attr(attr);
    int type = blobmsg_type(attr);
    if (!blob_is_extended(attr) || !parts.sound || type >= __BLOBMSG_TYPE_LAST ||
        (name && parts.name.empty()))
        return false;
    return value_kind[type] == BLOB_ATTR_UNSPEC ||
           blob_check_type(parts.value, static_cast<unsigned int>(parts.value_len), value_kind[type]);
}

bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len) {
    // The padding of the last attribute may be missing.
    return len >= sizeof(blob_attr) && blob_raw_len(attr) >= sizeof(blob_attr) && blob_raw_len(attr) <= len &&
           blobmsg_check_attr(attr, name);
}

int blobmsg_check_array(const struct blob_attr *attr, int type) {
    int kind = blobmsg_type(attr);
    if ((kind != BLOBMSG_TYPE_ARRAY && kind != BLOBMSG_TYPE_TABLE) || !blobmsg_check_attr(attr, false))
        return -1;
    int count = 0;
    bool sound = walk_list(blobmsg_data(attr), blobmsg_data_len(attr), [&](blob_attr *pos) {
        count++;
        return type_matches(type, blobmsg_type(pos)) &&
               (kind == BLOBMSG_TYPE_ARRAY || blobmsg_check_attr(pos, true));
    });
    return sound ? count : -1;
}

int blobmsg_check_array_len(const struct blob_attr *attr, int type, size_t len) {
    return blobmsg_check_attr_len(attr, false, len) ? blobmsg_check_array(attr, type) : -1;
}

bool blobmsg_check_attr_list(const struct blob_attr *attr, int type) {
    return blobmsg_check_array(attr, type) >= 0;
}

bool blobmsg_check_attr_list_len(const struct blob_attr *attr, int type, size_t len) {
    return blobmsg_check_array_len(attr, type, len) >= 0;
}

// The same for a parse: a list that is cut off ends early and counts as sound, an attribute that is none does
// not.
template <typename F> static int parse_list(void *data, size_t len, F &&visit) {
    auto *pos = static_cast<blob_attr *>(data);
    for (; blob_attr_fits(pos, len); pos = blob_next(pos)) {
        if (!blobmsg_check_attr(pos, false))
            return -1;
        visit(pos);
        len -= blob_pad_len(pos);
    }
    return 0;
}

int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb, void *data,
                  unsigned int len) {
    std::fill_n(tb, policy_len, nullptr);
    if (!data || !len)
        return -1;
    return parse_list(data, len, [&](blob_attr *pos) {
        std::string_view name = split_attr(pos).name;
        for (int i = 0; i < policy_len; i++) {
            if (policy[i].name && !tb[i] && type_matches(policy[i].type, blobmsg_type(pos)) &&
                name == policy[i].name)
                tb[i] = pos;
        }
    });
}

int blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
                        void *data, unsigned int len) {
    std::fill_n(tb, policy_len, nullptr);
    if (!data || !len)
        return -1;
    int i = 0;
    return parse_list(data, len, [&](blob_attr *pos) {
        if (i < policy_len && type_matches(policy[i].type, blobmsg_type(pos)))
            tb[i] = pos;
        i++;
    });
}

int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data, unsigned int len) {
    std::string_view text = name ? name : "";
    if (text.size() > max_name || len > max_value)
        return -1;
    size_t header = static_cast<size_t>(blobmsg_hdrlen(static_cast<unsigned int>(text.size())));
    blob_attr *attr = blob_new(buf, type, static_cast<int>(header + len));
    if (!attr)
        return -1;
    write_name(attr, text, header);
    if (data && len)
        std::memcpy(blobmsg_data(attr), data, len);
    else if (len)
        std::memset(blobmsg_data(attr), 0, len);
    return 0;
}

int blobmsg_add_double(struct blob_buf *buf, const char *name, double val) {
    uint64_t bits = 0;
    std::memcpy(&bits, &val, sizeof(bits));
    bits = cpu_to_be64(bits);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &bits, sizeof(bits));
}

void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array) {
    std::string_view text = name ? name : "";
    if (text.size() > max_name)
        return nullptr;
    size_t header = static_cast<size_t>(blobmsg_hdrlen(static_cast<unsigned int>(text.size())));
    // Room for the name first, so that a failure leaves nothing half open.
    if (!blob_buf_grow(buf, static_cast<int>(header + 2 * sizeof(blob_attr))))
        return nullptr;
    void *cookie = blob_nest_start(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE);
    if (!cookie)
        return nullptr;
    blob_set_raw_len(buf->head, static_cast<unsigned int>(sizeof(blob_attr) + header));
    write_name(buf->head, text, header);
    return cookie;
}

uint8_t blobmsg_get_u8(struct blob_attr *attr) {
    return read_value<uint8_t>(attr);
}

uint16_t blobmsg_get_u16(struct blob_attr *attr) {
    return be16_to_cpu(read_value<uint16_t>(attr));
}

uint32_t blobmsg_get_u32(struct blob_attr *attr) {
    return be32_to_cpu(read_value<uint32_t>(attr));
}

uint64_t blobmsg_get_u64(struct blob_attr *attr) {
    return be64_to_cpu(read_value<uint64_t>(attr));
}

double blobmsg_get_double(struct blob_attr *attr) {
    uint64_t bits = blobmsg_get_u64(attr);
    double value = 0;
    std::memcpy(&value, &bits, sizeof(value));
    return value;
}

uint64_t blobmsg_cast_u64(struct blob_attr *attr) {
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_INT8:
        return blobmsg_get_u8(attr);
    case BLOBMSG_TYPE_INT16:
        return blobmsg_get_u16(attr);
    case BLOBMSG_TYPE_INT32:
        return blobmsg_get_u32(attr);
    case BLOBMSG_TYPE_INT64:
        return blobmsg_get_u64(attr);
    default:
        return 0;
    }
}

int64_t blobmsg_cast_s64(struct blob_attr *attr) {
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_INT8:
        return static_cast<int8_t>(blobmsg_get_u8(attr));
    case BLOBMSG_TYPE_INT16:
        return static_cast<int16_t>(blobmsg_get_u16(attr));
    case BLOBMSG_TYPE_INT32:
        return static_cast<int32_t>(blobmsg_get_u32(attr));
    default:
        return static_cast<int64_t>(blobmsg_cast_u64(attr));
    }
}

char *blobmsg_get_string(struct blob_attr *attr) {
    static char empty[] = "";
    if (!attr)
        return nullptr;
    attr_parts parts = split_attr(attr);
    return std::memchr(parts.value, 0, parts.value_len) ? const_cast<char *>(parts.value) : empty;
}
