#include <string>

#include "sysroot.h"

#include "telemetry_json.h"
#include "telemetry_utils.h"

static std::string print(const JsonPtr &json) {
    const TextPtr text = telemetry_json_print(json.get());
    return text.get();
}

static std::string value_of(const char *text, int type) {
    const JsonPtr object(cJSON_CreateObject());
    EXPECT_EQ(telemetry_add_value_to_cJSON_object(object.get(), "k", text, type), 0);
    return print(object);
}

static std::string list_of(const std::string &text, int type, int length = 1024) {
    std::string buffer = text;
    buffer.resize(1024, '\0');
    const JsonPtr object(cJSON_CreateObject());
    EXPECT_EQ(telemetry_add_value_list_to_cJSON_object(object.get(), "k", buffer.c_str(), length, type), 0);
    return print(object);
}

TEST(TelemetryValue, SingleValues) {
    const struct {
        const char *text;
        int type;
        const char *json;
    } cases[] = {
        {"on", 0, "{\"k\":1}"},         {"once", 0, "{\"k\":1}"},
        {"off", 0, "{\"k\":0}"},        {"true", 0, "{\"k\":1}"},
        {"false", 0, "{\"k\":0}"},      {"On", 0, "{\"k\":0}"},
        {"7", 0, "{\"k\":7}"},          {"-12abc", 0, "{\"k\":-12}"},
        {"4294967297", 0, "{\"k\":1}"}, // wraps like a 32-bit integer
        {"", 0, "{\"k\":0}"},           {"1700000000123", 1, "{\"k\":1700000000123.00}"},
        {"auto", 1, "{\"k\":0}"},       {"2.5", 2, "{\"k\":2.50}"},
        {"1e5", 1, "{\"k\":1}"},        {"9007199254740993", 2, "{\"k\":9007199254740992.00}"},
        {"1e999", 2, "{\"k\":null}"},   {"auto", 3, "{\"k\":\"auto\"}"},
        {"on", 9, "{\"k\":\"on\"}"},    {"on", -1, "{\"k\":\"on\"}"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(value_of(c.text, c.type), c.json) << c.text;
}

TEST(TelemetryValue, Lists) {
    const struct {
        std::string text;
        int type;
        std::string json;
    } cases[] = {
        {"1 2.9 -3.9", 4, "{\"k\":[1,2,-3]}"},
        {"1  3", 4, "{\"k\":[1,0,3]}"},
        {"a  b ", 7, "{\"k\":[\"a\",\"\",\"b\",\"\"]}"},
        {" ", 7, "{\"k\":[\"\",\"\"]}"},
        {"1e300 -1e300 nan", 4, "{\"k\":[2147483647,-2147483648,0]}"},
        {"3000000000.7", 5, "{\"k\":[3000000000.00]}"},
        {"1e300 -1e300", 5, "{\"k\":[9223372036854775808.00,-9223372036854775808.00]}"},
        {"0.5 x", 6, "{\"k\":[0.50,0]}"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(list_of(c.text, c.type), c.json) << c.text;
}

TEST(TelemetryValue, OnlyTheFirst128CharactersOfAListCount) {
    const std::string x63(63, 'x');
    const std::string x64(64, 'x');
    // The text's end stands at position 127, then at 128.
    EXPECT_EQ(list_of(x63 + " " + x63, 7), "{\"k\":[\"" + x63 + "\",\"" + x63 + "\"]}");
    EXPECT_EQ(list_of(x63 + " " + x64, 7), "{\"k\":[\"" + x63 + "\"]}");
    // A blank at position 127 still ends its element; the next one is lost.
    EXPECT_EQ(list_of(x63 + " " + x63 + " y", 7), "{\"k\":[\"" + x63 + "\",\"" + x63 + "\"]}");
    EXPECT_EQ(list_of(std::string(1000, 'x'), 7), "{\"k\":[]}");
    // The length ends the walk as well.
    EXPECT_EQ(list_of("ab cd", 7, 5), "{\"k\":[\"ab\"]}");
    EXPECT_EQ(list_of("ab cd", 7, 6), "{\"k\":[\"ab\",\"cd\"]}");
    EXPECT_EQ(list_of("ab", 7, 0), "{\"k\":[]}");
}

TEST(TelemetryValue, MissingArgumentsAreNamedAndChangeNothing) {
    const JsonPtr object(cJSON_CreateObject());
    cJSON *o = object.get();
    using Messages = std::vector<std::string>;
    const Messages param_error = {"param error"};
    EXPECT_EQ(
        logged_messages([] { EXPECT_EQ(telemetry_add_value_to_cJSON_object(nullptr, "k", "1", 0), -1); }),
        param_error);
    EXPECT_EQ(
        logged_messages([o] { EXPECT_EQ(telemetry_add_value_to_cJSON_object(o, "k", nullptr, 0), -1); }),
        param_error);
    EXPECT_EQ(logged_messages(
                  [o] { EXPECT_EQ(telemetry_add_value_list_to_cJSON_object(o, "k", nullptr, 1024, 4), -1); }),
              param_error);
    EXPECT_EQ(logged_messages(
                  [o] { EXPECT_EQ(telemetry_add_value_list_to_cJSON_object(o, "k", "", 1024, 4), -1); }),
              Messages{"param is empty"});
    EXPECT_EQ(logged_messages([o] { EXPECT_EQ(telemetry_add_mac_md5_to_cJSON_object(o, "k", nullptr), -1); }),
              param_error);
    EXPECT_EQ(logged_messages([o] { EXPECT_EQ(telemetry_add_mac_md5_to_cJSON_object(o, "k", ""), -1); }),
              param_error);
    EXPECT_EQ(print(object), "{}");
}

TEST(TelemetryValue, MacLeavesAsItsDigest) {
    const JsonPtr object(cJSON_CreateObject());
    EXPECT_EQ(telemetry_add_mac_md5_to_cJSON_object(object.get(), "mk", "AA-BB-CC-DD-EE-FF"), 0);
    EXPECT_EQ(print(object), "{\"mk\":\"7e62959227ac52e4c1c554c9cf6e6e36\"}");
}
