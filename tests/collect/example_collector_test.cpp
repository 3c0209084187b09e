// The worked example of docs/adding-a-collector.md: it compiles as printed, and its record is the one
// printed.
#include "../docs/example_collector.cpp"

#include <fstream>

#include <gmock/gmock.h>

#include "sysroot.h"
#include "telemetry_json.h"
#include "telemetry_log.h"

using testing::HasSubstr;

namespace {

std::string source_file(const std::string &name) {
    std::ifstream file(std::string(TEST_SOURCE_DIR) + "/" + name);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Content of the page's first block of a language.
std::string block_of(const std::string &page, const std::string &language) {
    const std::string opening = "```" + language + "\n";
    const size_t from = page.find(opening) + opening.size();
    return page.substr(from, page.find("```", from) - from);
}

class ExampleCollector : public SysrootTest {
  protected:
    ExampleCollector() {
        telemetry_debug_level = TELEMETRY_LOG_ERROR;
        root.write_backup("");
        root.write_config("led", "config light 'light'\n\toption enable '1'\n\toption colour 'white'\n"
                                 "config night 'night'\n\toption begin '22'\n\toption end '6'\n");
    }
    // Runs the collector as a module of a cycle and returns the list's text.
    std::string run() {
        telemetry_collect_data_by_module(&ctx, list.get(), "led_info", collect_led_info);
        return telemetry_json_print(list.get()).get();
    }
    TelemetryCtx ctx = {};
    JsonPtr list{cJSON_CreateArray()};
};

TEST_F(ExampleCollector, StandsOnThePageAsItIsBuilt) {
    const std::string page = source_file("docs/adding-a-collector.md");
    ASSERT_FALSE(page.empty());
    EXPECT_EQ(block_of(page, "cpp"), source_file("docs/example_collector.cpp"));

    run();
    cJSON *record = cJSON_GetArrayItem(list.get(), 0);
    ASSERT_NE(record, nullptr);
    cJSON_ReplaceItemInObject(record, "ct", cJSON_CreateNumber(1700000000));
    EXPECT_EQ(block_of(page, "json"), std::string(telemetry_json_print(record).get()) + "\n");
    EXPECT_EQ(ctx.data_collect_count, 4U);
}

TEST_F(ExampleCollector, ReportsAgainOnlyAfterAChange) {
    run();
    run();
    EXPECT_EQ(cJSON_GetArraySize(list.get()), 1);

    root.write_config("led", "config light 'light'\n\toption enable '0'\n\toption colour 'white'\n"
                             "config night 'night'\n\toption end '6'\n");
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    const OutputCapture said;
    const std::string text = run();
    EXPECT_THAT(text, HasSubstr(R"("ep":{"en":0,"ne":6,"co":"white"},"cnt":3})"));
    EXPECT_THAT(said.text(), HasSubstr("] collect_led_info(")) << "the line is the collector's own";
    EXPECT_THAT(said.text(), HasSubstr("): collect led info successfully, now data collect count is: 3!\n"));
}

// The other pattern, with a collector of the same size.
int collect_colours(TelemetryCtx *, cJSON *payload, uint32_t *count) {
    char colour[64] = {};
    telemetry_get_uci_value("led", "light", "colour", colour, sizeof(colour), TELEMETRY_UCI_SYSTEM);
    JsonPtr colours(cJSON_CreateArray());
    telemetry_attach_element(colours.get(), JsonPtr(cJSON_CreateString(colour)));
    return telemetry_collect_changed_object("led", "colours", "cl", std::move(colours), 1, "colours same",
                                            payload, count);
}

TEST_F(ExampleCollector, ReportsABuiltObjectOnlyWhenItsDigestChanged) {
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    const std::pair<const char *, bool> cases[] = {{"white", false}, {"white", true}, {"red", false}};
    for (const auto &[colour, same] : cases) {
        root.write_config("led", "config light 'light'\n\toption colour '" + std::string(colour) + "'\n");
        const OutputCapture said;
        telemetry_collect_data_by_module(&ctx, list.get(), "colours", collect_colours);
        EXPECT_EQ(said.has("] collect_colours("), same);
        EXPECT_EQ(said.has("): colours same\n"), same);
    }
    ASSERT_EQ(cJSON_GetArraySize(list.get()), 2);
    EXPECT_THAT(telemetry_json_print(list.get()).get(), HasSubstr(R"("ep":{"cl":["red"]},"cnt":1})"));
}

} // namespace
