// How the services of a node misbehave: one small file, read again when it changed (README.md).
#pragma once

#include <map>
#include <string>

#include "lab_files.h"
#include "lab_bus.h"

namespace lab {

enum class FaultKind {
    none,
    absent,
    slow,
    silent,
    status,
    no_data,
    empty,
    types,
    nonsense,
    garbage,
    huge,
    reply,
    twice,
    die
};

struct Fault {
    FaultKind kind = FaultKind::none;
    int delay_ms = 0; // slow
    int status = 0;   // status
    int times = 1;    // how often an answer is sent
    int skip = 0;     // calls that go well before it begins
    std::string text; // reply: JSON of it
};

class FaultFile {
  public:
    explicit FaultFile(std::string path);
    // Reads the file again if it changed; returns whether it did. What cannot be read is no fault, and said.
    bool refresh();
    // Whether the object is not to be on the bus.
    bool is_absent(const std::string &object) const;
    // What the next call of a method meets; counts the calls that were to be skipped.
    Fault take(const std::string &object, const std::string &method);

  private:
    void load();
    Fault *find(const std::string &object, const std::string &method);
    std::string path_, stamp_;
    std::map<std::string, Fault> faults_; // by "object.method" or "object"
};

// Rewrites a reply in place of the real one, for the kinds that need none (garbage, nonsense, reply, empty).
void fault_make_reply(const Fault &fault, blob_buf *reply);
// Distorts a reply: every value with another type, or texts and lists far larger than anything real.
void fault_distort_reply(const Fault &fault, blob_attr *real, blob_buf *distorted);

} // namespace lab
