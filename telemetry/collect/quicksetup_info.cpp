// "quicksetup_info": how the router was set up, when that changed.
#include <cstring>
#include <string>

#include "collector_patterns.h"
#include "collectors.h"
#include "telemetry_uci.h"
#include "telemetry_uci_backup.h"
#include "telemetry_uci_package.h"
#include "telemetry_utils.h"

// Name of the section of `system` that has an option: "basic", or the first of type `system`, which has no
// name of its own on most routers; "basic" when neither has it.
static std::string section_of_system(const char *option) {
    static constexpr char kNamed[] = "basic";
    const TelemetryUciPtr uci = telemetry_uci_open(TELEMETRY_UCI_SYSTEM, {});
    const LoadedPackage package(uci.get(), "system");
    if (package.get() == nullptr)
        return kNamed;
    std::string found;
    uci_element *element = nullptr;
    uci_foreach_element(&package.get()->sections, element) {
        uci_section *section = uci_to_section(element);
        if (uci_lookup_option_string(uci.get(), section, option) == nullptr)
            continue;
        if (strcmp(element->name, kNamed) == 0)
            return kNamed;
        if (found.empty() && strcmp(section->type, "system") == 0)
            found = element->name;
    }
    return found.empty() ? kNamed : found;
}

int collect_quicksetup_info(TelemetryCtx *, cJSON *payload, uint32_t *count) {
    const std::string zone = section_of_system("timezone");
    const std::string language = section_of_system("language");
    const TelemetryIndexEntry table[] = {
        {0, "done", 3, TELEMETRY_UCI_SYSTEM, 0, "quicksetup", "quicksetup", "done", TELEMETRY_VALUE_FLAG},
        {1, "st", 3, TELEMETRY_UCI_SYSTEM, 0, "quicksetup", "quicksetup", "duration", TELEMETRY_VALUE_INT64},
        {2, "wt", 3, TELEMETRY_UCI_SYSTEM, 0, "quicksetup", "quicksetup", "wan_detection",
         TELEMETRY_VALUE_STRING},
        {3, "tz", 3, TELEMETRY_UCI_SYSTEM, 0, "system", zone.c_str(), "timezone", TELEMETRY_VALUE_STRING},
        {4, "lang", 3, TELEMETRY_UCI_SYSTEM, 0, "system", language.c_str(), "language",
         TELEMETRY_VALUE_STRING},
        {5, "smart", 3, TELEMETRY_UCI_SYSTEM, 0, "quicksetup", "quicksetup", "smart_connect",
         TELEMETRY_VALUE_FLAG},
    };
    return telemetry_collect_watched_table(
        table, "collect quicksetup info successfully, now data collect count is: %d!", payload, count);
}
