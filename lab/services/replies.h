// What the services of a node answer, from the scenario.
#pragma once

#include "lab_scenario.h"
#include "lab_bus.h"

namespace lab {

// Fills the reply of one method as node `self` of the scenario gives it.
using ReplyBuilder = void (*)(const Scenario &scenario, const ScenarioNode &self, blob_buf *reply);

// The same of a method whose answer depends on its arguments.
using AskedReplyBuilder = void (*)(const ScenarioNode &self, const blob_attr *message, blob_buf *reply);

void iwinfo_devices(const ScenarioNode &self, const blob_attr *message, blob_buf *reply);
void iwinfo_info(const ScenarioNode &self, const blob_attr *message, blob_buf *reply);
void iwinfo_assoclist(const ScenarioNode &self, const blob_attr *message, blob_buf *reply);
void iwinfo_survey(const ScenarioNode &self, const blob_attr *message, blob_buf *reply);

struct ServiceMethod {
    const char *object;
    const char *method;
    ReplyBuilder build; // null, and no `asked`: forwarded to other nodes
    const char *needs;  // member of the node that must be there, path in dots; null: always there
    AskedReplyBuilder asked = nullptr;
};

extern const ServiceMethod kServiceMethods[12];

// Whether the node of the scenario has the method's service.
bool service_is_there(const ServiceMethod &method, const ScenarioNode &self);

} // namespace lab
