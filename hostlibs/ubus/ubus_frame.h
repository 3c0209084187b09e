// Messages of the bus as bytes: taking them apart and putting them together. Shared by the client and the
// daemon.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string_view>
#include <vector>

extern "C" {
#include <libubox/blob.h>
}
#include <ubusmsg.h>

constexpr size_t bus_header_size = sizeof(ubus_msghdr);

// One received message. `body` is the attribute of id 0 with its padding; its length word has been checked.
struct bus_frame {
    uint8_t type = 0;
    uint16_t seq = 0;
    uint32_t peer = 0;
    std::vector<char> body;

    blob_attr *attr() {
        return reinterpret_cast<blob_attr *>(body.data());
    }
    const blob_attr *attr() const {
        return reinterpret_cast<const blob_attr *>(body.data());
    }
};

// The message that is arriving. At most one message of the allowed length is held.
struct bus_reader {
    std::array<char, bus_header_size + sizeof(blob_attr)> head{};
    size_t head_len = 0;
    size_t body_len = 0; // of the whole body, known once the head is complete
    bus_frame frame;
};

enum class bus_read { more, message, broken };

// Takes bytes off `in`. `message`: `out` is complete and `in` may hold more; `more`: `in` is used up;
// `broken`: the stream has another version, a bad length word or more than UBUS_MAX_MSGLEN, and cannot be
// read on.
bus_read bus_reader_take(bus_reader &reader, std::string_view &in, bus_frame &out);

// The attributes of a message by id, null where absent.
struct bus_attrs {
    std::array<blob_attr *, UBUS_ATTR_MAX> at{};

    blob_attr *operator[](int id) const {
        return at[static_cast<size_t>(id)];
    }
    uint32_t u32(int id) const {
        return blob_get_u32((*this)[id]);
    }
    const char *text(int id) const {
        return blob_get_string((*this)[id]);
    }
};

// Sorts `body` (the attribute of id 0, whole) into `attrs`. False when an attribute leaves the body or is not
// of its type; `attrs` then has those that are sound.
bool bus_attrs_parse(blob_attr *body, bus_attrs &attrs);

// A table that is being filled, freed with its scope.
struct bus_table : blob_buf {
    bus_table() : blob_buf{} {
        if (blob_buf_init(this, 0) != 0)
            throw std::bad_alloc();
    }
    ~bus_table() {
        blob_buf_free(this);
    }
    bus_table(const bus_table &) = delete;
    bus_table &operator=(const bus_table &) = delete;
};

// A message that is being written.
struct bus_builder {
    std::vector<char> bytes = std::vector<char>(bus_header_size + sizeof(blob_attr));
};

void bus_put(bus_builder &out, int id, const void *data, size_t len);
void bus_put_u8(bus_builder &out, int id, uint8_t value);
void bus_put_u32(bus_builder &out, int id, uint32_t value);
void bus_put_text(bus_builder &out, int id, std::string_view text);

// The data of `attr` under another id; null puts nothing.
void bus_put_data(bus_builder &out, int id, const blob_attr *attr);

// Writes the header. False when the message is longer than UBUS_MAX_MSGLEN: it must not be sent.
bool bus_finish(bus_builder &out, uint8_t type, uint16_t seq, uint32_t peer);
