#include "sysroot.h"
#include "telemetry_json.h"
#include "telemetry_utils.h"

// JSON of what a text becomes; the types 4 to 7 are lists.
static std::string value_of(const std::string &text, int type, int length = 1024) {
    std::string buffer = text;
    buffer.resize(1024, '\0');
    const JsonPtr object(cJSON_CreateObject());
    const char *start = buffer.c_str();
    EXPECT_EQ(type >= 4 && type <= 7
                  ? telemetry_add_value_list_to_cJSON_object(object.get(), "k", start, length, type)
                  : telemetry_add_value_to_cJSON_object(object.get(), "k", start, type),
              0);
    return telemetry_json_print(object->child).get();
}

TEST(TelemetryValue, TextsBecomeValuesAndLists) {
    const std::string x63(63, 'x'), x64(64, 'x');
    const std::string one = "[\"" + x63 + "\"]", two = "[\"" + x63 + "\",\"" + x63 + "\"]";
    using Cases = std::vector<std::pair<std::string, std::string>>;
    const std::pair<int, Cases> types[] = {
        {0, {{"on", "1"}, {"once", "1"}, {"off", "0"}, {"true", "1"}, {"false", "0"}, {"On", "0"}}},
        {0, {{"-12abc", "-12"}, {"4294967297", "1"}}}, // wraps like a 32-bit integer
        {1, {{"1700000000123", "1700000000123.00"}, {"auto", "0"}, {"1e5", "1"}}},
        {2, {{"2.5", "2.50"}, {"1e999", "null"}}},
        {3, {{"auto", "\"auto\""}}},
        {-1, {{"on", "\"on\""}}},
        {4, {{"1 2.9  -3.9", "[1,2,0,-3]"}, {"1e300 -1e300 nan", "[2147483647,-2147483648,0]"}}},
        {5,
         {{"3000000000.7 1e300 -1e300", "[3000000000.00,9223372036854775808.00,-9223372036854775808.00]"}}},
        {6, {{"0.5 x", "[0.50,0]"}}},
        {7, {{"a  b ", R"(["a","","b",""])"}}},
        // 128 characters count: the text's end stands at position 127, then at 128.
        {7, {{x63 + " " + x63, two}, {x63 + " " + x64, one}}},
        // A blank at position 127 still ends its element; the next one is lost.
        {7, {{x63 + " " + x63 + " y", two}, {std::string(1000, 'x'), "[]"}}},
    };
    for (const auto &[type, cases] : types) {
        for (const auto &[text, json] : cases)
            EXPECT_EQ(value_of(text, type), json) << text;
    }
    // The length ends a list as well.
    EXPECT_EQ(value_of("ab cd", 7, 5), R"(["ab"])");
    EXPECT_EQ(value_of("ab cd", 7, 6), R"(["ab","cd"])");
}

TEST(TelemetryValue, AnAddressBecomesItsDigest) {
    const JsonPtr object(cJSON_CreateObject());
    cJSON *o = object.get();
    EXPECT_EQ(telemetry_add_mac_md5_to_cJSON_object(o, "k", nullptr), -1);
    EXPECT_EQ(telemetry_add_mac_md5_to_cJSON_object(o, "k", ""), -1);
    EXPECT_EQ(object->child, nullptr);
    EXPECT_EQ(telemetry_add_mac_md5_to_cJSON_object(o, "mk", "AA-BB-CC-DD-EE-FF"), 0);
    EXPECT_STREQ(object->child->valuestring, "7e62959227ac52e4c1c554c9cf6e6e36");
}
