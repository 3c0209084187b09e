// No exception crosses C code: whoever is called by the loop, the bus or libcurl runs its work through this.
#pragma once

#include <exception>
#include <utility>

#include "telemetry_log.h"

// Gives what `step` gives; when it throws, the step ends with one line that names it and gives `failure`. The
// line needs no memory.
template <typename Result, typename Step>
Result telemetry_guarded(const char *name, Result failure, Step &&step) noexcept {
    try {
        return std::forward<Step>(step)();
    } catch (const std::exception &error) {
        LOG_ERROR("%s ended by %s", name, error.what());
    } catch (...) {
        LOG_ERROR("%s ended by an exception", name);
    }
    return failure;
}

// The same for a step that gives nothing: false when it threw.
template <typename Step> bool telemetry_guarded(const char *name, Step &&step) noexcept {
    return telemetry_guarded(name, false, [&] {
        std::forward<Step>(step)();
        return true;
    });
}
