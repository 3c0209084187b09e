// What the file $LAB_FAIL_FILE holds: which call of the daemon fails. A test maps it and writes; the daemon
// counts.
#pragma once

#include <atomic>
#include <cstdint>

enum FailKind : int32_t {
    FAIL_NOTHING,    // and nothing is counted
    FAIL_MEMORY,     // requests for memory from the first one on that the program's own code makes
    FAIL_OWN_MEMORY, // those of the program's own code only
    FAIL_CALLS, // system calls that fail on a bad day: files, sockets, the loop, starting a program. They are
                // watched only when the file says so at the start
};

// Instead of an errno.
inline constexpr int32_t kFailShort = -1; // of what is read or written only a half (EIO where there is none)
inline constexpr int32_t kFailKill = -2;  // the daemon ends there

struct FailOrder {
    std::atomic<int32_t> kind;
    std::atomic<int32_t> error; // of system calls: errno, or one of the above
    std::atomic<int64_t> at;    // the number of the one that fails, from 1; 0: none
    std::atomic<int64_t> seen;  // calls so far; who changes the order sets it to 0
    std::atomic<int64_t> hit;   // size or system call of the one that failed; 0: none has
};
