// What a person wants to know of the mesh, told by the uploaded records alone.
#pragma once

#include <string>
#include <vector>

#include "lab_cloud.h"

// Nodes with load, memory, temperatures and parent; clients by node with band, rates and signal; wireless
// networks. Of several records of a kind the latest counts; what was not uploaded is left out. Nodes have the
// names of their owner, clients their kind and the beginning of their digest: the records know no more.
std::string summary_text(const std::vector<lab::CloudRecord> &records);
