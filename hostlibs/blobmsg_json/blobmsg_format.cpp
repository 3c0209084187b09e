#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
#include <libubox/blobmsg_json.h>
}

// Deepest nesting that is printed; values come from the bus and printing recurses.
static constexpr int max_depth = 128;
// Deeper levels are indented no further.
static constexpr int max_tabs = 16;
// "%lf" of the largest double has 316 characters.
static constexpr size_t number_size = 336;

// The text so far, in memory for the caller to free. Once `failed`, nothing is added any more.
struct json_text {
    char *text;
    size_t len;
    size_t room;
    bool failed;
    bool pretty;
    int indent;
    int depth;
};

static void put_bytes(json_text *out, const char *bytes, size_t len) {
    if (out->failed)
        return;
    if (out->room - out->len <= len) {
        size_t room = (out->room + len + 1) * 2;
        auto *moved = static_cast<char *>(std::realloc(out->text, room));
        if (!moved) {
            out->failed = true;
            return;
        }
        out->text = moved;
        out->room = room;
    }
    std::memcpy(out->text + out->len, bytes, len);
    out->len += len;
    out->text[out->len] = 0;
}

static void put_text(json_text *out, const char *text) {
    put_bytes(out, text, std::strlen(text));
}

static char short_escape(char c) {
    switch (c) {
    case '\b':
        return 'b';
    case '\n':
        return 'n';
    case '\r':
        return 'r';
    case '\t':
        return 't';
    case '"':
    case '\\':
        return c;
    default:
        return 0;
    }
}

static void put_string(json_text *out, const char *text, size_t len) {
    put_text(out, "\"");
    size_t plain = 0;
    for (size_t i = 0; i < len; i++) {
        auto c = static_cast<unsigned char>(text[i]);
        char escaped = short_escape(text[i]);
        if (c >= 0x20 && !escaped)
            continue;
        put_bytes(out, text + plain, i - plain);
        plain = i + 1;
        char sequence[8];
        if (escaped)
            std::snprintf(sequence, sizeof(sequence), "\\%c", escaped);
        else
            std::snprintf(sequence, sizeof(sequence), "\\u%04x", c);
        put_text(out, sequence);
    }
    put_bytes(out, text + plain, len - plain);
    put_text(out, "\"");
}

static void put_line_break(json_text *out) {
    if (!out->pretty)
        return;
    put_text(out, "\n");
    for (int i = 0; i < out->indent && i < max_tabs; i++)
        put_text(out, "\t");
}

static void put_name(json_text *out, const blob_attr *attr) {
    const char *name = blobmsg_name(attr);
    put_string(out, name, std::strlen(name));
    put_text(out, out->pretty ? ": " : ":");
}

static void put_number(json_text *out, blob_attr *attr) {
    char number[number_size];
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_INT16:
        std::snprintf(number, sizeof(number), "%d", static_cast<int16_t>(blobmsg_get_u16(attr)));
        break;
    case BLOBMSG_TYPE_INT32:
        std::snprintf(number, sizeof(number), "%d", static_cast<int32_t>(blobmsg_get_u32(attr)));
        break;
    case BLOBMSG_TYPE_INT64:
        std::snprintf(number, sizeof(number), "%" PRId64, static_cast<int64_t>(blobmsg_get_u64(attr)));
        break;
    default:
        // Infinities and the like are not JSON; readers of the original's text meet them all the same.
        std::snprintf(number, sizeof(number), "%lf", blobmsg_get_double(attr));
        break;
    }
    put_text(out, number);
}

static void put_list(json_text *out, blob_attr *attr, bool array);

static void put_value(json_text *out, blob_attr *attr) {
    const char *text = nullptr;
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_UNSPEC:
        put_text(out, "null");
        break;
    case BLOBMSG_TYPE_INT8:
        put_text(out, blobmsg_get_bool(attr) ? "true" : "false");
        break;
    case BLOBMSG_TYPE_STRING:
        text = blobmsg_get_string(attr);
        put_string(out, text, std::strlen(text));
        break;
    case BLOBMSG_TYPE_ARRAY:
        put_list(out, attr, true);
        break;
    case BLOBMSG_TYPE_TABLE:
        put_list(out, attr, false);
        break;
    default:
        put_number(out, attr);
        break;
    }
}

static void put_list(json_text *out, blob_attr *attr, bool array) {
    if (out->depth >= max_depth)
        out->failed = true;
    if (out->failed)
        return;
    out->depth++;
    out->indent++;
    put_text(out, array ? "[" : "{");
    // Also an empty list breaks the line twice: that is the layout which users of the tools know.
    put_line_break(out);
    bool first = true;
    size_t rem = 0;
    blob_attr *pos = nullptr;
    blobmsg_for_each_attr(pos, attr, rem) {
        if (!first) {
            put_text(out, ",");
            put_line_break(out);
        }
        first = false;
        // Of an attribute that is no value its comma is left, and of a member without a name the value.
        if (!blobmsg_check_attr(pos, false))
            continue;
        if (!array && *blobmsg_name(pos))
            put_name(out, pos);
        put_value(out, pos);
    }
    out->indent--;
    out->depth--;
    put_line_break(out);
    put_text(out, array ? "]" : "}");
}

static json_text new_text(int indent) {
    return {nullptr, 0, 0, false, indent >= 0, indent < 0 ? 0 : indent, 0};
}

static char *finish_text(json_text *out) {
    if (!out->failed && out->text)
        return out->text;
    std::free(out->text);
    return nullptr;
}

char *blobmsg_format_json_indent(struct blob_attr *attr, bool list, int indent) {
    if (!attr || (!list && !blobmsg_check_attr(attr, false)))
        return nullptr;
    json_text out = new_text(indent);
    if (list) {
        put_list(&out, attr, blob_is_extended(attr) && blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY);
    } else {
        if (*blobmsg_name(attr))
            put_name(&out, attr);
        put_value(&out, attr);
    }
    return finish_text(&out);
}

char *blobmsg_format_json_value(struct blob_attr *attr) {
    if (!attr || !blobmsg_check_attr(attr, false))
        return nullptr;
    json_text out = new_text(-1);
    put_value(&out, attr);
    return finish_text(&out);
}
