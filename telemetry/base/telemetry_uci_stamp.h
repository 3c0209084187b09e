// How to see that a package of the system's configuration is what it was, without reading it.
#pragma once

#include <cstdint>

// Of the files that the library reads a package from. The stamp is to be taken before the package is loaded.
class TelemetryUciStamp {
  public:
    TelemetryUciStamp() = default; // of nothing
    explicit TelemetryUciStamp(const char *package);
    // Whether what was loaded after this one is what would be loaded after the later one. Never, when a file
    // was younger than the clock of the file system could tell from its next change.
    bool holds(const TelemetryUciStamp &later) const;

  private:
    // One that is not there has zeros.
    struct File {
        uint64_t device, node;
        int64_t size, written_ns, changed_ns;
        bool operator==(const File &) const = default;
    };
    File files_[3] = {}; // configuration, what is staged for it, what overrides it
    bool settled_ = false;
};
