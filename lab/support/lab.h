// A whole lab: cloud and nodes of a scenario, in a directory of its own, ended and removed with the object.
//
//   lab::Lab lab("one");                     // the directory stands, the cloud serves, nothing else runs
//   lab.node().set_config("telemetry", "basic", "enable", "0");
//   lab.cloud().script("upload", R"([{"kind":"garbage"}])");
//   lab.start();                             // bus, services, daemon of every node
//   lab.node().call("collect_now");
//   lab.cloud().wait_for_count("posts", 1, 10000);
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "lab_cloud.h"
#include "lab_node.h"
#include "lab_scenario.h"

namespace lab {

// Where the programs were built, unless the environment's LAB_BIN_DIR says otherwise.
std::string default_bin_dir();

// A service that is not the lab's, with whom the main node's daemon speaks instead.
struct OtherCloud {
    std::string url;
    std::string authority; // text of the certificates that its own must be signed by
};

class Lab {
  public:
    explicit Lab(const std::string &scenario_name = "one", const std::string &bin_dir = default_bin_dir());
    // With another cloud the lab's own does not run: cloud() is not to be asked.
    explicit Lab(Scenario scenario, const std::string &bin_dir = default_bin_dir(),
                 const OtherCloud &other = {});
    ~Lab();
    Lab(const Lab &) = delete;
    Lab &operator=(const Lab &) = delete;

    // Starts bus, services and daemon of every node and waits for the daemons' bus objects. Throws
    // std::runtime_error that names the node and shows its console when one does not come up.
    void start();
    // The same without the daemons, for tests that start them by hand.
    void start_without_daemons();
    void stop();

    const Scenario &scenario() const {
        return scenario_;
    }
    const std::string &directory() const {
        return directory_.path();
    }
    LabCloud &cloud() {
        return cloud_;
    }
    LabNode &node(size_t index = 0) {
        return *nodes_.at(index);
    }
    size_t node_count() const {
        return nodes_.size();
    }

  private:
    void prepare(const std::string &bin_dir, const OtherCloud &other);
    RunDirectory directory_; // first: it goes last
    Scenario scenario_;
    LabCloud cloud_;
    std::vector<std::unique_ptr<LabNode>> nodes_;
};

} // namespace lab
