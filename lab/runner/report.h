// What the cloud accepted, as a table for people.
#pragma once

#include <string>
#include <vector>

#include "lab_cloud.h"
#include "lab_scenario.h"

// Text of the whole table. Nodes are told by their MAC's digest in the records and by name here, from the
// scenario.
std::string report_records(const std::vector<lab::CloudRecord> &records, const lab::Scenario &scenario);
// A line about records that the daemon collected and the cloud does not have, and why; empty when there are
// none. `status` is the answer of `telemetry.status get`.
std::string left_behind_text(const cJSON *status, const std::vector<lab::CloudRecord> &records);
