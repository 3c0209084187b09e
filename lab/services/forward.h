// One question to several nodes at once: each is called on its own bus, and what came within its limit is
// joined.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "lab_scenario.h"
#include "timer.h"

namespace lab {

// The daemon's method of an opcode; null for an unknown one.
const char *forward_method(uint32_t opcode);

// Limits of waiting, in ms. The node that asks cannot answer while it waits: it has a short one.
struct ForwardLimits {
    int own_ms = 300;
    int other_ms = 15000;
};

class NodeCall;

class Forward {
  public:
    // Receives {"success": number of answers, "data": the answer when it is 1, else an array}; runs from the
    // event loop.
    using Done = std::function<void(blob_attr *reply)>;

    // `params`: a table whose members are the arguments, or null.
    Forward(const char *method, blob_attr *params, Done done);
    ~Forward();
    Forward(const Forward &) = delete;
    Forward &operator=(const Forward &) = delete;

    // Calls the node whose bus is at `socket`. A node that cannot be called is left out.
    void call(const std::string &socket, int limit_ms);
    // All calls have been made; the end comes in the event loop.
    void start();
    // One of the calls has ended.
    void settle();
    bool finished() const {
        return finished_;
    }

  private:
    void finish();
    std::string method_;
    blob_buf arguments_ = {};
    Done done_;
    std::vector<std::unique_ptr<NodeCall>> calls_;
    Timer finish_timer_{[](void *self) { static_cast<Forward *>(self)->finish(); }, this};
    bool finished_ = false;
};

} // namespace lab
