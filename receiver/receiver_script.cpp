#include "receiver_script.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "receiver_json.h"

using namespace receiver_json;

namespace {

constexpr std::array<std::string_view, 3> kCalls = {"key", "strategy", "upload"};
constexpr std::array<std::string_view, 11> kCallKinds = {"ok",      "drip", "error_code", "empty",
                                                         "garbage", "huge", "no_members", "wrong_type",
                                                         "raw",     "cut",  "cut_body"};
constexpr std::array<std::string_view, 5> kConnectKinds = {"ok", "unknown_ca", "wrong_host", "expired",
                                                           "cut"};
constexpr size_t kHugeAnswer = 10 << 20;

template <size_t N> bool among(const std::array<std::string_view, N> &names, const std::string &name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

} // namespace

bool script_kind_is_known(const std::string &call, const std::string &kind) {
    return call == "connect" ? among(kConnectKinds, kind) : among(kCalls, call) && among(kCallKinds, kind);
}

std::string Script::append(const cJSON *order) {
    std::string call = json_text(order, "call");
    const cJSON *steps = cJSON_GetObjectItemCaseSensitive(order, "steps");
    if (!cJSON_IsArray(steps))
        return "no steps";
    std::deque<ScriptStep> added;
    const cJSON *item;
    cJSON_ArrayForEach(item, steps) {
        ScriptStep step;
        step.kind = json_text(item, "kind", "ok");
        step.code = static_cast<int>(json_number(item, "code"));
        step.text = json_text(item, "text");
        step.bytes = static_cast<size_t>(json_number(item, "bytes", kHugeAnswer));
        step.delay_ms = static_cast<int>(json_number(item, "delay_ms"));
        step.status = static_cast<int>(json_number(item, "status", 200));
        step.times = static_cast<long>(json_number(item, "times", 1));
        if (!script_kind_is_known(call, step.kind))
            return "unknown call or kind: " + call + " " + step.kind;
        added.push_back(step);
    }
    std::lock_guard lock(mutex_);
    std::deque<ScriptStep> &queue = steps_[call];
    queue.insert(queue.end(), added.begin(), added.end());
    return "";
}

ScriptStep Script::take(const std::string &call) {
    std::lock_guard lock(mutex_);
    std::deque<ScriptStep> &queue = steps_[call];
    while (!queue.empty() && queue.front().times == 0)
        queue.pop_front();
    if (queue.empty())
        return {};
    if (queue.front().times > 0)
        queue.front().times--;
    return queue.front();
}

void Script::reset() {
    std::lock_guard lock(mutex_);
    steps_.clear();
    interrupts_++;
    wake_.notify_all();
}

size_t Script::pending() {
    std::lock_guard lock(mutex_);
    size_t count = 0;
    for (const auto &[call, queue] : steps_) {
        for (const ScriptStep &step : queue)
            count += step.times != 0 ? 1 : 0;
    }
    return count;
}

void Script::sleep(int ms) {
    std::unique_lock lock(mutex_);
    unsigned before = interrupts_;
    wake_.wait_for(lock, std::chrono::milliseconds(ms), [&] { return interrupts_ != before; });
}

void Script::interrupt() {
    std::lock_guard lock(mutex_);
    interrupts_++;
    wake_.notify_all();
}
