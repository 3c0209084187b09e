#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libubox/blobmsg.h>
}

using namespace std::string_literals;

struct message {
    blob_buf b = {};
    message() {
        EXPECT_EQ(blob_buf_init(&b, 0), 0);
    }
    ~message() {
        blob_buf_free(&b);
    }
    std::string bytes() const {
        return {static_cast<char *>(blob_data(b.head)), blob_len(b.head)};
    }
};

// A heap copy of exactly that size, so that a sanitizer sees every byte read behind it.
static std::unique_ptr<char[]> exact_copy(const std::string &bytes) {
    auto copy = std::make_unique<char[]>(bytes.size());
    std::memcpy(copy.get(), bytes.data(), bytes.size());
    return copy;
}

static std::string be32(uint32_t value) {
    value = htobe32(value);
    return {reinterpret_cast<char *>(&value), 4};
}

static constexpr uint32_t ext = 0x80000000u;

TEST(Blobmsg, WireForm) {
    message m;
    blobmsg_add_u8(&m.b, "b", 1);
    blobmsg_add_u16(&m.b, "h", 0x0102);
    blobmsg_add_u32(&m.b, "abc", 0x01020304);
    blobmsg_add_u64(&m.b, "q", 0x0102030405060708);
    blobmsg_add_double(&m.b, "d", 1.5);
    blobmsg_add_string(&m.b, "s", "hey");
    void *array = blobmsg_open_array(&m.b, "a");
    blobmsg_add_string(&m.b, nullptr, "");
    void *table = blobmsg_open_table(&m.b, nullptr);
    blobmsg_close_table(&m.b, table);
    blobmsg_close_array(&m.b, array);
    std::string expected = be32(ext | 7u << 24 | 9) + "\0\1b\0\1\0\0\0"s +              //
                           be32(ext | 6u << 24 | 10) + "\0\1h\0\1\2\0\0"s +             //
                           be32(ext | 5u << 24 | 16) + "\0\3abc\0\0\0\1\2\3\4"s +       //
                           be32(ext | 4u << 24 | 16) + "\0\1q\0\1\2\3\4\5\6\7\x08"s +   //
                           be32(ext | 8u << 24 | 16) + "\0\1d\0\x3f\xf8\0\0\0\0\0\0"s + //
                           be32(ext | 3u << 24 | 12) + "\0\1s\0hey\0"s +                //
                           be32(ext | 1u << 24 | 28) + "\0\1a\0"s +                     //
                           be32(ext | 3u << 24 | 9) + "\0\0\0\0\0\0\0\0"s +             //
                           be32(ext | 2u << 24 | 8) + "\0\0\0\0"s;
    EXPECT_EQ(m.bytes(), expected);
    EXPECT_EQ(blob_raw_len(m.b.head), expected.size() + 4);
}

TEST(Blobmsg, ValuesComeBackThroughGrowingBuffersAndReuse) {
    message m;
    for (int round = 0; round < 2; round++) {
        blob_buf_init(&m.b, 0);
        std::string long_text(5000, 'x');
        void *outer = blobmsg_open_table(&m.b, "outer");
        void *inner = blobmsg_open_array(&m.b, "inner");
        for (uint32_t i = 0; i < 1000; i++)
            ASSERT_EQ(blobmsg_add_u32(&m.b, nullptr, i), 0);
        blobmsg_close_array(&m.b, inner);
        blobmsg_add_string(&m.b, "text", long_text.c_str());
        blobmsg_close_table(&m.b, outer);
        blobmsg_add_u8(&m.b, "last", 1);

        enum { OUTER, LAST, MAX };
        const blobmsg_policy policy[MAX] = {{"outer", BLOBMSG_TYPE_TABLE}, {"last", BLOBMSG_TYPE_BOOL}};
        blob_attr *tb[MAX];
        ASSERT_EQ(
            blobmsg_parse(policy, MAX, tb, blob_data(m.b.head), static_cast<unsigned>(blob_len(m.b.head))),
            0);
        ASSERT_TRUE(tb[OUTER] && tb[LAST]);
        EXPECT_TRUE(blobmsg_get_bool(tb[LAST]));
        const blobmsg_policy inside[] = {{"text", BLOBMSG_TYPE_STRING}, {"inner", BLOBMSG_TYPE_ARRAY}};
        blob_attr *in[2];
        ASSERT_EQ(blobmsg_parse(inside, 2, in, blobmsg_data(tb[OUTER]),
                                static_cast<unsigned>(blobmsg_data_len(tb[OUTER]))),
                  0);
        EXPECT_EQ(blobmsg_get_string(in[0]), long_text);
        EXPECT_EQ(blobmsg_check_array(in[1], BLOBMSG_TYPE_INT32), 1000);
        uint32_t sum = 0;
        blob_attr *pos;
        int rem;
        blobmsg_for_each_attr(pos, in[1], rem) {
            sum += blobmsg_get_u32(pos);
        }
        EXPECT_EQ(sum, 499500u);
    }
}

TEST(Blobmsg, ParsePicksByWholeNameTypeAndFirstComer) {
    message m;
    blobmsg_add_u32(&m.b, "number", 1);
    blobmsg_add_string(&m.b, "num", "wrong name length");
    blobmsg_add_string(&m.b, "typed", "not a number");
    blobmsg_add_u32(&m.b, "numb", 3);
    blobmsg_add_u32(&m.b, "numb", 4);
    blobmsg_add_u16(&m.b, "any int", 0xfffe);
    blobmsg_add_field(&m.b, BLOBMSG_TYPE_UNSPEC, "nothing", nullptr, 0);
    const blobmsg_policy policy[] = {
        {"typed", BLOBMSG_TYPE_INT32},   {"numb", BLOBMSG_TYPE_INT32},     {"any int", BLOBMSG_CAST_INT64},
        {"number", BLOBMSG_TYPE_UNSPEC}, {"nothing", BLOBMSG_TYPE_UNSPEC}, {"numbers", BLOBMSG_TYPE_UNSPEC},
        {nullptr, BLOBMSG_TYPE_UNSPEC},
    };
    blob_attr *tb[7];
    memset(tb, 0x55, sizeof(tb));
    ASSERT_EQ(blobmsg_parse(policy, 7, tb, blob_data(m.b.head), static_cast<unsigned>(blob_len(m.b.head))),
              0);
    EXPECT_EQ(tb[0], nullptr);
    ASSERT_NE(tb[1], nullptr);
    EXPECT_EQ(blobmsg_get_u32(tb[1]), 3u);
    ASSERT_NE(tb[2], nullptr);
    EXPECT_EQ(blobmsg_cast_s64(tb[2]), -2);
    EXPECT_EQ(blobmsg_cast_u64(tb[2]), 0xfffeu);
    EXPECT_NE(tb[3], nullptr);
    EXPECT_NE(tb[4], nullptr);
    EXPECT_EQ(tb[5], nullptr);
    EXPECT_EQ(tb[6], nullptr);

    for (auto [data, len] : {std::pair<void *, unsigned>{nullptr, 8}, {blob_data(m.b.head), 0}}) {
        memset(tb, 0x55, sizeof(tb));
        EXPECT_EQ(blobmsg_parse(policy, 7, tb, data, len), -1);
        EXPECT_EQ(tb[1], nullptr) << "zeroed all the same";
        EXPECT_EQ(blobmsg_parse_array(policy, 7, tb, data, len), -1);
    }
    const blobmsg_policy by_place[] = {{nullptr, BLOBMSG_TYPE_INT32}, {nullptr, BLOBMSG_TYPE_INT32}};
    ASSERT_EQ(
        blobmsg_parse_array(by_place, 2, tb, blob_data(m.b.head), static_cast<unsigned>(blob_len(m.b.head))),
        0);
    EXPECT_NE(tb[0], nullptr);
    EXPECT_EQ(tb[1], nullptr) << "a string where a number is wanted";
}

struct hostile {
    const char *what;
    std::string bytes;
};

static const hostile hostile_attrs[] = {
    {"length below its own header", be32(ext | 5u << 24 | 3) + "\0\1a\0\0\0\0\1"s},
    {"length zero", be32(ext | 5u << 24) + "\0\1a\0\0\0\0\1"s},
    {"length over the end", be32(ext | 5u << 24 | 16) + "\0\1a\0\0\0\0\1"s},
    {"length of 16 MiB", be32(ext | 5u << 24 | 0xffffff) + "\0\1a\0\0\0\0\1"s},
    {"padding over the end", be32(ext | 3u << 24 | 9) + "\0\0\0\0\0"s},
    {"no name header", be32(ext | 5u << 24 | 4)},
    {"half a name header", be32(ext | 5u << 24 | 5) + "\0\0\0\0"s},
    {"name over the end", be32(ext | 3u << 24 | 12) + "\0\x20" + "abcdef"s},
    {"name of 65535 bytes", be32(ext | 3u << 24 | 12) + "\xff\xff" + "abcdef"s},
    {"name without its zero", be32(ext | 3u << 24 | 12) + "\0\1abtxt\0"s},
    {"name that leaves no room for its padding", be32(ext | 0u << 24 | 9) + "\0\2ab\0\0\0\0"s},
    {"string without terminator", be32(ext | 3u << 24 | 12) + "\0\1atext"s},
    {"string without a byte", be32(ext | 3u << 24 | 8) + "\0\1a\0"s},
    {"int32 of two bytes", be32(ext | 5u << 24 | 10) + "\0\1a\0\1\2\0\0"s},
    {"int8 of four bytes", be32(ext | 7u << 24 | 12) + "\0\1a\0\1\2\3\4"s},
    {"int64 of four bytes", be32(ext | 4u << 24 | 12) + "\0\1a\0\1\2\3\4"s},
    {"double of nothing", be32(ext | 8u << 24 | 8) + "\0\1a\0"s},
    {"unknown type", be32(ext | 9u << 24 | 12) + "\0\1a\0\1\2\3\4"s},
    {"not extended", be32(5u << 24 | 12) + "\0\1a\0\1\2\3\4"s},
};

TEST(Blobmsg, MalformedAttributesEndTheParse) {
    const std::string good = be32(ext | 5u << 24 | 12) + "\0\1g\0\0\0\0\7"s;
    const blobmsg_policy policy[] = {{"a", BLOBMSG_TYPE_UNSPEC}, {"g", BLOBMSG_TYPE_INT32}};
    for (const hostile &h : hostile_attrs) {
        SCOPED_TRACE(h.what);
        blob_attr *tb[2];
        auto alone = exact_copy(h.bytes);
        auto len = static_cast<unsigned>(h.bytes.size());
        auto *attr = reinterpret_cast<blob_attr *>(alone.get());
        EXPECT_EQ(blobmsg_parse(policy, 2, tb, alone.get(), len), -1);
        EXPECT_EQ(tb[0], nullptr);
        EXPECT_EQ(blobmsg_parse_array(policy, 2, tb, alone.get(), len), -1);
        // An attribute by itself may come without its padding, one in a list may not.
        bool only_padding_missing = strcmp(h.what, "padding over the end") == 0;
        EXPECT_EQ(blobmsg_check_attr_len(attr, false, len), only_padding_missing);
        auto behind = exact_copy(good + h.bytes);
        EXPECT_EQ(blobmsg_parse(policy, 2, tb, behind.get(), len + static_cast<unsigned>(good.size())), -1);
        EXPECT_NE(tb[1], nullptr) << "what came before stays";
    }
}

// Whatever stands inside a list whose own length is sound, walking and reading it stays inside.
TEST(Blobmsg, ReadersOfUncheckedAttributesStayInside) {
    for (const hostile &h : hostile_attrs) {
        SCOPED_TRACE(h.what);
        std::string table =
            be32(ext | 2u << 24 | static_cast<uint32_t>(h.bytes.size() + 8)) + "\0\0\0\0"s + h.bytes;
        auto copy = exact_copy(table);
        auto *attr = reinterpret_cast<blob_attr *>(copy.get());
        EXPECT_EQ(blobmsg_check_array_len(attr, BLOBMSG_TYPE_UNSPEC, table.size()), -1);
        blob_attr *pos;
        size_t rem;
        blobmsg_for_each_attr(pos, attr, rem) {
            EXPECT_LT(strlen(blobmsg_name(pos)), 8u);
            EXPECT_LE(strlen(blobmsg_get_string(pos)), 8u);
            EXPECT_LE(blobmsg_data_len(pos), h.bytes.size());
            blobmsg_get_u8(pos);
            blobmsg_get_u64(pos);
            blobmsg_get_double(pos);
            blobmsg_cast_s64(pos);
        }
    }
    blob_attr *none = nullptr, *pos;
    int rem, count = 0;
    blobmsg_for_each_attr(pos, none, rem) {
        count++;
    }
    EXPECT_EQ(count, 0);
    EXPECT_EQ(blobmsg_get_string(nullptr), nullptr);
}

TEST(Blobmsg, EveryTruncationIsNoticedAndHarmless) {
    message m;
    blobmsg_add_string(&m.b, "name", "value");
    void *table = blobmsg_open_table(&m.b, "table");
    blobmsg_add_u64(&m.b, "number", 5);
    blobmsg_close_table(&m.b, table);
    std::string whole = m.bytes();
    const size_t first = blob_pad_len(static_cast<blob_attr *>(blob_data(m.b.head)));
    const blobmsg_policy policy[] = {{"name", BLOBMSG_TYPE_STRING}, {"table", BLOBMSG_TYPE_TABLE}};
    for (size_t len = 1; len < whole.size(); len++) {
        auto copy = exact_copy(whole.substr(0, len));
        blob_attr *tb[2];
        int result = blobmsg_parse(policy, 2, tb, copy.get(), static_cast<unsigned>(len));
        // Up to 3 bytes behind an attribute are too few for another and do not count.
        bool at_boundary = len < 4 || (len >= first && len < first + 4);
        EXPECT_EQ(result, at_boundary ? 0 : -1) << len;
        EXPECT_EQ(tb[1], nullptr) << len;
    }
}

TEST(Blobmsg, ArrayChecks) {
    message m;
    void *array = blobmsg_open_array(&m.b, "a");
    blobmsg_add_u32(&m.b, nullptr, 1);
    blobmsg_add_u8(&m.b, nullptr, 1);
    blobmsg_close_array(&m.b, array);
    void *table = blobmsg_open_table(&m.b, "t");
    blobmsg_add_u32(&m.b, nullptr, 1);
    blobmsg_close_table(&m.b, table);
    blobmsg_add_u32(&m.b, "n", 1);
    blob_attr *a = static_cast<blob_attr *>(blob_data(m.b.head)), *t = blob_next(a), *n = blob_next(t);
    EXPECT_EQ(blobmsg_check_array(a, BLOBMSG_TYPE_UNSPEC), 2);
    EXPECT_EQ(blobmsg_check_array(a, BLOBMSG_CAST_INT64), 2);
    EXPECT_EQ(blobmsg_check_array(a, BLOBMSG_TYPE_INT32), -1) << "one element of another type";
    EXPECT_FALSE(blobmsg_check_attr_list(t, BLOBMSG_TYPE_UNSPEC)) << "a table's values have names";
    EXPECT_EQ(blobmsg_check_array(n, BLOBMSG_TYPE_UNSPEC), -1);
    EXPECT_TRUE(blobmsg_check_attr(n, true));
    EXPECT_FALSE(blobmsg_check_attr(static_cast<blob_attr *>(blobmsg_data(a)), true));
}

TEST(Blobmsg, StringBuffersAndPrintf) {
    message m;
    std::string before = m.bytes();
    char *text = static_cast<char *>(blobmsg_alloc_string_buffer(&m.b, "s", 10));
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(m.bytes(), before) << "nothing is added yet";
    strcpy(text, "0123456789");
    text = static_cast<char *>(blobmsg_realloc_string_buffer(&m.b, 5000));
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "0123456789");
    text[4] = 0;
    blobmsg_add_string_buffer(&m.b);
    EXPECT_EQ(blobmsg_printf(&m.b, "p", "%s-%d", "x", 42), 4);
    EXPECT_EQ(m.bytes(), be32(ext | 3u << 24 | 13) + "\0\1s\0"s + "0123\0\0\0\0"s +
                             be32(ext | 3u << 24 | 13) + "\0\1p\0x-42\0\0\0\0"s);
}

TEST(Blobmsg, WhatDoesNotFitTheFormIsRefusedAndLeavesTheMessageWhole) {
    message m;
    blobmsg_add_u32(&m.b, "kept", 1);
    std::string before = m.bytes();
    std::string long_name(65536, 'n');
    std::vector<char> huge(0x1000000);
    EXPECT_EQ(blobmsg_add_u32(&m.b, long_name.c_str(), 1), -1);
    EXPECT_EQ(blobmsg_open_table(&m.b, long_name.c_str()), nullptr);
    EXPECT_EQ(blobmsg_alloc_string_buffer(&m.b, long_name.c_str(), 1), nullptr);
    EXPECT_EQ(
        blobmsg_add_field(&m.b, BLOBMSG_TYPE_UNSPEC, "h", huge.data(), static_cast<unsigned>(huge.size())),
        -1);
    EXPECT_EQ(blobmsg_alloc_string_buffer(&m.b, "h", 0xffffff), nullptr);
    EXPECT_EQ(blob_put_raw(&m.b, huge.data(), static_cast<unsigned>(huge.size())), nullptr);
    blobmsg_close_table(&m.b, nullptr);
    EXPECT_EQ(m.bytes(), before);

    // Many small parts instead of one large one.
    std::string chunk(0xffff, 'c');
    void *table = blobmsg_open_table(&m.b, "t");
    int added = 0;
    while (added < 1000 && blobmsg_add_string(&m.b, "c", chunk.c_str()) == 0)
        added++;
    EXPECT_EQ(added, 255);
    blobmsg_close_table(&m.b, table);
    blob_attr *t = blob_next(static_cast<blob_attr *>(blob_data(m.b.head)));
    EXPECT_EQ(blobmsg_check_array(t, BLOBMSG_TYPE_STRING), 255);
    EXPECT_EQ(reinterpret_cast<char *>(blob_next(t)) - reinterpret_cast<char *>(m.b.head),
              static_cast<long>(blob_raw_len(m.b.head)));
}

TEST(Blob, ParseByIdChecksTypesAndLimits) {
    message m;
    blob_put_u32(&m.b, 1, 7);
    blob_put_string(&m.b, 2, "text");
    blob_put(&m.b, 3, "noend", 5);
    void *nest = blob_nest_start(&m.b, 4);
    blob_put_u8(&m.b, 1, 9);
    blob_nest_end(&m.b, nest);
    blob_put_u16(&m.b, 5, 1);
    blob_put_string(&m.b, 6, "longer than allowed");
    blob_put_u32(&m.b, 1, 8);
    blob_put_u32(&m.b, 100, 1);
    blob_attr_info info[7] = {};
    info[1].type = BLOB_ATTR_INT32;
    info[2].type = BLOB_ATTR_STRING;
    info[3].type = BLOB_ATTR_STRING;
    info[4].type = BLOB_ATTR_NESTED;
    info[5].type = BLOB_ATTR_INT32;
    info[6].type = BLOB_ATTR_STRING;
    info[6].maxlen = 5;
    blob_attr *tb[7];
    EXPECT_EQ(blob_parse(m.b.head, tb, info, 7), 3);
    ASSERT_TRUE(tb[1] && tb[2] && tb[4]);
    EXPECT_EQ(blob_get_u32(tb[1]), 8u) << "the last of an id";
    EXPECT_STREQ(blob_get_string(tb[2]), "text");
    EXPECT_TRUE(!tb[3] && !tb[5] && !tb[6]);
    blob_attr *inner[2];
    EXPECT_EQ(blob_parse(tb[4], inner, nullptr, 2), 1);
    EXPECT_EQ(blob_get_u8(inner[1]), 9);
    EXPECT_EQ(blob_get_u32(inner[1]), 0u) << "too short for what is asked";

    std::unique_ptr<blob_attr, decltype(&free)> copy(blob_memdup(m.b.head), free);
    EXPECT_TRUE(blob_attr_equal(copy.get(), m.b.head));
    EXPECT_EQ(blob_parse_untrusted(copy.get(), blob_raw_len(copy.get()) - 1, tb, info, 7), 0);
    EXPECT_EQ(blob_parse_untrusted(copy.get(), 3, tb, info, 7), 0);
    EXPECT_EQ(blob_parse_untrusted(copy.get(), blob_raw_len(copy.get()), tb, info, 7), 3);
}
