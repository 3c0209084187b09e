// What the targets share. One program has them all; the name that it is called by chooses.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_root.h"

// Changes an input in place as its format allows; gives the new size.
using FuzzMutator = size_t (*)(uint8_t *data, size_t size, size_t max_size, unsigned seed);

struct FuzzTarget {
    std::string name;
    void (*run)(const uint8_t *data, size_t size);
    FuzzMutator mutate = nullptr; // null: bytes only
    void (*start)() = nullptr;    // once, before the first input
    void (*end)() = nullptr;      // after each input, however it ended
};

inline std::vector<FuzzTarget> fuzz_targets;
inline const FuzzTarget *fuzz_target; // the one that runs
struct FuzzTargets {
    explicit FuzzTargets(const std::vector<FuzzTarget> &more) {
        fuzz_targets.insert(fuzz_targets.end(), more.begin(), more.end());
    }
};

// For an input of nothing: no arguments, at which nothing falls.
template <auto... Called> void call_without_arguments() {
    ([]<typename... Arguments>(auto(*called)(Arguments...)) { return called(Arguments{}...); }(Called), ...);
}

// The byte in front of each piece of an input that has several: no text in UTF-8 holds it. The next byte says
// what the piece is.
constexpr char kPieceMark = '\xff';
struct FuzzPiece {
    char kind;
    std::string_view text;
};
inline std::vector<FuzzPiece> pieces_of(std::string_view input) {
    std::vector<FuzzPiece> pieces;
    for (size_t at = input.find(kPieceMark), end; at + 1 < input.size(); at = end) {
        end = std::min(input.find(kPieceMark, at + 1), input.size());
        if (end - at > 1)
            pieces.push_back({input[at + 1], input.substr(at + 2, end - at - 2)});
    }
    return pieces;
}

// fuzz_mutate.cpp. `pieces`: what each kind is, from 'a' on: the name of a file, a service or a command.
size_t mutate_blobmsg(uint8_t *data, size_t size, size_t max_size, unsigned seed);
size_t mutate_bus_frames(uint8_t *data, size_t size, size_t max_size, unsigned seed);
size_t mutate_uci(uint8_t *data, size_t size, size_t max_size, unsigned seed);
size_t mutate_pieces(uint8_t *data, size_t size, size_t max_size, unsigned seed);

// fuzz_main.cpp, in the place of the platform. Answers of services ("object.method") and outputs of commands
// (the last part of a word of theirs, behind a '!'), the first of several first; the last one stays. An
// answer is JSON, "" for one without data, '!' for a call that failed, "!!" without a bus, or else a
// message's bytes. Whatever is not there does not exist.
inline std::map<std::string, std::deque<std::string>> fuzz_answers;
// What the Wi-Fi driver answers; null: no driver.
inline const std::string *fuzz_driver_answer;
