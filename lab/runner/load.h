// As much as a main node may meet, and what its daemon makes of it.
#pragma once

#include "lab.h"

// Before the lab starts: every package of the main node gets 10,000 sections more.
void load_prepare(lab::Lab &lab);
// One whole cycle, then one in which every question to the satellites is answered 256 times with 64 KiB;
// after each how long it took, how much memory, what the list holds, and how soon the bus is answered. Throws
// when a cycle does not end, or the list is longer than it may be.
void load_run(lab::Lab &lab);
