// The home scenario with a source for every member of every record, a wall clock that stands still and fixed
// figures: what its first upload carries is the same bytes on every machine.
#pragma once

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "lab.h"

inline constexpr char kHomeTime[] = "1767225600";
inline constexpr int kHomeWaitMs = 60000;

// Members of `patch` put over `target`: objects member by member, lists element by element.
inline void merge_json(cJSON *target, const cJSON *patch) {
    int index = 0;
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, patch) {
        cJSON *there = cJSON_IsArray(target) ? cJSON_GetArrayItem(target, index++)
                                             : cJSON_GetObjectItemCaseSensitive(target, item->string);
        const bool nodes = cJSON_IsArray(item) && cJSON_IsObject(item->child);
        if (there != nullptr && (cJSON_IsObject(item) || nodes))
            merge_json(there, item);
        else if (there != nullptr && !cJSON_IsArray(target))
            cJSON_ReplaceItemInObjectCaseSensitive(target, item->string, cJSON_Duplicate(item, 1));
        else if (!cJSON_IsArray(target))
            cJSON_AddItemToObject(target, item->string, cJSON_Duplicate(item, 1));
        else
            throw std::runtime_error("an addition to an element that the scenario does not have");
    }
}

inline std::string home_additions() {
    return lab::read_file(TEST_SOURCE_DIR "/tests/golden/home_additions.json");
}

inline lab::Scenario home_scenario() {
    const lab::Scenario home = lab::scenario_load("home");
    const lab::JsonTree additions = lab::parse_json(home_additions(), "home_additions.json");
    merge_json(home.json.get(), additions.get());
    return lab::scenario_parse(lab::print_json(home.json.get()), "home with additions");
}

// A record as it was uploaded.
struct UploadedRecord {
    std::string eid;
    lab::JsonTree payload;
    std::string text; // of the payload
};

class HomeLab {
  public:
    explicit HomeLab(lab::Scenario scenario = home_scenario()) : lab(start_clock(std::move(scenario))) {
        for (size_t i = 0; i < lab.node_count(); ++i)
            lab.node(i).advance_clock(0);
        lab.start();
        require(lab.node().wait_for_state("post state", lab::kReadyForUpload, kHomeWaitMs),
                "get key and strategy");
    }

    // One cycle and one upload; what the upload brought.
    std::vector<UploadedRecord> cycle(bool all = true) {
        lab::LabNode &node = lab.node();
        const long before = atol(node.state()["collect_count"].c_str());
        if (all)
            node.call("collect_all_next_time");
        node.call("collect_now");
        require(node.wait_for_state("collect_count", std::to_string(before + 1), kHomeWaitMs), "collect");
        const long posts = lab.cloud().count("posts");
        node.call("post_now");
        require(lab.cloud().wait_for_count("posts", posts + 1, kHomeWaitMs) &&
                    node.wait_for_state("data_collect_count", "0", kHomeWaitMs),
                "upload");
        std::vector<UploadedRecord> uploaded;
        for (const lab::CloudRecord &record : lab.cloud().records()) {
            if (record.post == posts + 1)
                uploaded.push_back({record.eid, lab::parse_json(record.payload, record.eid), record.payload});
        }
        return uploaded;
    }
    // Bytes of the latest upload.
    std::string body() {
        return lab.cloud().requests("upload").back().body;
    }

    lab::Lab lab;

  private:
    static lab::Scenario start_clock(lab::Scenario scenario) {
        setenv("LAB_WALL_TIME", kHomeTime, 1);
        return scenario;
    }
    void require(bool done, const char *what) {
        if (!done)
            throw std::runtime_error(std::string("the daemon did not ") + what + "\n" + lab.node().console());
    }
};
