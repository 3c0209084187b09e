#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "telemetry_blob.h"

using namespace std::string_literals;

template <size_t N>
static int parse(const blobmsg_policy (&policy)[N], blob_attr *(&tb)[N], blob_attr *list) {
    return blobmsg_parse(policy, N, tb, blob_data(list), static_cast<unsigned>(blob_len(list)));
}

// An attribute's first word, in the extended form.
static std::string head(uint32_t type, uint32_t len) {
    const uint32_t word = htobe32(0x80000000u | type << 24 | len);
    return {reinterpret_cast<const char *>(&word), 4};
}

TEST(Blobmsg, ParsePicksByWholeNameTypeAndFirstComer) {
    BlobBuffer m;
    blobmsg_add_u32(m.get(), "number", 1);
    blobmsg_add_string(m.get(), "num", "wrong name length");
    blobmsg_add_string(m.get(), "typed", "not a number");
    blobmsg_add_u32(m.get(), "numb", 3);
    blobmsg_add_u32(m.get(), "numb", 4);
    blobmsg_add_u16(m.get(), "any int", 0xfffe);
    const blobmsg_policy policy[] = {
        {"typed", BLOBMSG_TYPE_INT32},    {"numb", BLOBMSG_TYPE_INT32},   {"any int", BLOBMSG_CAST_INT64},
        {"numbers", BLOBMSG_TYPE_UNSPEC}, {nullptr, BLOBMSG_TYPE_UNSPEC}, {"number", BLOBMSG_TYPE_UNSPEC},
    };
    blob_attr *tb[6];
    memset(tb, 0x55, sizeof(tb));
    ASSERT_EQ(parse(policy, tb, m.head()), 0);
    EXPECT_TRUE(!tb[0] && !tb[3] && !tb[4] && tb[5]);
    ASSERT_TRUE(tb[1] && tb[2]);
    EXPECT_EQ(blobmsg_get_u32(tb[1]), 3u);
    EXPECT_EQ(blobmsg_cast_s64(tb[2]), -2);
    EXPECT_EQ(blobmsg_cast_u64(tb[2]), 0xfffeu);
    EXPECT_EQ(blobmsg_parse(policy, 6, tb, nullptr, 8), -1);
    EXPECT_EQ(tb[1], nullptr) << "zeroed all the same";
}

TEST(Blobmsg, MalformedAttributesEndTheParseAndAreReadWithinTheirBounds) {
    const std::pair<const char *, std::string> cases[] = {
        {"length below its own header", head(5, 3) + "\0\1a\0\0\0\0\1"s},
        {"length over the end", head(5, 16) + "\0\1a\0\0\0\0\1"s},
        {"padding over the end", head(3, 9) + "\0\0\0\0\0"s},
        {"no name header", head(5, 4)},
        {"half a name header", head(5, 5) + "\0\0\0\0"s},
        {"name over the end", head(3, 12) + "\0\x20" + "abcdef"s},
        {"name without its zero", head(3, 12) + "\0\1abtxt\0"s},
        {"name that leaves no room for its padding", head(0, 9) + "\0\2ab\0\0\0\0"s},
        {"string without terminator", head(3, 12) + "\0\1atext"s},
        {"int32 of two bytes", head(5, 10) + "\0\1a\0\1\2\0\0"s},
        {"int8 of four bytes", head(7, 12) + "\0\1a\0\1\2\3\4"s},
        {"double of nothing", head(8, 8) + "\0\1a\0"s},
        {"unknown type", head(9, 12) + "\0\1a\0\1\2\3\4"s},
        {"not extended", "\5\0\0\x0c"s + "\0\1a\0\1\2\3\4"s},
    };
    const std::string good = head(5, 12) + "\0\1g\0\0\0\0\7"s;
    const blobmsg_policy policy[] = {{"a", BLOBMSG_TYPE_UNSPEC}, {"g", BLOBMSG_TYPE_INT32}};
    for (const auto &[what, bad] : cases) {
        SCOPED_TRACE(what);
        const std::string content = good + bad;
        const std::string whole = head(2, static_cast<uint32_t>(8 + content.size())) + "\0\0\0\0"s + content;
        // A heap copy of exactly that size, so that a sanitizer sees every byte read behind it.
        const std::unique_ptr<char[]> copy(new char[whole.size()]);
        memcpy(copy.get(), whole.data(), whole.size());
        auto *table = reinterpret_cast<blob_attr *>(copy.get());
        blob_attr *tb[2];
        // What is only cut off is no error.
        const bool whole_attr = blob_attr_fits(reinterpret_cast<blob_attr *>(copy.get() + 20), bad.size());
        EXPECT_EQ(blobmsg_parse(policy, 2, tb, copy.get() + 8, static_cast<unsigned>(content.size())),
                  whole_attr ? -1 : 0);
        EXPECT_TRUE(!tb[0] && tb[1]) << "what came before stays";
        EXPECT_EQ(blobmsg_check_array_len(table, BLOBMSG_TYPE_UNSPEC, whole.size()), -1);
        // An attribute by itself may come without its padding, one in a list may not.
        EXPECT_EQ(blobmsg_check_attr_len(reinterpret_cast<blob_attr *>(copy.get() + 20), false, bad.size()),
                  strcmp(what, "padding over the end") == 0);
        blob_attr *pos;
        size_t rem;
        blobmsg_for_each_attr(pos, table, rem) {
            EXPECT_LE(strlen(blobmsg_name(pos)) + strlen(blobmsg_get_string(pos)), 16u);
            EXPECT_LE(blobmsg_data_len(pos), bad.size());
        }
    }
}
