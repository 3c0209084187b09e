#include "load.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace {

constexpr int kSections = 10000, kAnswers = 256;
constexpr size_t kAnswerSize = 64 << 10;
constexpr int kCycleMs = 600000, kReadyMs = 300000;
constexpr int kCalls = 200;
constexpr long kListLimit = 65536;

using Clock = std::chrono::steady_clock;

long ms_since(Clock::time_point begin) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count());
}

lab::JsonTree status_of(lab::LabNode &node) {
    lab::BusReply reply = node.call_object("telemetry.status", "get", "{}", kCycleMs / 1000);
    if (reply.status != 0 || !reply.json)
        throw std::runtime_error("the daemon does not answer:\n" + node.log());
    return std::move(reply.json);
}

long figure(const lab::JsonTree &status, const char *table, const char *name) {
    return static_cast<long>(lab::json_number(cJSON_GetObjectItemCaseSensitive(status.get(), table), name));
}

long memory_kb(lab::LabNode &node, const char *line) {
    const std::string told = lab::read_file("/proc/" + std::to_string(node.daemon.pid()) + "/status");
    const size_t at = told.find(line);
    return at == told.npos ? -1 : atol(told.c_str() + at + strlen(line));
}

// Median and longest of many calls in a row, which begin while an upload may be under way.
std::string answer_text(lab::LabNode &node, const char *object, const char *method) {
    std::vector<double> ms;
    for (int i = 0; i < kCalls; i++) {
        const Clock::time_point begin = Clock::now();
        node.call_object(object, method, R"({"level":"info"})");
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    }
    std::sort(ms.begin(), ms.end());
    char text[64];
    snprintf(text, sizeof(text), "%.1f ms, at most %.1f", ms[kCalls / 2], ms.back());
    return text;
}

void cycle(lab::Lab &lab, const char *name) {
    lab::LabNode &node = lab.node();
    const long before = figure(status_of(node), "counters", "cycles");
    node.call("collect_all_next_time");
    const Clock::time_point begin = Clock::now();
    node.call("collect_now");
    lab::JsonTree status;
    const bool ends = lab::wait_until(
        [&] {
            const lab::BusReply reply = node.call_object("telemetry.status", "get", "{}", kCycleMs / 1000);
            status.reset(cJSON_Parse(reply.text.c_str()));
            return !node.daemon.running() || figure(status, "counters", "cycles") > before;
        },
        kCycleMs);
    if (!ends || !node.daemon.running())
        throw std::runtime_error(std::string("the cycle does not end: ") + name + "\n" + node.log());
    const long took = ms_since(begin), list = figure(status, "list", "bytes");
    const cJSON *modules = cJSON_GetObjectItemCaseSensitive(
        cJSON_GetObjectItemCaseSensitive(status.get(), "last_collection"), "modules");
    long in_modules = 0;
    const cJSON *module;
    cJSON_ArrayForEach(module, modules) in_modules += static_cast<long>(lab::json_number(module, "ms"));
    node.call("post_now");
    const std::string command = answer_text(node, "telemetry", "debug");
    const std::string status_call = answer_text(node, "telemetry.status", "get");
    printf("%s: cycle %ld ms (snapshot %ld, modules %ld), %ld clients; list %ld records, %ld bytes; memory "
           "%ld kB, "
           "most %ld; a command is answered in %s, the status in %s\n",
           name, took, figure(status, "last_collection", "ms") - in_modules, in_modules,
           static_cast<long>(
               lab::json_number(cJSON_GetObjectItemCaseSensitive(modules, "client_info"), "items")),
           figure(status, "list", "records"), list, memory_kb(node, "VmRSS:"), memory_kb(node, "VmHWM:"),
           command.c_str(), status_call.c_str());
    fflush(stdout);
    if (list >= kListLimit)
        throw std::runtime_error("the list is longer than " + std::to_string(kListLimit) + " bytes");
}

} // namespace

void load_prepare(lab::Lab &lab) {
    std::string sections;
    for (int i = 0; i < kSections; i++) {
        const std::string number = std::to_string(i);
        sections += "\nconfig filler 'filler" + number +
                    "'\n\toption mac '06:00:00:00:" + number.substr(0, 2) + ":00'\n\toption value '" +
                    number + "'\n";
    }
    for (const auto &package : std::filesystem::directory_iterator(lab.node().root() + "/etc/config"))
        lab::write_file(package.path(), lab::read_file(package.path()) + sections);
}

void load_run(lab::Lab &lab) {
    lab::LabNode &node = lab.node();
    if (!lab::wait_until([&] { return lab::json_text(status_of(node).get(), "state") == "ready"; }, kReadyMs))
        throw std::runtime_error("the daemon does not become ready:\n" + node.log());
    printf("after the start: memory %ld kB\n", memory_kb(node, "VmRSS:"));
    cycle(lab, "a big home");
    node.set_faults(R"({"sync.request":{"kind":"reply","times":)" + std::to_string(kAnswers) +
                    R"(,"reply":{"success":1,"data":{"result":{"text":")" + std::string(kAnswerSize, 'x') +
                    R"("}}}}})");
    cycle(lab, "256 answers of 64 KiB");
    node.set_faults("{}");
    cycle(lab, "a big home again");
}
