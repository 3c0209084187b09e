// cJSON trees that free themselves, their members by type, and the few files that the receiver writes. The
// lab reads and writes with them, too; they have a namespace because the daemon, which its tests link, has a
// json_text of its own.
#pragma once

#include <memory>
#include <string>

#include <cjson/cJSON.h>

namespace receiver_json {

struct JsonDelete {
    void operator()(cJSON *tree) const {
        cJSON_Delete(tree);
    }
};
using JsonTree = std::unique_ptr<cJSON, JsonDelete>;

// Compact text of a tree.
std::string print_json(const cJSON *tree);
// Member `name` of an object as text or number; the fallback when it is missing or of another type.
std::string json_text(const cJSON *object, const char *name, const std::string &fallback = "");
double json_number(const cJSON *object, const char *name, double fallback = 0);

// The text between quotes, as a JSON string: bytes that are no UTF-8 stay as they are.
std::string json_quoted(const std::string &text);

// Whole content; throws std::runtime_error when the file cannot be read.
std::string read_file(const std::string &path);
// Writes through a temporary file and a rename, so that a reader sees the old or the new content.
void write_file(const std::string &path, const std::string &text, unsigned mode = 0644);

} // namespace receiver_json
