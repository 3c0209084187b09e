// What the cloud accepted, as a table for people.
#pragma once

#include <string>
#include <vector>

#include "lab_cloud.h"
#include "lab_scenario.h"

// Text of the whole table. Nodes are told by their MAC's digest in the records and by name here, from the
// scenario.
std::string report_records(const std::vector<lab::CloudRecord> &records, const lab::Scenario &scenario);
