#include <string>

#include "sysroot.h"

#include "telemetry_json.h"
#include "telemetry_utils.h"

static std::string print(const JsonPtr &json) {
    const TextPtr text = telemetry_json_print(json.get());
    return text.get();
}

// The text of the only member, "k".
static std::string value_text(const JsonPtr &object) {
    const std::string text = print(object);
    return text.substr(5, text.size() - 6);
}

static std::string value_of(const char *text, int type) {
    const JsonPtr object(cJSON_CreateObject());
    EXPECT_EQ(telemetry_add_value_to_cJSON_object(object.get(), "k", text, type), 0);
    return value_text(object);
}

static std::string list_of(const std::string &text, int type, int length = 1024) {
    std::string buffer = text;
    buffer.resize(1024, '\0');
    const JsonPtr object(cJSON_CreateObject());
    EXPECT_EQ(telemetry_add_value_list_to_cJSON_object(object.get(), "k", buffer.c_str(), length, type), 0);
    return value_text(object);
}

TEST(TelemetryValue, SingleValues) {
    const struct {
        const char *text;
        int type;
        const char *json;
    } cases[] = {
        {"on", 0, "1"},       {"once", 0, "1"},
        {"off", 0, "0"},      {"true", 0, "1"},
        {"false", 0, "0"},    {"On", 0, "0"},
        {"-12abc", 0, "-12"}, {"4294967297", 0, "1"}, // wraps like a 32-bit integer
        {"", 0, "0"},         {"1700000000123", 1, "1700000000123.00"},
        {"auto", 1, "0"},     {"2.5", 2, "2.50"},
        {"1e5", 1, "1"},      {"9007199254740993", 2, "9007199254740992.00"},
        {"1e999", 2, "null"}, {"auto", 3, "\"auto\""},
        {"on", 9, "\"on\""},  {"on", -1, "\"on\""},
    };
    for (const auto &c : cases)
        EXPECT_EQ(value_of(c.text, c.type), c.json) << c.text;
}

TEST(TelemetryValue, Lists) {
    const struct {
        const char *text;
        int type;
        const char *json;
    } cases[] = {
        {"1 2.9  -3.9", 4, "[1,2,0,-3]"},
        {"a  b ", 7, R"(["a","","b",""])"},
        {"1e300 -1e300 nan", 4, "[2147483647,-2147483648,0]"},
        {"3000000000.7 1e300 -1e300", 5, "[3000000000.00,9223372036854775808.00,-9223372036854775808.00]"},
        {"0.5 x", 6, "[0.50,0]"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(list_of(c.text, c.type), c.json) << c.text;
}

TEST(TelemetryValue, OnlyTheFirst128CharactersOfAListCount) {
    const std::string x63(63, 'x');
    const std::string x64(64, 'x');
    const std::string one = "[\"" + x63 + "\"]", two = "[\"" + x63 + "\",\"" + x63 + "\"]";
    // The text's end stands at position 127, then at 128.
    EXPECT_EQ(list_of(x63 + " " + x63, 7), two);
    EXPECT_EQ(list_of(x63 + " " + x64, 7), one);
    // A blank at position 127 still ends its element; the next one is lost.
    EXPECT_EQ(list_of(x63 + " " + x63 + " y", 7), two);
    EXPECT_EQ(list_of(std::string(1000, 'x'), 7), "[]");
    // The length ends the walk as well.
    EXPECT_EQ(list_of("ab cd", 7, 5), R"(["ab"])");
    EXPECT_EQ(list_of("ab cd", 7, 6), R"(["ab","cd"])");
}

TEST(TelemetryValue, MissingArgumentsChangeNothing) {
    const JsonPtr object(cJSON_CreateObject());
    cJSON *o = object.get();
    EXPECT_EQ(telemetry_add_value_to_cJSON_object(nullptr, "k", "1", 0), -1);
    EXPECT_EQ(telemetry_add_value_to_cJSON_object(o, "k", nullptr, 0), -1);
    EXPECT_EQ(telemetry_add_value_list_to_cJSON_object(o, "k", nullptr, 1024, 4), -1);
    EXPECT_EQ(logged_result([o] { return telemetry_add_value_list_to_cJSON_object(o, "k", "", 1024, 4); }),
              LoggedResult(-1, {"param is empty"}));
    EXPECT_EQ(telemetry_add_mac_md5_to_cJSON_object(o, "k", nullptr), -1);
    EXPECT_EQ(telemetry_add_mac_md5_to_cJSON_object(o, "k", ""), -1);
    EXPECT_EQ(print(object), "{}");
    EXPECT_EQ(telemetry_add_mac_md5_to_cJSON_object(o, "mk", "AA-BB-CC-DD-EE-FF"), 0);
    EXPECT_EQ(print(object), "{\"mk\":\"7e62959227ac52e4c1c554c9cf6e6e36\"}");
}
