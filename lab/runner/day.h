// A day of the lab in a few minutes: cycles a quarter of an hour apart on clocks that only the runner moves.
#pragma once

#include "lab.h"

inline constexpr long kDayCycles = 97; // the last one is the daily one

// Before the lab starts: the daemons' day ends about now.
void day_prepare(lab::Lab &lab, long cycles);
// Runs it. Temperatures and link rates rise and fall; the hourly cycles collect everything. Throws when a
// cycle does not come.
void day_run(lab::Lab &lab, long cycles);
