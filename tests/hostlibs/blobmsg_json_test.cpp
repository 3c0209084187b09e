#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libubox/blobmsg_json.h>
}

struct message {
    blob_buf b = {};
    message() {
        EXPECT_EQ(blob_buf_init(&b, 0), 0);
    }
    ~message() {
        blob_buf_free(&b);
    }
};

static std::string take(char *text) {
    std::string copy = text ? text : "(null)";
    free(text);
    return copy;
}

TEST(BlobmsgJson, TextBecomesTypedValuesAndTextAgain) {
    struct {
        const char *json;
        int type;
        const char *printed;
    } cases[] = {
        {"0", BLOBMSG_TYPE_INT32, "0"},
        {"2147483647", BLOBMSG_TYPE_INT32, "2147483647"},
        {"-2147483648", BLOBMSG_TYPE_INT32, "-2147483648"},
        {"2147483648", BLOBMSG_TYPE_INT64, "2147483648"},
        {"-2147483649", BLOBMSG_TYPE_INT64, "-2147483649"},
        {"9223372036854775807", BLOBMSG_TYPE_INT64, "9223372036854775807"},
        {"-9223372036854775808", BLOBMSG_TYPE_INT64, "-9223372036854775808"},
        {"true", BLOBMSG_TYPE_INT8, "true"},
        {"false", BLOBMSG_TYPE_INT8, "false"},
        {"null", BLOBMSG_TYPE_UNSPEC, "null"},
        {"1.5", BLOBMSG_TYPE_DOUBLE, "1.500000"},
        {"-1e3", BLOBMSG_TYPE_DOUBLE, "-1000.000000"},
        {"1e999", BLOBMSG_TYPE_DOUBLE, "null"},
        {"\"\"", BLOBMSG_TYPE_STRING, "\"\""},
        {R"("q\"b\\s\/n\nt\tr\rb\bu\u0001é")", BLOBMSG_TYPE_STRING, R"("q\"b\\s/n\nt\tr\rb\bu\u0001é")"},
        {"[]", BLOBMSG_TYPE_ARRAY, "[]"},
        {"{}", BLOBMSG_TYPE_TABLE, "{}"},
        {"[1, null, \"x\", [true], {\"k\": 2}]", BLOBMSG_TYPE_ARRAY, "[1,null,\"x\",[true],{\"k\":2}]"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.json);
        message m;
        ASSERT_TRUE(blobmsg_add_json_from_string(&m.b, (std::string("{\"v\": ") + c.json + "}").c_str()));
        auto *value = static_cast<blob_attr *>(blob_data(m.b.head));
        EXPECT_EQ(blobmsg_type(value), c.type);
        EXPECT_TRUE(blobmsg_check_attr(value, true));
        EXPECT_EQ(take(blobmsg_format_json(m.b.head, true)), std::string("{\"v\":") + c.printed + "}");
        EXPECT_EQ(take(blobmsg_format_json(value, false)), std::string("\"v\":") + c.printed);
        EXPECT_EQ(take(blobmsg_format_json_value(value)), c.printed);
    }
}

TEST(BlobmsgJson, ValuesThatTextCannotBring) {
    message m;
    blobmsg_add_u16(&m.b, "h", 0xffff);
    blobmsg_add_double(&m.b, "huge", -DBL_MAX);
    blobmsg_add_double(&m.b, "nan", NAN);
    std::string text = take(blobmsg_format_json(m.b.head, true));
    EXPECT_EQ(text.substr(0, 25), "{\"h\":-1,\"huge\":-179769313");
    EXPECT_EQ(text.substr(text.size() - 19), ".000000,\"nan\":null}");
}

TEST(BlobmsgJson, IndentedLayout) {
    message m;
    ASSERT_TRUE(blobmsg_add_json_from_string(&m.b, R"({"a":1,"t":{"x":[1,2],"e":[]}})"));
    EXPECT_EQ(take(blobmsg_format_json_indent(m.b.head, true, 0)), "{\n"
                                                                   "\t\"a\": 1,\n"
                                                                   "\t\"t\": {\n"
                                                                   "\t\t\"x\": [\n"
                                                                   "\t\t\t1,\n"
                                                                   "\t\t\t2\n"
                                                                   "\t\t],\n"
                                                                   "\t\t\"e\": [\n"
                                                                   "\t\t\t\n"
                                                                   "\t\t]\n"
                                                                   "\t}\n"
                                                                   "}");
}

TEST(BlobmsgJson, ATextThatIsNoObjectAddsNothing) {
    const std::string deep_array(200000, '[');
    std::string deep_object = "{\"a\":1,\"d\":";
    for (int i = 0; i < 2000; i++)
        deep_object += "{\"k\":";
    deep_object += "1" + std::string(2001, '}');
    const std::string long_name = "{\"ok\":1,\"deep\":{\"" + std::string(70000, 'n') + "\":1}}";
    const std::string texts[] = {"",
                                 "null",
                                 "17",
                                 "[1]",
                                 "\"text\"",
                                 "{\"a\":1",
                                 "{\"a\":}",
                                 "{a b}",
                                 "\xff\xfe",
                                 deep_array,
                                 "{\"a\":" + deep_array,
                                 deep_object,
                                 long_name};
    for (const std::string &text : texts) {
        SCOPED_TRACE(text.substr(0, 20));
        message m;
        blobmsg_add_u32(&m.b, "before", 1);
        EXPECT_FALSE(blobmsg_add_json_from_string(&m.b, text.c_str()));
        blobmsg_add_u32(&m.b, "after", 2);
        EXPECT_EQ(take(blobmsg_format_json(m.b.head, true)), "{\"before\":1,\"after\":2}");
    }
    message m;
    EXPECT_FALSE(blobmsg_add_json_from_string(&m.b, nullptr));
    EXPECT_FALSE(blobmsg_add_json_from_file(&m.b, "/nonexistent/file"));
}

// `levels` tables inside each other, as they may come from the bus.
static std::vector<char> nested_tables(size_t levels) {
    std::vector<char> bytes(levels * 8 + 4);
    for (size_t i = 0; i <= levels; i++) {
        uint32_t word = static_cast<uint32_t>(bytes.size() - (i ? (i - 1) * 8 + 4 : 0));
        word = htobe32(i ? 0x80000000u | 2u << 24 | word : word);
        std::memcpy(bytes.data() + (i ? (i - 1) * 8 + 4 : 0), &word, 4);
    }
    return bytes;
}

TEST(BlobmsgJson, DeepNestingIsRefusedNotFollowed) {
    for (size_t levels : {1u, 100u, 127u, 128u, 1000u, 100000u}) {
        std::vector<char> bytes = nested_tables(levels);
        auto *head = reinterpret_cast<blob_attr *>(bytes.data());
        char *text = blobmsg_format_json(head, true);
        EXPECT_EQ(text != nullptr, levels < 128) << levels;
        EXPECT_EQ(text ? strlen(text) : 0, levels < 128 ? 2 + levels * 5 : 0) << levels;
        free(text);
        text = blobmsg_format_json_indent(head, true, 0);
        EXPECT_EQ(text != nullptr, levels < 128) << levels;
        free(text);
    }
}

TEST(BlobmsgJson, MalformedValuesAreLeftOut) {
    message m;
    blobmsg_add_u32(&m.b, "a", 1);
    blobmsg_add_field(&m.b, BLOBMSG_TYPE_STRING, "unterminated", "xyz", 3);
    blobmsg_add_field(&m.b, BLOBMSG_TYPE_INT64, "short", "xyz", 3);
    blob_put_string(&m.b, BLOBMSG_TYPE_STRING, "without a name header");
    blobmsg_add_field(&m.b, 77, "unknown", "xyz", 3);
    blobmsg_add_u32(&m.b, "z", 2);
    EXPECT_EQ(take(blobmsg_format_json(m.b.head, true)), "{\"a\":1,\"z\":2}");
    blob_attr *bad = blob_next(static_cast<blob_attr *>(blob_data(m.b.head)));
    EXPECT_EQ(blobmsg_format_json(bad, false), nullptr);
    EXPECT_EQ(blobmsg_format_json_value(bad), nullptr);
    EXPECT_EQ(blobmsg_format_json(nullptr, true), nullptr);
}

static const char *hide_secrets(void *priv, blob_attr *attr) {
    return strcmp(blobmsg_name(attr), "secret") == 0 ? static_cast<const char *>(priv) : nullptr;
}

TEST(BlobmsgJson, ACallbackReplacesTheTextOfAValue) {
    message m;
    ASSERT_TRUE(blobmsg_add_json_from_string(&m.b, R"({"secret":{"k":1},"open":2})"));
    char hidden[] = "\"*\"";
    EXPECT_EQ(take(blobmsg_format_json_with_cb(m.b.head, true, hide_secrets, hidden, -1)),
              R"({"secret":"*","open":2})");
}
