// The JSON file behind the simulated driver (its form is in README.md) and the answers made from it.
#pragma once

#include <cstddef>
#include <cstdint>

#include <cjson/cJSON.h>

namespace fakewifi {

// The scenario in force, read again when its file changed; null when there is none.
const cJSON *scenario_current();

// Fills `answer` (`length` bytes, *answered receives those that were written) for a sub-command on an
// interface. 0, or the errno of the refusal.
int scenario_answer(const cJSON *scenario, const char *ifname, uint16_t subcommand, uint8_t *answer,
                    size_t length, size_t *answered);

} // namespace fakewifi
