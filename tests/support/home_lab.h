// The home scenario with a source for every member of every record, a wall clock that stands still and fixed
// figures: what its first upload carries is the same bytes on every machine.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "lab.h"

// A record as it was uploaded.
struct UploadedRecord {
    std::string eid, text; // the payload's
};

// Payload of a record; empty when it was not sent.
inline std::string payload(const std::vector<UploadedRecord> &records, const std::string &eid) {
    for (const UploadedRecord &record : records)
        if (record.eid == eid)
            return record.text;
    return {};
}

class HomeLab {
  public:
    static constexpr int kWaitMs = 60000;

    explicit HomeLab(const std::string &changes = "{}", const std::string &scenario = "home",
                     const std::function<void(lab::LabNode &)> &before_start = {})
        : lab(lab::scenario_load(scenario,
                                 {scenario == "stock"
                                      ? "{}"
                                      : lab::read_file(TEST_SOURCE_DIR "/tests/golden/home_additions.json"),
                                  changes})) {
        setenv("LAB_WALL_TIME", "1767225600", 1);
        for (size_t i = 0; i < lab.node_count(); ++i)
            lab.node(i).advance_clock(0);
        if (before_start)
            before_start(lab.node());
        lab.start();
        require(lab.node().wait_for_state("post state", lab::kReadyForUpload, kWaitMs),
                "get key and strategy");
    }

    // One cycle and one upload; what the upload brought.
    std::vector<UploadedRecord> cycle(bool all = true) {
        lab::LabNode &node = lab.node();
        const long before = node.number("collect_count"), posts = lab.cloud().count("posts");
        if (all)
            node.call("collect_all_next_time");
        node.call("collect_now");
        require(node.wait_for_state("collect_count", std::to_string(before + 1), kWaitMs), "collect");
        node.call("post_now");
        require(lab.cloud().wait_for_count("posts", posts + 1, kWaitMs) &&
                    node.wait_for_state("data_collect_count", "0", kWaitMs),
                "upload");
        std::vector<UploadedRecord> uploaded;
        for (const lab::CloudRecord &record : lab.cloud().records())
            if (record.post == posts + 1)
                uploaded.push_back({record.eid, record.payload});
        return uploaded;
    }
    // Ends the daemons in order. One built with sanitizers ends with another status when something was not
    // given back: what it wrote last, to its console, is returned then.
    std::string stop() {
        std::string failures;
        for (size_t i = 0; i < lab.node_count(); ++i)
            if (lab::LabNode &node = lab.node(i); node.daemon.stop() != 0)
                failures += node.read("/lab/daemon.log") +
                            node.console(std::max<size_t>(node.console_length(), 4000) - 4000) +
                            "ended badly\n";
        return failures;
    }

    lab::Lab lab;

  private:
    void require(bool done, const char *what) {
        if (!done)
            throw std::runtime_error(std::string("the daemon did not ") + what + "\n" + lab.node().log());
    }
};
