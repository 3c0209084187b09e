// The 6 GHz AFC state of a node: measured here for this node, gathered from the satellites.
#pragma once

#include <cjson/cJSON.h>

// Most channels of a grant that are reported.
inline constexpr int kAfcChannelCount = 64;

// Adds this node's AFC state to `object`: "en" option `afc`.`afc`.`enable` as 0/1 where it is set, and from
// the AFC agent's /tmp/afc/status {"state", "expires_in", "channels": [{"op_class", "channel", "max_eirp"}]}
// what is there of "st" state (text), "ex" seconds until the grant expires, "cl" channels [{"oc" operating
// class, "ch" channel, "pw" dBm}]. Nothing else of that file, such as the location, is used. 0, or -1 for a
// null object.
int collect_myself_afc_info(cJSON *object);
