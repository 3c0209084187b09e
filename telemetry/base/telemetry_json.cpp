#include "telemetry_json.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "telemetry_memory.h"

// Containers inside each other. cJSON refuses to parse deeper texts, so nobody could read what lies beyond.
static constexpr size_t kMaxDepth = CJSON_NESTING_LIMIT;
// "%.2f" of the largest double: sign, 309 digits, point, 2 digits.
static constexpr size_t kNumberSize = 320;

// What a byte of a text becomes: 0 itself, 'u' a \u00xx, any other letter a backslash and that letter.
struct EscapeTable {
    char letter[256];
};

static constexpr EscapeTable make_escape_table() {
    EscapeTable table{};
    for (int c = 0; c < 0x20; c++)
        table.letter[c] = 'u';
    constexpr struct {
        unsigned char c;
        char letter;
    } kShort[] = {{'\b', 'b'}, {'\f', 'f'}, {'\n', 'n'}, {'\r', 'r'}, {'\t', 't'}, {'"', '"'}, {'\\', '\\'}};
    for (const auto &row : kShort)
        table.letter[row.c] = row.letter;
    return table;
}

static constexpr EscapeTable kEscapes = make_escape_table();

static char escape_of(char c) {
    return kEscapes.letter[static_cast<unsigned char>(c)];
}

// --- Characters beyond ASCII ---

// What stands for a sequence that is no UTF-8: U+FFFD.
static constexpr char kReplacement[] = "\xef\xbf\xbd";
static constexpr size_t kReplacementLength = sizeof(kReplacement) - 1;

// First bytes of sequences: their length, and the range of the second byte, which keeps overlong forms,
// surrogates and what lies beyond U+10FFFF out.
struct Utf8Lead {
    unsigned char first, last;
    size_t length;
    unsigned char second_low, second_high;
};

static constexpr Utf8Lead kUtf8Leads[] = {
    {0xc2, 0xdf, 2, 0x80, 0xbf}, {0xe0, 0xe0, 3, 0xa0, 0xbf}, {0xe1, 0xec, 3, 0x80, 0xbf},
    {0xed, 0xed, 3, 0x80, 0x9f}, {0xee, 0xef, 3, 0x80, 0xbf}, {0xf0, 0xf0, 4, 0x90, 0xbf},
    {0xf1, 0xf3, 4, 0x80, 0xbf}, {0xf4, 0xf4, 4, 0x80, 0x8f},
};

struct Utf8Sequence {
    size_t length; // bytes
    bool sound;
};

static bool is_beyond_ascii(char c) {
    return static_cast<unsigned char>(c) >= 0x80;
}

// The sequence that a text of `length` bytes begins with; its first byte is beyond ASCII. A malformed one
// reaches as far as it could have been the beginning of a sound one.
static Utf8Sequence utf8_sequence(const char *text, size_t length) {
    const auto *bytes = reinterpret_cast<const unsigned char *>(text);
    for (const Utf8Lead &lead : kUtf8Leads) {
        if (bytes[0] < lead.first || bytes[0] > lead.last)
            continue;
        size_t at = 1;
        if (at < length && bytes[at] >= lead.second_low && bytes[at] <= lead.second_high) {
            do {
                ++at;
            } while (at < lead.length && at < length && (bytes[at] & 0xc0) == 0x80);
        }
        return {at, at == lead.length};
    }
    return {1, false};
}

// --- Texts ---

// High bit of every byte of the word that may not stand for itself: an escape, or beyond ASCII. A false alarm
// only costs a look into the table.
static uint64_t special_bytes(uint64_t word) {
    constexpr uint64_t kOnes = 0x0101010101010101u;
    constexpr uint64_t kHighs = 0x8080808080808080u;
    const uint64_t quote = word ^ (kOnes * '"');
    const uint64_t backslash = word ^ (kOnes * '\\');
    const uint64_t control = (word - kOnes * 0x20) & ~word;
    return (word | control | ((quote - kOnes) & ~quote) | ((backslash - kOnes) & ~backslash)) & kHighs;
}

// Number of leading bytes that stand for themselves, `length` when all do.
static size_t plain_length(const char *text, size_t length) {
    size_t at = 0;
    while (at < length) {
        if (at + 8 <= length) {
            uint64_t word;
            memcpy(&word, text + at, sizeof(word));
            if (special_bytes(word) == 0) {
                at += 8;
                continue;
            }
        }
        if (!is_beyond_ascii(text[at])) {
            if (escape_of(text[at]) != 0)
                break;
            at++;
            continue;
        }
        const Utf8Sequence sequence = utf8_sequence(text + at, length - at);
        if (!sequence.sound)
            break;
        at += sequence.length;
    }
    return at;
}

static char *write_digits(char *end, uint64_t value) {
    do {
        *--end = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    return end;
}

static size_t count_digits(uint64_t value) {
    size_t digits = 1;
    for (; value >= 10; value /= 10)
        digits++;
    return digits;
}

// A number as text, in parts, so that measuring whole numbers needs no text at all.
struct NumberForm {
    bool whole;         // magnitude and sign hold it
    bool fraction_zero; // ".00" follows
    bool negative;
    uint64_t magnitude;
};

static NumberForm number_form(double value) {
    // Up to 2^53 every whole number has its own double.
    constexpr double kExact = 9007199254740992.0;
    NumberForm form{};
    if (!(value > -kExact && value < kExact))
        return form;
    const int64_t whole = static_cast<int64_t>(value);
    if (static_cast<double>(whole) != value)
        return form;
    form.whole = true;
    form.fraction_zero = whole < INT32_MIN || whole > INT32_MAX;
    form.negative = whole < 0;
    form.magnitude = static_cast<uint64_t>(form.negative ? -whole : whole);
    return form;
}

static size_t write_fraction(char *buffer, double value) {
    if (!std::isfinite(value)) {
        memcpy(buffer, "null", 4);
        return 4;
    }
    // No std::to_chars: its tables are as large as a third of the daemon.
    return static_cast<size_t>(snprintf(buffer, kNumberSize, "%.2f", value));
}

// Adds up lengths.
struct LengthSink {
    size_t length = 0;

    void put(char) {
        length++;
    }
    void fill(char, size_t count) {
        length += count;
    }
    void raw(const char *, size_t count) {
        length += count;
    }
    void quoted(const char *text, size_t count) {
        length += 2;
        for (;;) {
            const size_t plain = plain_length(text, count);
            length += plain;
            if (plain == count)
                break;
            text += plain;
            count -= plain;
            size_t replaced = 1;
            if (is_beyond_ascii(*text)) {
                replaced = utf8_sequence(text, count).length;
                length += kReplacementLength;
            } else {
                length += escape_of(*text) == 'u' ? 6 : 2;
            }
            text += replaced;
            count -= replaced;
        }
    }
    void number(double value) {
        const NumberForm form = number_form(value);
        if (form.whole) {
            length += count_digits(form.magnitude) + (form.negative ? 1 : 0) + (form.fraction_zero ? 3 : 0);
            return;
        }
        char buffer[kNumberSize];
        length += write_fraction(buffer, value);
    }
};

// Writes to a buffer, up to its end.
struct TextSink {
    char *at;
    char *end;

    size_t room(size_t count) const {
        return std::min(count, static_cast<size_t>(end - at));
    }
    void put(char c) {
        if (at < end)
            *at++ = c;
    }
    void fill(char c, size_t count) {
        count = room(count);
        memset(at, c, count);
        at += count;
    }
    void raw(const char *text, size_t count) {
        count = room(count);
        memcpy(at, text, count);
        at += count;
    }
    void escape(char c) {
        constexpr char kHex[] = "0123456789abcdef";
        const char letter = escape_of(c);
        put('\\');
        put(letter);
        if (letter == 'u') {
            raw("00", 2);
            put(kHex[(c >> 4) & 0xf]);
            put(kHex[c & 0xf]);
        }
    }
    void quoted(const char *text, size_t count) {
        put('"');
        for (;;) {
            const size_t plain = plain_length(text, count);
            raw(text, plain);
            if (plain == count)
                break;
            text += plain;
            count -= plain;
            size_t replaced = 1;
            if (is_beyond_ascii(*text)) {
                replaced = utf8_sequence(text, count).length;
                raw(kReplacement, kReplacementLength);
            } else {
                escape(*text);
            }
            text += replaced;
            count -= replaced;
        }
        put('"');
    }
    void number(double value) {
        const NumberForm form = number_form(value);
        if (!form.whole) {
            char buffer[kNumberSize];
            raw(buffer, write_fraction(buffer, value));
            return;
        }
        char digits[20];
        const char *const start = write_digits(digits + sizeof(digits), form.magnitude);
        if (form.negative)
            put('-');
        raw(start, static_cast<size_t>(digits + sizeof(digits) - start));
        if (form.fraction_zero)
            raw(".00", 3);
    }
};

template <typename Sink> static void put_text(Sink &out, const char *text) {
    if (text == nullptr)
        text = "";
    out.quoted(text, strlen(text));
}

static int type_of(const cJSON *item) {
    return item->type & 0xff;
}

template <typename Sink> static bool put_scalar(Sink &out, const cJSON *item) {
    switch (type_of(item)) {
    case cJSON_NULL:
        out.raw("null", 4);
        return true;
    case cJSON_False:
        out.raw("false", 5);
        return true;
    case cJSON_True:
        out.raw("true", 4);
        return true;
    case cJSON_Number:
        out.number(item->valuedouble);
        return true;
    case cJSON_String:
        put_text(out, item->valuestring);
        return true;
    case cJSON_Raw:
        if (item->valuestring == nullptr)
            return false;
        out.raw(item->valuestring, strlen(item->valuestring));
        return true;
    default:
        return false;
    }
}

// What stands before an item of an object: indentation and key.
template <bool Formatted, typename Sink> static void put_key(Sink &out, const cJSON *item, size_t depth) {
    if (Formatted)
        out.fill('\t', depth);
    put_text(out, item->string);
    out.put(':');
    if (Formatted)
        out.put('\t');
}

template <bool Formatted, typename Sink> static void put_separator(Sink &out, bool object) {
    out.put(',');
    if (Formatted)
        out.put(object ? '\n' : ' ');
}

template <bool Formatted, typename Sink>
static void put_close(Sink &out, bool object, bool empty, size_t outer_depth) {
    if (Formatted && object) {
        if (!empty)
            out.put('\n');
        out.fill('\t', outer_depth);
    }
    out.put(object ? '}' : ']');
}

template <bool Formatted, typename Sink>
static bool put_tree(Sink &out, const cJSON *root, size_t outer_depth = 0);

// What a tree keeps as text is laid out like the rest. It holds no such text itself.
template <typename Sink> static bool put_read_again(Sink &out, const cJSON *item, size_t depth) {
    const JsonPtr tree(type_of(item) == cJSON_Raw ? cJSON_Parse(item->valuestring) : nullptr);
    return tree != nullptr && put_tree<true>(out, tree.get(), depth);
}

// The open containers stand in an array of fixed size, so that no tree, however deep, can exhaust the stack.
template <bool Formatted, typename Sink>
static bool put_tree(Sink &out, const cJSON *root, size_t outer_depth) {
    const cJSON *open[kMaxDepth];
    size_t depth = 0;
    for (const cJSON *item = root; item != nullptr;) {
        if (depth > 0 && type_of(open[depth - 1]) == cJSON_Object)
            put_key<Formatted>(out, item, outer_depth + depth);
        const int type = type_of(item);
        if (type == cJSON_Array || type == cJSON_Object) {
            if (depth == kMaxDepth)
                return false;
            out.put(type == cJSON_Object ? '{' : '[');
            if (Formatted && type == cJSON_Object)
                out.put('\n');
            open[depth++] = item;
            if (item->child != nullptr) {
                item = item->child;
                continue;
            }
            --depth;
            put_close<Formatted>(out, type == cJSON_Object, true, outer_depth + depth);
        } else if (!(Formatted && put_read_again(out, item, outer_depth + depth)) && !put_scalar(out, item)) {
            return false;
        }
        while (depth > 0 && item->next == nullptr) {
            item = open[--depth];
            put_close<Formatted>(out, type_of(item) == cJSON_Object, false, outer_depth + depth);
        }
        if (depth == 0)
            return true;
        put_separator<Formatted>(out, type_of(open[depth - 1]) == cJSON_Object);
        item = item->next;
    }
    return false;
}

template <bool Formatted> static TextPtr print_tree(const cJSON *item, size_t *length) {
    LengthSink measure;
    if (!put_tree<Formatted>(measure, item))
        return nullptr;
    TextPtr text(static_cast<char *>(malloc(measure.length + 1)));
    if (text == nullptr) {
        telemetry_memory_refused();
        return nullptr;
    }
    TextSink write{text.get(), text.get() + measure.length};
    put_tree<Formatted>(write, item);
    *write.at = '\0';
    if (length != nullptr)
        *length = measure.length;
    return text;
}

TextPtr telemetry_json_print(const cJSON *item, size_t *length) {
    return print_tree<false>(item, length);
}

TextPtr telemetry_json_print_formatted(const cJSON *item) {
    return print_tree<true>(item, nullptr);
}

size_t telemetry_json_print_to(const cJSON *item, char *buffer, size_t size) {
    TextSink write{buffer, buffer + size};
    if (!put_tree<false>(write, item) || write.at == write.end)
        return 0;
    *write.at = '\0';
    return static_cast<size_t>(write.at - buffer);
}

long telemetry_json_length(const cJSON *item) {
    LengthSink measure;
    return put_tree<false>(measure, item) ? static_cast<long>(measure.length) : -1;
}
