// What the file $LAB_FAIL_FILE holds: which call of the daemon fails. A test maps it and writes; the daemon
// counts.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

enum FailKind : int32_t {
    FAIL_NOTHING,    // and nothing is counted
    FAIL_MEMORY,     // requests for memory from the first one on that the program's own code makes
    FAIL_OWN_MEMORY, // those of the program's own code only
    FAIL_CALLS, // system calls that fail on a bad day: files, sockets, the loop, starting a program. They are
                // watched only when the file says so at the start
};

// Instead of a number: the first call that comes from where none has failed yet, by its whole call stack and
// the error.
inline constexpr int64_t kFailUnseen = -1;
// Instead of an errno.
inline constexpr int32_t kFailShort = -1; // of what is read or written only a half (EIO where there is none)
inline constexpr int32_t kFailKill = -2;  // the daemon ends there

inline constexpr size_t kFailStacks = 1 << 15;

struct FailOrder {
    std::atomic<int32_t> kind;
    std::atomic<int32_t> error;     // of system calls: errno, or one of the above
    std::atomic<int64_t> at;        // the number of the one that fails, from 1; 0: none
    std::atomic<int64_t> seen;      // calls up to the one that failed; who changes the order sets it to 0
    std::atomic<int64_t> hit;       // size or system call of the one that failed; 0: none has
    std::atomic<uint64_t> from[12]; // where: addresses in the program's file, the innermost first
    // For kFailUnseen, kept over restarts of the daemon:
    std::atomic<int64_t> unseen; // places so far, of which
    std::atomic<int64_t> step;   // each so manieth fails (1: all)
    std::atomic<uint64_t> stacks[kFailStacks];
};
