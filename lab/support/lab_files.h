// Files, directories and waiting, as the lab and the tests need them. Failures throw std::runtime_error: a
// lab that cannot write its own directory has nothing better to do than to say so and end.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "receiver_json.h"

namespace lab {

using receiver_json::json_number;
using receiver_json::json_text;
using receiver_json::JsonTree;
using receiver_json::print_json;
using receiver_json::write_file;

// Parses `text`; throws with `what`, line and column in the message when it is not JSON.
JsonTree parse_json(const std::string &text, const std::string &what);
// Member `name` of an object; the fallback when it is missing or of another type.
bool json_flag(const cJSON *object, const char *name, bool fallback);

bool file_exists(const std::string &path);
// Whole content; empty when the file cannot be read.
std::string read_file(const std::string &path);
void make_directories(const std::string &path);

// Asks `condition`, less and less often, until it holds or `timeout_ms` have passed; returns whether it
// held. Throws std::runtime_error("interrupted") once after interrupt_waits().
bool wait_until(const std::function<bool()> &condition, int timeout_ms);
// Ends the wait in progress, or the next one; may be called from a signal handler.
void interrupt_waits();
// Whether an interruption is still to be taken by a wait.
bool interrupt_is_pending();

// A directory of its own below /tmp with a short name (socket paths are limited to 107 bytes), removed when
// the object goes or when this process dies in whatever way.
class RunDirectory {
  public:
    RunDirectory();
    ~RunDirectory();
    RunDirectory(const RunDirectory &) = delete;
    RunDirectory &operator=(const RunDirectory &) = delete;
    const std::string &path() const {
        return path_;
    }

  private:
    std::string path_;
    int alive_pipe_ = -1;
    int janitor_ = -1;
};

} // namespace lab
