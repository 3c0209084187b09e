// Configuration packages in the form that the platform's configuration library writes: read, changed and
// written whole.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <cjson/cJSON.h>

namespace lab {

struct ConfigOption {
    std::string name;
    std::vector<std::string> values;
    bool is_list = false;
};

struct ConfigSection {
    std::string type, name; // an anonymous section has no name
    std::vector<ConfigOption> options;
};

struct ConfigPackage {
    std::vector<ConfigSection> sections;

    // First section of that name, or null.
    ConfigSection *section(const std::string &name);
    // Creates the section (its type is its name) and the option as needed.
    void set(const std::string &section, const std::string &option, const std::string &value);
    // Value of an option (list values joined by blanks); empty when there is none.
    std::string get(const std::string &section, const std::string &option) const;
};

// Reads what config_print() or the configuration library wrote; lines that it cannot read are skipped.
ConfigPackage config_parse(const std::string &text);
std::string config_print(const ConfigPackage &package);

// Puts a scenario's package object over `package`: {"section": {"_type": "...", "option": "value" | ["a",
// "b"]}}. A section named "@..." becomes an anonymous one, appended each time. `null` removes an option or a
// section.
void config_merge(ConfigPackage &package, const cJSON *sections);

} // namespace lab
