// The root directory of one node: everything that the daemon reads from the system, made from the scenario.
#pragma once

#include <string>

#include "lab_scenario.h"

namespace lab {

// Builds the directory `root` of node `index` of the scenario. `cloud_url` goes to the configuration,
// `ca_certificate` (PEM text) to the file that the daemon trusts.
void root_build(const std::string &root, const Scenario &scenario, size_t index, const std::string &cloud_url,
                const std::string &ca_certificate);

// Writes a file below `root`; a link on the way (to this machine's own /proc, say) is replaced, never
// followed.
void root_write(const std::string &root, const std::string &path, const std::string &text);

// The mesh device list and the satellites' client list of a scenario, as the platform's services would write
// them.
std::string root_mesh_device_list(const Scenario &scenario);
std::string root_satellite_clients(const Scenario &scenario);

} // namespace lab
