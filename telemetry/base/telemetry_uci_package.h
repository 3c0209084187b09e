// Packages that are loaded, and how calls share them: the side of the configuration access that knows libuci.
#pragma once

#include <exception>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "telemetry_handles.h"
#include "telemetry_memory.h"
#include "telemetry_platform_libs.h"
#include "telemetry_uci.h"

// A package of a context while this lives. In a scope's context it is the one that is loaded there already,
// and stays loaded.
class LoadedPackage {
  public:
    enum Use {
        SHARED,
        ALONE, // for who writes: what others in the scope put is stored before, what they loaded is unloaded
    };
    LoadedPackage(uci_context *uci, const char *name, Use use = SHARED);
    ~LoadedPackage();
    LoadedPackage(const LoadedPackage &) = delete;
    LoadedPackage &operator=(const LoadedPackage &) = delete;

    // Null when it could not be loaded, or without a context.
    uci_package *get() const {
        return package_;
    }
    bool load();
    void unload();
    bool reload() {
        unload();
        return load();
    }
    // False when it was not written; the package may then be gone.
    bool commit();

  private:
    uci_context *uci_;
    const char *name_;
    bool stays_loaded_;
    uci_package *package_ = nullptr;
};

// While a scope lives, self-contained calls share one context a source, and what one of them loaded is what
// the next one reads. Each collector runs in one: a change that another program makes meanwhile is seen by
// the next. A scope within a scope is the outer one.
class TelemetryUciScope {
  public:
    TelemetryUciScope();
    // Commits what still waits. When an exception ends the scope, or memory was short meanwhile, nothing of
    // it is reported: what put() has committed is put back as it was, as far as memory allows.
    ~TelemetryUciScope();
    TelemetryUciScope(const TelemetryUciScope &) = delete;
    TelemetryUciScope &operator=(const TelemetryUciScope &) = delete;

    // Sets an option for everybody in the scope, in a section that is made, of `type`, when it is not there;
    // without a type it must be. It is stored by the package's next commit, together with all others that
    // wait. An empty value removes the option. False, with one line, when it cannot be set.
    bool put(uint32_t source, const char *package, const char *section, const char *option, const char *value,
             const char *type = "");
    // Commits every package that something waits for, and reads it back. False, with two lines for each
    // option, when one was not stored: the scope then has what the file has.
    static bool commit();

    // The scope's context for a source, made at its first use; null when memory ran out.
    static uci_context *context(uint32_t source);
    static bool owns(const uci_context *uci);
    // Stores what waits for a package of a scope's context and unloads it there.
    static void give_up(uci_context *uci, const char *package);
    static bool active();
    // What is done besides when the scope is put back, for what a collector reported elsewhere. Nothing
    // without a scope.
    static void on_put_back(std::function<void()> undo);

  private:
    struct Waiting {
        std::string section, option, value;
        std::string type, before; // of the section; of the option
    };
    using Packages = std::map<std::string, std::vector<Waiting>>;
    struct Source {
        UciContextPtr uci;
        Packages waiting, committed;
    };
    bool finish();
    void put_back();
    static bool commit_package(Source *source, const std::string &name, const std::vector<Waiting> &waiting);

    Source sources_[TELEMETRY_UCI_PROFILE + 1];
    std::vector<std::function<void()>> undo_;
    int exceptions_ = std::uncaught_exceptions();
    uint32_t refused_ = telemetry_memory_failures();
};

// While one lives, scopes leave their contexts of our own directories, the backup's and the profile's, to the
// next one. Nobody else writes the backup, and a board's profile comes with its firmware.
class TelemetryUciCycle {
  public:
    TelemetryUciCycle();
    ~TelemetryUciCycle();
    TelemetryUciCycle(const TelemetryUciCycle &) = delete;
    TelemetryUciCycle &operator=(const TelemetryUciCycle &) = delete;

    UciContextPtr kept[TELEMETRY_UCI_PROFILE + 1]; // by source; none of the system's
};

// Whether a call of the library did; what it found no memory for counts as refused.
bool telemetry_uci_succeeded(int status);
// Section of a loaded package by name or in the form "@type[index]"; null when there is none.
uci_section *telemetry_uci_find_section(uci_context *uci, const char *package, const char *section);
// Sets an option of a loaded section; an empty value removes it.
bool telemetry_uci_set_option(uci_context *uci, uci_section *section, const char *option, const char *value);
// Whether a loaded package has the option with that value; the empty one is that of an option that is not
// set.
bool telemetry_uci_has_value(uci_context *uci, const char *package, const char *section, const char *option,
                             const char *value);
// An option's text; the items of a list joined by single blanks.
std::string telemetry_uci_option_text(uci_option *option);
// What a file may have as the name of a section or option. The library takes others until it reads them.
bool telemetry_uci_is_name(const char *text);
