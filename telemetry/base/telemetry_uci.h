// Configuration access. Every call opens and releases its own context, or uses that of the scope around it
// (telemetry_uci_package.h); a failed read leaves the buffer as it was.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "telemetry_handles.h"
#include "telemetry_platform_libs.h"

// Where a package lives.
enum TelemetryUciSource : uint32_t {
    TELEMETRY_UCI_BACKUP = 0,  // /tmp/telemetry: what was last reported
    TELEMETRY_UCI_SYSTEM = 1,  // the system's configuration
    TELEMETRY_UCI_PROFILE = 2, // /etc/profile.d: the device profile
};

// A context of libuci for a source, with its directories set; null when memory ran out.
uci_context *telemetry_uci_alloc_context(uint32_t source);

// Turns a context to another source: false when memory ran out, and the context may not be used. Null is left
// alone.
bool telemetry_uci_use_source(uci_context *uci, uint32_t source);

// Gives back what the two below handed out; a scope's context stays with the scope.
void telemetry_uci_close(uci_context *uci);
using TelemetryUciPtr = std::unique_ptr<uci_context, HandleRelease<telemetry_uci_close>>;

// The context of the scope around the call, or a new one; null when memory ran out.
TelemetryUciPtr telemetry_uci_context(uint32_t source);
// Opens a self-contained call: a context for `source` when every text has at least one character and memory
// is there; otherwise null, with one line in the caller's name.
TelemetryUciPtr telemetry_uci_open(uint32_t source, std::initializer_list<const char *> texts,
                                   const char *file = __builtin_FILE(),
                                   const char *function = __builtin_FUNCTION(), int line = __builtin_LINE());

// --- With the caller's context ---

// Value of an option, cut to size - 1 characters. -1 no package, -2 no section, -3 no option or an empty one.
int uci_get_value(uci_context *uci, const char *package, const char *section, const char *option,
                  char *buffer, int size);
// Sets an option of an existing section; commits when asked. An empty value removes the option.
int uci_set_value(uci_context *uci, const char *package, const char *section, const char *option,
                  const char *value, int commit);
// The same, and makes the section (of `type`, "config" when null) when it does not exist.
int uci_set_value_with_create(uci_context *uci, const char *package, const char *section, const char *option,
                              const char *value, const char *type, int commit);
// The two on the system's configuration directory; the writer makes sections of type "device" and commits.
int _telemetry_get_value_in_telemetry_config(uci_context *uci, const char *package, const char *section,
                                             const char *option, char *buffer, int size);
int _telemetry_set_value_in_telemetry_config_with_create(uci_context *uci, const char *package,
                                                         const char *section, const char *option,
                                                         const char *value);

// --- Self-contained ---

// Option of the first section of a type in the device profile; at most `size` bytes, the last one forced to
// zero.
int uci_get_profile_option(const char *section_type, const char *option, char *buffer, int size);
int telemetry_get_uci_value(const char *package, const char *section, const char *option, char *buffer,
                            int size, uint32_t source);
int telemetry_set_uci_value(const char *package, const char *section, const char *option, const char *value,
                            uint32_t source);
// 1 for "on", "1", "true"; 0 for "off", "0", "false", anything else and every failure.
int telemetry_get_uci_enabled_value(const char *package, const char *section, const char *option,
                                    uint32_t source);
// Writes package `telemetry` of the system's configuration, making the section.
int telemetry_set_uci_value_in_telemetry_config(const char *section, const char *option, const char *value);

// Called for each section of a package, in file order; the result is ignored.
using TelemetrySectionCallback = int (*)(void *user, uci_context *uci, uci_element *section);
int telemetry_traverse_config_section_and_do(const char *package, TelemetrySectionCallback callback,
                                             void *user);
