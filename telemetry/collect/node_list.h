// Lists with one entry a mesh node, for what every node measures and the main node reports.
#pragma once

#include "telemetry_handles.h"

// Puts "dm", the digest of the node's MAC, in front of the entry's members and appends it to `list`. An entry
// without a MAC, or of a node that is in the list already, is dropped: this node's own answer comes back
// among the others.
void telemetry_node_list_add(cJSON *list, const char *mac, JsonPtr entry);
// The same for what a node answered: nothing when its "mac" is no node's of the mesh device list.
void telemetry_node_list_add_answer(cJSON *list, const cJSON *result, JsonPtr entry);
