// Restarts: of the router, told by other programs, and of the daemon, counted by itself.
#pragma once

// Counts a start of the daemon in /tmp/telemetry/restart, which a reboot empties. Called once, at start.
void telemetry_count_daemon_start();
