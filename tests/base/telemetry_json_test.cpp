#include "telemetry_blob.h"
#include "telemetry_json.h"
#include "telemetry_json_message.h"

#include <climits>
#include <cmath>

#include <gtest/gtest.h>

static std::string print(const cJSON *item) {
    size_t length = 0;
    const TextPtr text = telemetry_json_print(item, &length);
    EXPECT_EQ(telemetry_json_length(item), text == nullptr ? -1 : static_cast<long>(length));
    if (text == nullptr)
        return "(null)";
    EXPECT_EQ(strlen(text.get()), length);
    std::string room(length + 1, '~'); // and one byte less is not enough
    EXPECT_EQ(telemetry_json_print_to(item, room.data(), length), 0u);
    EXPECT_EQ(telemetry_json_print_to(item, room.data(), length + 1), length);
    EXPECT_STREQ(room.c_str(), text.get());
    return text.get();
}

static void expect_same_as_cjson(const cJSON *item) {
    const TextPtr compact(cJSON_PrintUnformatted(item)), formatted(cJSON_Print(item));
    EXPECT_EQ(print(item), compact.get());
    EXPECT_STREQ(telemetry_json_print_formatted(item).get(), formatted.get());
}

static std::string number_text(double value) {
    return print(JsonPtr(cJSON_CreateNumber(value)).get());
}

TEST(TelemetryJson, NumbersFollowTheWireFormat) {
    const std::pair<double, const char *> cases[] = {
        {-0.0, "0"},
        {INT_MAX, "2147483647"},
        {INT_MIN, "-2147483648"},
        {2147483648.0, "2147483648.00"},
        {-9007199254740994.0, "-9007199254740994.00"},
        {0.125, "0.12"}, // a tie goes to the even digit
        {-0.001, "-0.00"},
        {NAN, "null"},
        {-INFINITY, "null"},
    };
    for (const auto &[value, text] : cases)
        EXPECT_EQ(number_text(value), text);
    for (double power = 1; power < INT_MAX; power *= 10) {
        for (const double value : {power, -power, power - 1})
            expect_same_as_cjson(JsonPtr(cJSON_CreateNumber(value)).get());
    }
}

// At every place of the eight-byte steps, and in the rest behind them.
TEST(TelemetryJson, EveryByteOfATextIsEscapedAsByCJson) {
    const JsonPtr texts(cJSON_CreateArray());
    for (unsigned i = 0; i < 127 * 20; i++) {
        std::string text(20, '~');
        text[i % 20] = static_cast<char>(1 + i / 20);
        cJSON_AddItemToArray(texts.get(), cJSON_CreateString(text.c_str()));
    }
    expect_same_as_cjson(texts.get());
}

TEST(TelemetryJson, WhatIsNoUtf8IsReplaced) {
    const std::string bad = "\xef\xbf\xbd";
    const std::pair<std::string, std::string> cases[] = {
        {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
        {"\xee\x80\x80\xef\xbf\xbf\xf4\x8f\xbf\xbf", "\xee\x80\x80\xef\xbf\xbf\xf4\x8f\xbf\xbf"},
        {"caf\xc3", "caf" + bad},                              // cut inside a character
        {"\xf0\x9f\x98 \xe2\x82\"", bad + " " + bad + "\\\""}, // one for what began well
        {"\x80\xff\xfe", bad + bad + bad},
        {"\xc0\xaf\xe0\x9f\xbf", bad + bad + bad + bad + bad}, // overlong
        {"\xed\xa0\x80", bad + bad + bad},                     // a surrogate
        {"\xf4\x90\x80\x80", bad + bad + bad + bad},           // beyond U+10FFFF
    };
    for (const auto &[text, printed] : cases) {
        for (size_t before = 0; before < 9; before++) { // at every place of the eight-byte steps
            const std::string around(before, '~');
            const JsonPtr object(cJSON_CreateObject());
            cJSON_AddStringToObject(object.get(), (around + text).c_str(), (around + text + around).c_str());
            EXPECT_EQ(print(object.get()),
                      "{\"" + around + printed + "\":\"" + around + printed + around + "\"}");
        }
    }
}

TEST(TelemetryJson, ACutCopyEndsWithAWholeCharacter) {
    const std::pair<std::string, std::string> cases[] = {
        {"123456789", "1234567"},
        {"123456\xc3\xa9", "123456"},
        {"12345\xe2\x82\xac", "12345"},
        {"1234\xf0\x9f\x98\x80", "1234"},
        {"12345\xc3\xa9", "12345\xc3\xa9"},
        {"12345\xc3\xa9!", "12345\xc3\xa9"},
        {"\x80\x80\x80\x80\x80\x80\x80\x80", "\x80\x80\x80\x80\x80\x80\x80"},
    };
    for (const auto &[text, copy] : cases) {
        char field[8];
        copy_text(field, text.c_str());
        EXPECT_EQ(field, copy);
    }
}

TEST(TelemetryJson, TreesPrintAsByCJson) {
    const JsonPtr shared(cJSON_Parse(R"({"s":["\u0001",{}],"e":{},"n":[[],[{}]],"\"k\"":[true,false,null,-7,)"
                                     R"({"a":{"b":[1,[2,{"c":"d","e":[]}],3]},"f":{"g":{}}}],"last":"x"})"));
    for (const cJSON *item = shared->child; item != nullptr; item = item->next)
        expect_same_as_cjson(item); // without its neighbours
    const JsonPtr tree(cJSON_CreateObject());
    cJSON_AddItemReferenceToObject(tree.get(), "again", shared.get());
    cJSON_AddItemToObjectCS(tree.get(), "constant", cJSON_CreateObjectReference(shared->child));
    cJSON_AddItemToObject(tree.get(), "", cJSON_CreateRaw(""));
    // One without a key, one without a text.
    cJSON *keyless = cJSON_AddNullToObject(tree.get(), "k");
    cJSON *textless = cJSON_AddStringToObject(tree.get(), "t", "x");
    for (char **text : {&keyless->string, &textless->valuestring}) {
        cJSON_free(*text);
        *text = nullptr;
    }
    expect_same_as_cjson(tree.get());

    // What is no item makes the whole unprintable.
    cJSON_AddRawToObject(tree.get(), "bad", "x")->type = cJSON_Invalid;
    EXPECT_EQ(print(tree.get()), "(null)");
    EXPECT_EQ(telemetry_json_print_formatted(tree.get()), nullptr);
    EXPECT_EQ(print(nullptr), "(null)");

    // What is kept as text is laid out as the tree that it was.
    const JsonPtr was(cJSON_Parse(R"({"l":[{"a":1,"b":[{}]},{}]})")), kept(cJSON_CreateObject());
    cJSON *list = cJSON_AddArrayToObject(kept.get(), "l");
    for (const char *text : {R"({"a":1,"b":[{}]})", "{}"})
        cJSON_AddItemToArray(list, cJSON_CreateRaw(text));
    EXPECT_STREQ(telemetry_json_print_formatted(kept.get()).get(), TextPtr(cJSON_Print(was.get())).get());
}

TEST(TelemetryJson, DepthIsBounded) {
    JsonPtr tree(cJSON_CreateObject());
    for (int depth = 1; depth <= 1000; depth++) {
        cJSON *outer = depth % 3 == 0 ? cJSON_CreateArray() : cJSON_CreateObject();
        if (depth == 1000)
            expect_same_as_cjson(tree.get());
        if (depth % 3 == 0)
            cJSON_AddItemToArray(outer, tree.release());
        else
            cJSON_AddItemToObject(outer, "d", tree.release());
        tree.reset(outer);
    }
    EXPECT_EQ(print(tree.get()), "(null)");

    // A tree that contains itself ends the same way.
    cJSON loop{};
    loop.type = cJSON_Array;
    loop.child = &loop;
    EXPECT_EQ(telemetry_json_length(&loop), -1);
}

// Also where the text is no JSON: after each byte of a message was spoiled.
TEST(TelemetryJson, TreeOfAMessageIsThatOfItsText) {
    for (const char *json :
         {R"({"s":"q\"\\\u0001é","l":[1,2147483648,[],{}],"t":{"b":true,"n":null,"d":-1.5,"h":1e-9}})",
          R"({"e":1e40,"f":[false]})", R"({"e":1e300})", R"({"e":1e999})", R"({"":1})"}) {
        BlobBuffer message;
        blobmsg_add_json_from_string(message.get(), json);
        blobmsg_add_u16(message.get(), "w", 0xfffe);
        const auto expect_same = [&] {
            const TextPtr text(blobmsg_format_json(message.head(), true));
            const JsonPtr parsed(text ? cJSON_Parse(text.get()) : nullptr);
            const TextPtr expected(cJSON_PrintUnformatted(parsed.get()));
            const TextPtr tree(cJSON_PrintUnformatted(telemetry_json_of_message(message.head()).get()));
            EXPECT_STREQ(tree.get(), expected.get()) << json;
        };
        expect_same();
        char *bytes = reinterpret_cast<char *>(message.head());
        for (size_t at = sizeof(blob_attr); at < blob_raw_len(message.head()); ++at)
            for (const int change : {1, 4, 0x20, 0x80, 0xff}) {
                bytes[at] = static_cast<char>(bytes[at] ^ change);
                expect_same();
                bytes[at] = static_cast<char>(bytes[at] ^ change);
            }
    }
}
