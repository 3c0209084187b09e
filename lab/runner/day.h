// A day of the lab in a few minutes: 97 cycles on clocks that only the runner moves.
#pragma once

#include "lab.h"

// Before the lab starts: the daemons' day ends about now.
void day_prepare(lab::Lab &lab);
// Runs it. Temperatures and link rates rise and fall; the hourly cycles collect everything. Throws when a
// cycle does not come.
void day_run(lab::Lab &lab);
