#include "day.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <thread>

namespace {

constexpr int64_t kQuarterMs = 900000, kBeforeMs = 8000;
constexpr int kCycleMs = 120000;
// Between two questions, which a day is not to be measured by.
constexpr auto kPause = std::chrono::milliseconds(250);
constexpr double kPi = 3.14159265358979;

void advance(lab::Lab &lab, int64_t ms) {
    for (size_t index = 0; index < lab.node_count(); index++)
        lab.node(index).advance_clock(ms);
}

long questions = 0;

// A number of the daemon's status, -1 when it does not answer.
long number_of(lab::LabNode &node, const char *table, const char *name) {
    ++questions;
    const lab::BusReply reply = node.call_object("telemetry.status", "get");
    const cJSON *status = reply.json.get();
    if (table != nullptr)
        status = cJSON_GetObjectItemCaseSensitive(status, table);
    return static_cast<long>(lab::json_number(status, name, -1));
}

template <typename Condition> bool wait_calmly(Condition condition) {
    return lab::wait_until(
        [&] {
            std::this_thread::sleep_for(kPause);
            return condition();
        },
        kCycleMs);
}

// No request of the daemon is under way: a leap of its clock would let it time out.
bool is_idle(lab::LabNode &node) {
    return number_of(node, nullptr, "requests") == 0;
}

void vary(cJSON *item, double swing) {
    for (; item; item = item->next) {
        const std::string name = item->string ? item->string : "";
        if (cJSON_IsNumber(item) && name == "temperature")
            cJSON_SetNumberValue(item, std::round(item->valuedouble + 9 * swing));
        else if (cJSON_IsNumber(item) && (name == "tx" || name == "rx"))
            cJSON_SetNumberValue(item, std::round(item->valuedouble * (1 - 0.3 * swing)));
        vary(item->child, swing);
    }
}

// The warmest hour is three in the afternoon, and each node has its own.
void set_hour(lab::Lab &lab, const std::vector<std::string> &drivers, double hour) {
    for (size_t index = 0; index < lab.node_count(); index++) {
        const double swing = std::sin((hour - 9 - static_cast<double>(index)) / 12 * kPi);
        const lab::JsonTree driver = lab::parse_json(drivers[index], "driver file");
        vary(driver->child, swing);
        lab.node(index).write("/tmp/fakewifi.json", lab::print_json(driver.get()));
        const std::pair<const char *, std::string> files[] = {
            {"/sys/class/thermal/thermal_zone0/temp", std::to_string(52000 + lround(9000 * swing)) + "\n"},
            {"/proc/sys/net/netfilter/nf_conntrack_count", std::to_string(420 + lround(260 * swing)) + "\n"},
            {"/proc/meminfo",
             "MemTotal: 512000 kB\nMemFree: " + std::to_string(128000 - lround(52000 * swing)) +
                 " kB\nBuffers: 16000 kB\nCached: 64000 kB\n"}};
        for (const auto &[path, text] : files)
            lab.node(index).write(path, text);
    }
}

} // namespace

void day_prepare(lab::Lab &lab, long cycles) {
    setenv("LAB_WALL_TIME", std::to_string(time(nullptr) - cycles * kQuarterMs / 1000 - 600).c_str(), 1);
    advance(lab, 0);
}

void day_run(lab::Lab &lab, long cycles) {
    lab::LabNode &node = lab.node();
    std::vector<std::string> drivers;
    for (size_t index = 0; index < lab.node_count(); index++)
        drivers.push_back(lab.node(index).read("/tmp/fakewifi.json"));
    for (long cycle = 1; cycle <= cycles; cycle++) {
        set_hour(lab, drivers, static_cast<double>(cycle) / 4);
        if (cycle % 4 == 1)
            node.call("collect_all_next_time");
        const long before = number_of(node, "counters", "cycles");
        if (before < 0)
            throw std::runtime_error("the daemon does not answer");
        advance(lab, kQuarterMs - kBeforeMs);
        wait_calmly([&] { return is_idle(node); });
        advance(lab, kBeforeMs + 1000);
        if (!wait_calmly([&] { return number_of(node, "counters", "cycles") > before; }))
            throw std::runtime_error("the day stands still at cycle " + std::to_string(cycle));
        wait_calmly([&] { return is_idle(node); });
        printf("\r%2ld:%02ld", cycle / 4 % 24, cycle % 4 * 15);
        fflush(stdout);
    }
    const long posts = lab.cloud().count("posts");
    node.call("post_now");
    if (number_of(node, "list", "records") != 0)
        lab.cloud().wait_for_count("posts", posts + 1, kCycleMs);
    printf("\ra day has passed: %ld cycles, %ld uploads, %ld questions\n", cycles, lab.cloud().count("posts"),
           questions);
}
