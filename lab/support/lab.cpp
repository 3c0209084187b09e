#include "lab.h"
#include "lab_files.h"
#include "lab_root.h"

#include <cstdlib>
#include <stdexcept>

namespace lab {

namespace {

constexpr int kDaemonStartMs = 30000; // many nodes on a loaded machine

// What the scenario wants of the cloud: {"strategy": {"id", "content"}, "steps": {"upload": [...], ...}}.
void set_up_cloud(LabCloud &cloud, const cJSON *wish) {
    const cJSON *strategy = cJSON_GetObjectItemCaseSensitive(wish, "strategy");
    if (strategy)
        cloud.set_strategy(json_text(strategy, "id"), json_text(strategy, "content"));
    const cJSON *steps;
    cJSON_ArrayForEach(steps, cJSON_GetObjectItemCaseSensitive(wish, "steps")) {
        cloud.script(steps->string, print_json(steps));
    }
}

} // namespace

std::string default_bin_dir() {
    const char *given = getenv("LAB_BIN_DIR");
    return given ? given : LAB_BIN_DIR;
}

Lab::Lab(const std::string &scenario_name, const std::string &bin_dir)
    : Lab(scenario_load(scenario_name), bin_dir) {}

Lab::Lab(Scenario scenario, const std::string &bin_dir, const OtherCloud &other)
    : scenario_(std::move(scenario)) {
    prepare(bin_dir, other);
}

Lab::~Lab() {
    stop();
}

void Lab::prepare(const std::string &bin_dir, const OtherCloud &other) {
    write_file(directory() + "/scenario.json", print_json(scenario_.json.get()));
    OtherCloud cloud = other;
    if (cloud.url.empty()) {
        cloud_.start(bin_dir, directory() + "/cloud");
        set_up_cloud(cloud_, cJSON_GetObjectItemCaseSensitive(scenario_.json.get(), "cloud"));
        cloud = {cloud_.address(), cloud_.ca_certificate()};
    }
    for (size_t index = 0; index < scenario_.nodes.size(); index++) {
        nodes_.push_back(std::make_unique<LabNode>(scenario_, index, directory(), bin_dir));
        root_build(nodes_.back()->root(), scenario_, index, cloud.url, cloud.authority);
    }
}

void Lab::start_without_daemons() {
    for (auto &node : nodes_)
        node->start_bus();
    for (auto &node : nodes_)
        node->start_services();
    for (auto &node : nodes_) {
        const std::string ready = node->root() + "/lab/services.ready";
        if (node->services.pid() > 0 && !wait_until([&] { return file_exists(ready); }, kDaemonStartMs))
            throw std::runtime_error("the services of node " + node->scenario().device_id +
                                     " do not start: " + node->read("/lab/services.log"));
    }
}

void Lab::start() {
    start_without_daemons();
    for (auto &node : nodes_)
        node->start_daemon();
    for (auto &node : nodes_) {
        if (!wait_until([&] { return !node->daemon.running() || node->wait_for_object("telemetry", 0); },
                        kDaemonStartMs) ||
            !node->daemon.running())
            throw std::runtime_error("the daemon of node " + node->scenario().device_id +
                                     " does not come up:\n" + node->console() +
                                     node->read("/lab/daemon.log"));
    }
}

void Lab::stop() {
    // Asked together first, so that ending many nodes takes no longer than ending one.
    for (auto &node : nodes_)
        node->daemon.signal(15);
    for (auto &node : nodes_)
        node->stop();
    cloud_.stop();
}

} // namespace lab
