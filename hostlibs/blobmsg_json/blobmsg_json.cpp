#include <cinttypes>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

#include <json-c/json.h>

extern "C" {
#include <libubox/blobmsg_json.h>
}

// Deepest nesting either way; both directions recurse.
static constexpr int max_depth = 128;

struct json_release {
    void operator()(json_object *obj) const {
        json_object_put(obj);
    }
};
using json_handle = std::unique_ptr<json_object, json_release>;

static bool add_element(blob_buf *b, const char *name, json_object *obj, int depth);

static bool add_members(blob_buf *b, json_object *obj, int depth) {
    json_object_object_foreach(obj, key, value) {
        if (!add_element(b, key, value, depth))
            return false;
    }
    return true;
}

static bool add_elements(blob_buf *b, json_object *obj, int depth) {
    size_t count = json_object_array_length(obj);
    for (size_t i = 0; i < count; i++) {
        if (!add_element(b, nullptr, json_object_array_get_idx(obj, i), depth))
            return false;
    }
    return true;
}

static bool add_nested(blob_buf *b, const char *name, json_object *obj, int depth) {
    bool array = json_object_is_type(obj, json_type_array);
    void *cookie = depth < max_depth ? blobmsg_open_nested(b, name, array) : nullptr;
    if (!cookie)
        return false;
    bool added = array ? add_elements(b, obj, depth + 1) : add_members(b, obj, depth + 1);
    blob_nest_end(b, cookie);
    return added;
}

static bool add_element(blob_buf *b, const char *name, json_object *obj, int depth) {
    switch (json_object_get_type(obj)) {
    case json_type_null:
        return blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, name, nullptr, 0) == 0;
    case json_type_boolean:
        return blobmsg_add_u8(b, name, json_object_get_boolean(obj) != 0) == 0;
    case json_type_double:
        return blobmsg_add_double(b, name, json_object_get_double(obj)) == 0;
    case json_type_string:
        return blobmsg_add_string(b, name, json_object_get_string(obj)) == 0;
    case json_type_int: {
        int64_t value = json_object_get_int64(obj);
        if (value >= INT32_MIN && value <= INT32_MAX)
            return blobmsg_add_u32(b, name, static_cast<uint32_t>(value)) == 0;
        return blobmsg_add_u64(b, name, static_cast<uint64_t>(value)) == 0;
    }
    case json_type_object:
    case json_type_array:
        return add_nested(b, name, obj, depth);
    }
    return false;
}

// Takes back what a failed conversion has added; the attribute being filled is the same again by then.
template <typename F> static bool add_or_undo(blob_buf *b, F &&add) {
    if (!b->head)
        return false;
    auto before = static_cast<unsigned int>(blob_raw_len(b->head));
    if (add())
        return true;
    blob_set_raw_len(b->head, before);
    return false;
}

bool blobmsg_add_object(struct blob_buf *b, struct json_object *obj) {
    if (!json_object_is_type(obj, json_type_object))
        return false;
    return add_or_undo(b, [&] { return add_members(b, obj, 0); });
}

bool blobmsg_add_json_from_string(struct blob_buf *b, const char *str) {
    // The parser has a depth limit of its own and gives null beyond it.
    json_handle obj(str ? json_tokener_parse(str) : nullptr);
    return obj && blobmsg_add_object(b, obj.get());
}

bool blobmsg_add_json_from_file(struct blob_buf *b, const char *file) {
    json_handle obj(file ? json_object_from_file(file) : nullptr);
    return obj && blobmsg_add_object(b, obj.get());
}
