// Memory of a run, which its input can make short; fuzz_memory.cpp refuses it.
#pragma once

#include <cstdint>
#include <cstdlib>

inline void require(bool holds) {
    if (!holds)
        abort();
}

// The last three bytes of an input may be kMemoryMark and a number, the more significant byte
// first: then this allocation is refused, and when its highest bit is set, all that follow, too.
constexpr uint8_t kMemoryMark = 0xfe;
struct FuzzMemory {
    bool counts, all, refused;
    uint32_t first; // 0: none
    uint32_t seen;
};
inline constinit thread_local FuzzMemory fuzz_memory = {}; // libFuzzer has a thread, too
// Here all memory is there: for what is the target's own.
class FuzzPlenty {
  public:
    FuzzPlenty() : counted_(fuzz_memory.counts) {
        fuzz_memory.counts = false;
    }
    ~FuzzPlenty() {
        fuzz_memory.counts = counted_;
    }
    FuzzPlenty(const FuzzPlenty &) = delete;
    FuzzPlenty &operator=(const FuzzPlenty &) = delete;

  private:
    bool counted_;
};
// Holds unless memory ran short.
inline void require_with_memory(bool holds) {
    require(holds || fuzz_memory.refused);
}
