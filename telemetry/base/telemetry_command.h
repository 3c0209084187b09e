// The board's commands: an argument vector instead of a shell's text, and an end to waiting.
#pragma once

#include <cstddef>
#include <cstdint>

// Longest time that a command may take, ms. A ping of three echoes to a silent host ends after 12 s, and its
// name may have to be looked up first; whoever saves the configuration writes to flash.
inline constexpr int kCommandLimitMs = 10000;
inline constexpr int kPingLimitMs = 30000;
inline constexpr int kSaveLimitMs = 60000;

enum TelemetryCommandResult : int {
    TELEMETRY_COMMAND_ENDED = 0,
    TELEMETRY_COMMAND_NOT_STARTED = -1, // no process or descriptor for it, or nothing can be read of it
    TELEMETRY_COMMAND_TOO_LONG = -2,    // it and its children were ended at the limit
};

enum TelemetryCommandRead : int {
    TELEMETRY_READ_FIRST, // what the first read brings
    TELEMETRY_READ_ALL,   // until the command's output ends
};

struct TelemetryCommandOutput {
    TelemetryCommandRead read;
    char *text; // zeroed, then filled; what finds no room is dropped
    size_t size;
};

// Runs a program, found by PATH unless its name holds a slash, and waits until it has ended. `argv`: the
// words as they reach the program, byte for byte, and a null pointer; no shell looks at them. `output`: what
// it prints; null: that goes where the daemon's own output goes. `status`, unless null: as waitpid() gives
// it; a program that cannot be run ends like a shell's, with exit status 127 and a line. Every other result
// than ENDED has a line too.
int telemetry_command_run(const char *const argv[], int limit_ms, const TelemetryCommandOutput *output,
                          int *status);
// How many commands were too long since the start: whoever asks a tool many questions stops at the first.
uint32_t telemetry_commands_killed();
