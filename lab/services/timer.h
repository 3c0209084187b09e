// A timer of the event loop that knows whose it is; cancelled when it goes.
#pragma once

#include "lab_bus.h"

namespace lab {

class Timer {
  public:
    using Callback = void (*)(void *owner);
    Timer(Callback callback, void *owner) {
        entry_.callback = callback;
        entry_.owner = owner;
        entry_.timeout.cb = [](uloop_timeout *timeout) {
            const auto *entry = reinterpret_cast<Entry *>(timeout);
            entry->callback(entry->owner);
        };
    }
    ~Timer() {
        cancel();
    }
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;
    void set(int ms) {
        uloop_timeout_set(&entry_.timeout, ms);
    }
    void cancel() {
        uloop_timeout_cancel(&entry_.timeout);
    }

  private:
    struct Entry {
        uloop_timeout timeout; // first: the loop hands this out
        Callback callback;
        void *owner;
    };
    Entry entry_ = {};
};

} // namespace lab
