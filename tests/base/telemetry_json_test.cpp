#include "telemetry_json.h"

#include <climits>
#include <cmath>
#include <random>

#include <gtest/gtest.h>

static std::string print(const cJSON *item) {
    size_t length = 0;
    const TextPtr text = telemetry_json_print(item, &length);
    if (text == nullptr)
        return "(null)";
    EXPECT_EQ(strlen(text.get()), length);
    EXPECT_EQ(telemetry_json_length(item), static_cast<long>(length));
    return text.get();
}

static std::string print_formatted(const cJSON *item) {
    const TextPtr text = telemetry_json_print_formatted(item);
    return text == nullptr ? "(null)" : text.get();
}

static void expect_same_as_cjson(const cJSON *item) {
    const TextPtr compact(cJSON_PrintUnformatted(item));
    const TextPtr formatted(cJSON_Print(item));
    EXPECT_EQ(print(item), compact.get());
    EXPECT_EQ(print_formatted(item), formatted.get());
}

TEST(TelemetryJson, NumbersFollowTheWireFormat) {
    const std::pair<double, const char *> cases[] = {
        {-0.0, "0"},
        {INT_MAX, "2147483647"},
        {INT_MIN, "-2147483648"},
        {2147483648.0, "2147483648.00"},
        {-9007199254740994.0, "-9007199254740994.00"},
        {2147483647.5, "2147483647.50"},
        {1e21, "1000000000000000000000.00"},
        {0.125, "0.12"}, // a tie goes to the even digit
        {-0.001, "-0.00"},
        {NAN, "null"},
        {-INFINITY, "null"},
    };
    for (const auto &[value, text] : cases)
        EXPECT_EQ(print(JsonPtr(cJSON_CreateNumber(value)).get()), text);
}

TEST(TelemetryJson, FractionsRoundAsPrintf) {
    std::mt19937_64 random(1);
    for (int i = 0; i < 20000; i++) {
        const uint64_t bits = random();
        double value;
        memcpy(&value, &bits, sizeof(value));
        if (i % 2 == 0)
            value = static_cast<double>(bits >> 40) / 1000;
        if (!std::isfinite(value) || (value == std::trunc(value) && std::fabs(value) <= INT_MAX))
            continue;
        char expected[400];
        snprintf(expected, sizeof(expected), "%.2f", value);
        EXPECT_EQ(print(JsonPtr(cJSON_CreateNumber(value)).get()), expected);
    }
}

TEST(TelemetryJson, EveryByteOfATextIsEscapedAsByCJson) {
    for (int c = 1; c < 256; c++) {
        // At every place of the eight-byte steps, and in the rest behind them.
        for (size_t at = 0; at < 20; at++) {
            std::string text(20, '~');
            text[at] = static_cast<char>(c);
            expect_same_as_cjson(JsonPtr(cJSON_CreateString(text.c_str())).get());
        }
    }
}

static std::string random_text(std::mt19937 &random) {
    std::string text(random() % 40, 'a');
    for (char &c : text)
        c = static_cast<char>(random() % 4 == 0 ? 1 + random() % 255 : 'a' + random() % 26);
    return text;
}

static cJSON *random_tree(std::mt19937 &random, int depth) {
    const unsigned long kind = random() % (depth > 0 ? 8 : 6);
    switch (kind) {
    case 0:
        return cJSON_CreateNull();
    case 1:
        return cJSON_CreateBool(random() % 2);
    case 2:
    case 3:
        return cJSON_CreateNumber(static_cast<int32_t>(random()) >> (random() % 31));
    case 4:
        return cJSON_CreateString(random_text(random).c_str());
    case 5:
        return cJSON_CreateRaw("{ \"raw\" : 1.5 }");
    default:
        break;
    }
    cJSON *container = kind == 6 ? cJSON_CreateArray() : cJSON_CreateObject();
    for (unsigned long n = random() % 6; n > 0; n--) {
        cJSON *item = random_tree(random, depth - 1);
        if (kind == 6)
            cJSON_AddItemToArray(container, item);
        else
            cJSON_AddItemToObject(container, random_text(random).c_str(), item);
    }
    return container;
}

TEST(TelemetryJson, RandomTreesPrintAsByCJson) {
    std::mt19937 random(2);
    for (int i = 0; i < 3000; i++) {
        const JsonPtr tree(random_tree(random, 6));
        expect_same_as_cjson(tree.get());
    }
}

TEST(TelemetryJson, AnItemPrintsWithoutItsNeighbours) {
    const JsonPtr list(cJSON_Parse("[[1,2],{\"a\":{},\"b\":[]},3]"));
    EXPECT_EQ(print(cJSON_GetArrayItem(list.get(), 0)), "[1,2]");
    EXPECT_EQ(print_formatted(cJSON_GetArrayItem(list.get(), 1)), "{\n\t\"a\":\t{\n\t},\n\t\"b\":\t[]\n}");
}

static JsonPtr wrapped(JsonPtr item, bool in_array) {
    JsonPtr outer(in_array ? cJSON_CreateArray() : cJSON_CreateObject());
    if (in_array)
        cJSON_AddItemToArray(outer.get(), item.release());
    else
        cJSON_AddItemToObject(outer.get(), "d", item.release());
    return outer;
}

TEST(TelemetryJson, OddTreesPrintAsByCJson) {
    const JsonPtr shared(cJSON_Parse("{\"s\":[\"\\u0001\",{}],\"e\":{},\"n\":[[],[{}]]}"));
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
    cJSON *raw = cJSON_AddRawToObject(tree.get(), "bad", "x");
    raw->type = cJSON_Invalid;
    EXPECT_EQ(print(tree.get()), "(null)");
    EXPECT_EQ(print_formatted(tree.get()), "(null)");
    EXPECT_EQ(telemetry_json_length(tree.get()), -1);
    EXPECT_EQ(print(nullptr), "(null)");
    EXPECT_EQ(telemetry_json_length(nullptr), -1);
}

TEST(TelemetryJson, DepthIsBounded) {
    JsonPtr tree(cJSON_CreateObject());
    for (int depth = 1; depth < 1000; depth++)
        tree = wrapped(std::move(tree), depth % 3 == 0);
    expect_same_as_cjson(tree.get());
    EXPECT_EQ(print(wrapped(std::move(tree), true).get()), "(null)");

    // A tree that contains itself ends the same way.
    cJSON loop{};
    loop.type = cJSON_Array;
    loop.child = &loop;
    EXPECT_EQ(telemetry_json_length(&loop), -1);
}
