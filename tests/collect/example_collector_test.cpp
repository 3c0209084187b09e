// The worked example of docs/adding-a-collector.md: it compiles as printed, and its record is the one
// printed.
#include "../docs/example_collector.cpp"

#include <fstream>

#include "collector_test.h"

static std::string source_file(const std::string &name) {
    std::ifstream file(std::string(TEST_SOURCE_DIR) + "/" + name);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Content of the page's first block of a language.
static std::string block_of(const std::string &page, const std::string &language) {
    const std::string opening = "```" + language + "\n";
    const size_t from = page.find(opening) + opening.size();
    return page.substr(from, page.find("```", from) - from);
}

TEST_F(CollectorTest, TheExampleStandsOnThePageAsItIsBuilt) {
    put("led", "config light light;option enable 1;option colour white;config night night;option begin "
               "22;option end 6;");
    const JsonPtr list(cJSON_CreateArray());
    const std::string page = source_file("docs/adding-a-collector.md");
    ASSERT_FALSE(page.empty());
    EXPECT_EQ(block_of(page, "cpp"), source_file("docs/example_collector.cpp"));

    const auto run = [&] {
        telemetry_collect_data_by_module(&ctx, list.get(), "led_info", collect_led_info);
    };
    run();
    cJSON *record = cJSON_GetArrayItem(list.get(), 0);
    ASSERT_NE(record, nullptr);
    cJSON_ReplaceItemInObject(record, "ct", cJSON_CreateNumber(1700000000));
    EXPECT_EQ(block_of(page, "json"), std::string(telemetry_json_print(record).get()) + "\n");
    EXPECT_EQ(ctx.data_collect_count, 4U);
    run();
    EXPECT_EQ(cJSON_GetArraySize(list.get()), 1) << "only after a change";
}
