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
    const struct {
        double value;
        const char *text;
    } cases[] = {
        {0, "0"},
        {-0.0, "0"},
        {7, "7"},
        {-10304, "-10304"},
        {INT_MAX, "2147483647"},
        {INT_MIN, "-2147483648"},
        {2147483648.0, "2147483648.00"},
        {-2147483649.0, "-2147483649.00"},
        {1700000000123.0, "1700000000123.00"},
        {9007199254740991.0, "9007199254740991.00"},
        {9007199254740992.0, "9007199254740992.00"},
        {-9007199254740994.0, "-9007199254740994.00"},
        {2147483647.5, "2147483647.50"},
        {-2147483648.5, "-2147483648.50"},
        {1e21, "1000000000000000000000.00"},
        {0.5, "0.50"},
        {99.999, "100.00"},
        {0.125, "0.12"}, // a tie goes to the even digit, as printf has it
        {0.375, "0.38"},
        {-0.001, "-0.00"},
        {NAN, "null"},
        {INFINITY, "null"},
        {-INFINITY, "null"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(print(JsonPtr(cJSON_CreateNumber(c.value)).get()), c.text);
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
    EXPECT_EQ(print(cJSON_GetArrayItem(list.get(), 1)), "{\"a\":{},\"b\":[]}");
    EXPECT_EQ(print_formatted(cJSON_GetArrayItem(list.get(), 1)), "{\n\t\"a\":\t{\n\t},\n\t\"b\":\t[]\n}");
}

TEST(TelemetryJson, OddTreesPrintAsByCJson) {
    const JsonPtr shared(cJSON_Parse("{\"s\":[\"\\u0001\",{}],\"e\":{},\"n\":[[],[{}]]}"));
    const JsonPtr tree(cJSON_CreateObject());
    cJSON_AddItemReferenceToObject(tree.get(), "again", shared.get());
    cJSON_AddItemToObjectCS(tree.get(), "constant", cJSON_CreateObjectReference(shared->child));
    cJSON_AddItemToObject(tree.get(), "list", cJSON_CreateArrayReference(shared->child->child));
    cJSON_AddItemToObject(tree.get(), "text", cJSON_CreateStringReference("a\"b"));
    cJSON_AddItemToObject(tree.get(), "", cJSON_CreateRaw(""));
    // An item without a key, and one without a text.
    cJSON *keyless = cJSON_AddNullToObject(tree.get(), "k");
    cJSON_free(keyless->string);
    keyless->string = nullptr;
    cJSON *textless = cJSON_AddStringToObject(tree.get(), "t", "x");
    cJSON_free(textless->valuestring);
    textless->valuestring = nullptr;
    expect_same_as_cjson(tree.get());

    JsonPtr deep(cJSON_CreateObject());
    for (int depth = 1; depth < 1000; depth++) {
        JsonPtr outer(depth % 3 == 0 ? cJSON_CreateArray() : cJSON_CreateObject());
        if (depth % 3 == 0)
            cJSON_AddItemToArray(outer.get(), deep.release());
        else
            cJSON_AddItemToObject(outer.get(), "d", deep.release());
        deep = std::move(outer);
    }
    expect_same_as_cjson(deep.get());

    cJSON_AddItemToObject(tree.get(), "bad", cJSON_CreateRaw("x"));
    cJSON *raw = cJSON_GetObjectItem(tree.get(), "bad");
    cJSON_free(raw->valuestring);
    raw->valuestring = nullptr;
    EXPECT_EQ(print(tree.get()), "(null)");
    EXPECT_EQ(print_formatted(tree.get()), "(null)");
}

TEST(TelemetryJson, ATreeThatCannotBePrintedGivesNothing) {
    EXPECT_EQ(print(nullptr), "(null)");
    EXPECT_EQ(telemetry_json_length(nullptr), -1);

    const JsonPtr list(cJSON_CreateArray());
    cJSON_AddItemToArray(list.get(), cJSON_CreateRaw("x"));
    cJSON *raw = cJSON_GetArrayItem(list.get(), 0);
    raw->type = cJSON_Invalid;
    EXPECT_EQ(print(list.get()), "(null)");
    EXPECT_EQ(telemetry_json_length(list.get()), -1);
    raw->type = cJSON_Raw;

    // A text or key that is missing is an empty one.
    cJSON text{};
    text.type = cJSON_String;
    EXPECT_EQ(print(&text), "\"\"");
}

TEST(TelemetryJson, DepthIsBounded) {
    const auto nested = [](int depth) {
        JsonPtr tree(cJSON_CreateArray());
        for (int i = 1; i < depth; i++) {
            JsonPtr outer(cJSON_CreateArray());
            cJSON_AddItemToArray(outer.get(), tree.release());
            tree = std::move(outer);
        }
        return tree;
    };
    EXPECT_EQ(print(nested(1000).get()), std::string(1000, '[') + std::string(1000, ']'));
    EXPECT_EQ(print(nested(1001).get()), "(null)");

    // A tree that contains itself ends the same way.
    cJSON loop{};
    loop.type = cJSON_Array;
    loop.child = &loop;
    EXPECT_EQ(telemetry_json_length(&loop), -1);
}
