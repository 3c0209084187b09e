#include "ubus_frame.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::array<int, UBUS_ATTR_MAX> attr_types = {
    BLOB_ATTR_UNSPEC, // 0
    BLOB_ATTR_INT32,  // STATUS
    BLOB_ATTR_STRING, // OBJPATH
    BLOB_ATTR_INT32,  // OBJID
    BLOB_ATTR_STRING, // METHOD
    BLOB_ATTR_INT32,  // OBJTYPE
    BLOB_ATTR_NESTED, // SIGNATURE
    BLOB_ATTR_NESTED, // DATA
    BLOB_ATTR_INT32,  // TARGET
    BLOB_ATTR_INT8,   // ACTIVE
    BLOB_ATTR_INT8,   // NO_REPLY
    BLOB_ATTR_NESTED, // SUBSCRIBERS
    BLOB_ATTR_STRING, // USER
    BLOB_ATTR_STRING, // GROUP
};

constexpr size_t padded(size_t len) {
    return (len + BLOB_ATTR_ALIGN - 1) & ~static_cast<size_t>(BLOB_ATTR_ALIGN - 1);
}

bool attr_is_of_type(const blob_attr *attr, int type) {
    size_t len = blob_len(attr);
    switch (type) {
    case BLOB_ATTR_INT8:
        return len == sizeof(uint8_t);
    case BLOB_ATTR_INT32:
        return len == sizeof(uint32_t);
    case BLOB_ATTR_STRING:
        return len > 0 && std::memchr(attr->data, 0, len) == attr->data + len - 1;
    default:
        return true;
    }
}

// False when the head cannot start a message.
bool reader_open_body(bus_reader &reader) {
    ubus_msghdr hdr;
    uint32_t word;
    std::memcpy(&hdr, reader.head.data(), sizeof(hdr));
    std::memcpy(&word, reader.head.data() + sizeof(hdr), sizeof(word));
    word = be32_to_cpu(word);
    size_t len = word & BLOB_ATTR_LEN_MASK;
    if (hdr.version != UBUS_MSG_VERSION || (word & ~BLOB_ATTR_LEN_MASK) != 0)
        return false;
    if (len < sizeof(blob_attr) || len > UBUS_MAX_MSGLEN)
        return false;

    reader.body_len = padded(len);
    reader.frame.type = hdr.type;
    reader.frame.seq = be16_to_cpu(hdr.seq);
    reader.frame.peer = be32_to_cpu(hdr.peer);
    // The body grows as it arrives: a length word alone costs the receiver nothing.
    reader.frame.body.assign(reader.head.begin() + sizeof(hdr), reader.head.end());
    return true;
}

} // namespace

bus_read bus_reader_take(bus_reader &reader, std::string_view &in, bus_frame &out) {
    if (reader.head_len < reader.head.size()) {
        size_t take = std::min(reader.head.size() - reader.head_len, in.size());
        std::copy_n(in.begin(), take, reader.head.begin() + static_cast<std::ptrdiff_t>(reader.head_len));
        in.remove_prefix(take);
        reader.head_len += take;
        // Garbage is told by its first byte, not only when there is enough of it.
        if (reader.head_len > 0 && reader.head[0] != UBUS_MSG_VERSION)
            return bus_read::broken;
        if (reader.head_len < reader.head.size())
            return bus_read::more;
        if (!reader_open_body(reader))
            return bus_read::broken;
    }

    std::vector<char> &body = reader.frame.body;
    size_t take = std::min(reader.body_len - body.size(), in.size());
    body.insert(body.end(), in.begin(), in.begin() + take);
    in.remove_prefix(take);
    if (body.size() < reader.body_len)
        return bus_read::more;

    out = std::move(reader.frame);
    reader.frame = {};
    reader.head_len = 0;
    return bus_read::message;
}

bool bus_attrs_parse(blob_attr *body, bus_attrs &attrs) {
    attrs = {};
    char *pos = body->data;
    size_t left = blob_len(body);
    while (left > 0) {
        auto *attr = reinterpret_cast<blob_attr *>(pos);
        if (!blob_attr_fits(attr, left))
            return false;
        size_t id = blob_id(attr);
        if (id < attrs.at.size()) {
            if (!attr_is_of_type(attr, attr_types[id]))
                return false;
            attrs.at[id] = attr;
        }
        pos += blob_pad_len(attr);
        left -= blob_pad_len(attr);
    }
    return true;
}

void bus_put(bus_builder &out, int id, const void *data, size_t len) {
    uint32_t word = cpu_to_be32(static_cast<uint32_t>(id) << BLOB_ATTR_ID_SHIFT |
                                (static_cast<uint32_t>(sizeof(blob_attr) + len) & BLOB_ATTR_LEN_MASK));
    size_t start = out.bytes.size();
    out.bytes.resize(start + sizeof(word) + padded(len));
    std::memcpy(out.bytes.data() + start, &word, sizeof(word));
    if (len > 0)
        std::memcpy(out.bytes.data() + start + sizeof(word), data, len);
}

void bus_put_u8(bus_builder &out, int id, uint8_t value) {
    bus_put(out, id, &value, sizeof(value));
}

void bus_put_u32(bus_builder &out, int id, uint32_t value) {
    value = cpu_to_be32(value);
    bus_put(out, id, &value, sizeof(value));
}

void bus_put_text(bus_builder &out, int id, std::string_view text) {
    std::vector<char> zero_ended(text.begin(), text.end());
    zero_ended.push_back('\0');
    bus_put(out, id, zero_ended.data(), zero_ended.size());
}

void bus_put_data(bus_builder &out, int id, const blob_attr *attr) {
    if (attr)
        bus_put(out, id, attr->data, blob_len(attr));
}

bool bus_finish(bus_builder &out, uint8_t type, uint16_t seq, uint32_t peer) {
    size_t len = out.bytes.size() - bus_header_size;
    if (len > UBUS_MAX_MSGLEN)
        return false;
    ubus_msghdr hdr = {UBUS_MSG_VERSION, type, cpu_to_be16(seq), cpu_to_be32(peer)};
    uint32_t word = cpu_to_be32(static_cast<uint32_t>(len));
    std::memcpy(out.bytes.data(), &hdr, sizeof(hdr));
    std::memcpy(out.bytes.data() + sizeof(hdr), &word, sizeof(word));
    return true;
}
