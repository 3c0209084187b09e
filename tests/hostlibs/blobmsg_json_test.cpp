#include <string>

#include <gtest/gtest.h>

#include "telemetry_blob.h"
#include "telemetry_handles.h"

static std::string take(char *text) {
    const TextPtr owned(text);
    return owned ? owned.get() : "(null)";
}

TEST(BlobmsgJson, TextBecomesTypedValuesAndTextAgain) {
    const struct {
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
        {"true", BLOBMSG_TYPE_INT8, "true"},
        {"null", BLOBMSG_TYPE_UNSPEC, "null"},
        {"-1.5e3", BLOBMSG_TYPE_DOUBLE, "-1500.000000"},
        {"1e999", BLOBMSG_TYPE_DOUBLE, "inf"},
        {R"("q\"b\\s\/n\nt\tr\rb\bu\u0001é")", BLOBMSG_TYPE_STRING, R"("q\"b\\s/n\nt\tr\rb\bu\u0001é")"},
        {"[]", BLOBMSG_TYPE_ARRAY, "[]"},
        {"{}", BLOBMSG_TYPE_TABLE, "{}"},
        {"[1, null, \"x\", [true], {\"k\": 2}]", BLOBMSG_TYPE_ARRAY, "[1,null,\"x\",[true],{\"k\":2}]"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.json);
        BlobBuffer m;
        ASSERT_TRUE(blobmsg_add_json_from_string(m.get(), (std::string("{\"v\": ") + c.json + "}").c_str()));
        auto *value = static_cast<blob_attr *>(blob_data(m.head()));
        EXPECT_EQ(blobmsg_type(value), c.type);
        EXPECT_TRUE(blobmsg_check_attr(value, true));
        EXPECT_EQ(take(blobmsg_format_json(m.head(), true)), std::string("{\"v\":") + c.printed + "}");
        EXPECT_EQ(take(blobmsg_format_json(value, false)), std::string("\"v\":") + c.printed);
        EXPECT_EQ(take(blobmsg_format_json_value(value)), c.printed);
    }
}
