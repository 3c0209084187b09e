// What happens on a hostile day: a table of steps, drawn by their weights.
#pragma once

#include "chaos_world.h"

namespace chaos {

struct Step {
    const char *name;
    uint32_t weight;
    // Does it; what exactly, for the report. Done again while it is in force it may do more of the same.
    std::string (*act)(World &world);
    // Puts everything right that `act` did, however often; null for what is over at once.
    void (*undo)(World &world);
};

// Draws a step and does it. What was drawn before and can be undone is undone as often as it is done again.
void random_step(World &world);
// Everything is as it should be: daemons, buses and services run, clocks and configuration are right.
void undo_all(World &world);
// Another value of the watched setting stands in the main node's configuration.
void change_setting(World &world);

} // namespace chaos
