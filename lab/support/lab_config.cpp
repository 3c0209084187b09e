#include "lab_config.h"

#include <algorithm>
#include <sstream>

namespace lab {

namespace {

// Splits a line into words; single quotes only, as the library writes them ('it'\''s' is one word).
std::vector<std::string> split_words(const std::string &line) {
    std::vector<std::string> words;
    std::string word;
    bool quoted = false, in_word = false;
    for (size_t i = 0; i < line.size(); i++) {
        char c = line[i];
        if (quoted ? c != '\'' : (c != '\'' && c != '\\' && c != ' ' && c != '\t')) {
            word += c;
            in_word = true;
        } else if (c == '\'') {
            quoted = !quoted;
            in_word = true;
        } else if (c == '\\' && i + 1 < line.size()) {
            word += line[++i];
            in_word = true;
        } else if (in_word) {
            words.push_back(word);
            word.clear();
            in_word = false;
        }
    }
    if (in_word)
        words.push_back(word);
    return words;
}

std::string quote(const std::string &text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    return out + "'";
}

ConfigOption *find_option(ConfigSection &section, const std::string &name) {
    auto found = std::find_if(section.options.begin(), section.options.end(),
                              [&](const ConfigOption &option) { return option.name == name; });
    return found == section.options.end() ? nullptr : &*found;
}

ConfigOption &option_of(ConfigSection &section, const std::string &name) {
    if (ConfigOption *option = find_option(section, name))
        return *option;
    section.options.push_back({name, {}, false});
    return section.options.back();
}

std::string scalar_text(const cJSON *item) {
    if (cJSON_IsString(item))
        return item->valuestring;
    if (cJSON_IsBool(item))
        return cJSON_IsTrue(item) ? "1" : "0";
    std::ostringstream text;
    text.precision(15);
    text << item->valuedouble;
    return text.str();
}

void merge_section(ConfigSection &section, const cJSON *options) {
    const cJSON *item;
    cJSON_ArrayForEach(item, options) {
        std::string name = item->string;
        if (name == "_type")
            continue;
        if (cJSON_IsNull(item)) {
            std::erase_if(section.options, [&](const ConfigOption &option) { return option.name == name; });
            continue;
        }
        ConfigOption &option = option_of(section, name);
        option.values.clear();
        option.is_list = cJSON_IsArray(item);
        if (option.is_list) {
            const cJSON *element;
            cJSON_ArrayForEach(element, item) option.values.push_back(scalar_text(element));
        } else {
            option.values.push_back(scalar_text(item));
        }
    }
}

} // namespace

ConfigSection *ConfigPackage::section(const std::string &name) {
    for (ConfigSection &candidate : sections) {
        if (candidate.name == name)
            return &candidate;
    }
    return nullptr;
}

void ConfigPackage::set(const std::string &section_name, const std::string &option,
                        const std::string &value) {
    if (!section(section_name))
        sections.push_back({section_name, section_name, {}});
    ConfigOption &target = option_of(*section(section_name), option);
    target.values = {value};
    target.is_list = false;
}

std::string ConfigPackage::get(const std::string &section_name, const std::string &option) const {
    std::string text;
    for (const ConfigSection &candidate : sections) {
        if (candidate.name != section_name)
            continue;
        for (const ConfigOption &entry : candidate.options) {
            if (entry.name != option)
                continue;
            for (const std::string &value : entry.values)
                text += (text.empty() ? "" : " ") + value;
            return text;
        }
    }
    return text;
}

ConfigPackage config_parse(const std::string &text) {
    ConfigPackage package;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::vector<std::string> words = split_words(line);
        if (words.size() >= 2 && words[0] == "config") {
            package.sections.push_back({words[1], words.size() > 2 ? words[2] : "", {}});
        } else if (words.size() >= 3 && !package.sections.empty() &&
                   (words[0] == "option" || words[0] == "list")) {
            ConfigOption &option = option_of(package.sections.back(), words[1]);
            option.is_list = words[0] == "list";
            if (!option.is_list)
                option.values.clear();
            option.values.push_back(words[2]);
        }
    }
    return package;
}

std::string config_print(const ConfigPackage &package) {
    std::string text;
    for (const ConfigSection &section : package.sections) {
        text += "\nconfig " + section.type + (section.name.empty() ? "" : " " + quote(section.name)) + "\n";
        for (const ConfigOption &option : section.options) {
            for (const std::string &value : option.values)
                text += std::string("\t") + (option.is_list ? "list " : "option ") + option.name + " " +
                        quote(value) + "\n";
        }
    }
    return text + "\n";
}

void config_merge(ConfigPackage &package, const cJSON *sections) {
    const cJSON *item;
    cJSON_ArrayForEach(item, sections) {
        std::string name = item->string;
        if (cJSON_IsNull(item)) {
            std::erase_if(package.sections,
                          [&](const ConfigSection &section) { return section.name == name; });
            continue;
        }
        const cJSON *type = cJSON_GetObjectItemCaseSensitive(item, "_type");
        bool anonymous = name.starts_with('@');
        ConfigSection *target = anonymous ? nullptr : package.section(name);
        if (!target) {
            std::string default_type = anonymous ? name.substr(1) : name;
            package.sections.push_back(
                {cJSON_IsString(type) ? type->valuestring : default_type, anonymous ? "" : name, {}});
            target = &package.sections.back();
        }
        merge_section(*target, item);
    }
}

} // namespace lab
