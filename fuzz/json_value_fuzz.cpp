// The option-to-JSON helpers and the JSON writer: any text, any type code, any tree that parses.
#include <cstring>

#include "support/fuzz_target.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_utils.h"

// What is printed has the measured length and parses again. Two decimals may lose digits and the sign of a
// small number ("-0.00" is 0), but only once: after that the text stays as it is.
static void check_printing(const cJSON *tree) {
    size_t length = 0;
    const TextPtr text = telemetry_json_print(tree, &length);
    require_with_memory(text != nullptr);
    if (text == nullptr)
        return;
    require(strlen(text.get()) == length && telemetry_json_length(tree) == static_cast<long>(length));
    // Again with all memory.
    const FuzzPlenty plenty;
    const JsonPtr again(cJSON_Parse(text.get()));
    require(again != nullptr);
    const TextPtr second = telemetry_json_print(again.get());
    require(second != nullptr);
    const JsonPtr settled(cJSON_Parse(second.get()));
    const TextPtr third = telemetry_json_print(settled.get());
    require(third != nullptr && strcmp(second.get(), third.get()) == 0);
    require(telemetry_json_print_formatted(tree) != nullptr);
}

static void try_values(const std::string &text, int type) {
    const JsonPtr object(cJSON_CreateObject());
    const int length = static_cast<int>(text.size() + 1);
    telemetry_add_value_to_cJSON_object(object.get(), "v", text.c_str(), type % 4);
    const int result =
        telemetry_add_value_list_to_cJSON_object(object.get(), "l", text.c_str(), length, 4 + type % 5);
    const cJSON *list = cJSON_GetObjectItem(object.get(), "l");
    require(result != 0 || list != nullptr);
    require(cJSON_GetArraySize(list) <= 128);
    require_with_memory((result == 0) == (list != nullptr));
    telemetry_add_mac_md5_to_cJSON_object(object.get(), "m", text.c_str());
    check_printing(object.get());
    char mac[kMacTextSize];
    require(mac_to_upper_short_line(mac, text.c_str()) == 0);
    telemetry_is_host(text.c_str());
}

// What shortens secrets never makes a line longer.
static void try_line(const std::string &text) {
    std::string line = text;
    telemetry_log_hide_secrets(line.data());
    require(strlen(line.c_str()) <= text.size());
}

static void run_values(const uint8_t *data, size_t size) {
    if (size == 0)
        return call_without_arguments<telemetry_flag_of_word>();
    // A zero byte ends a text: what follows it is no input.
    const std::string text(std::string(reinterpret_cast<const char *>(data + 1), size - 1).c_str());
    try_values(text, data[0]);
    try_line(text);
}

static void run_tree(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    const JsonPtr tree(cJSON_Parse(text.c_str()));
    if (cJSON_IsObject(tree.get()))
        cJSON_AddRawToObject(tree.get(), "raw", "[1]");
    if (tree != nullptr)
        check_printing(tree.get());
}

static const FuzzTargets registered({{"values", run_values}, {"json", run_tree}});
