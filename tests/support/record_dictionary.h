// The tables of docs/records.md: which keys a record has, of which type, and which must always be there.
#pragma once

#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "lab_files.h"

class RecordDictionary {
  public:
    explicit RecordDictionary(const std::string &file) {
        std::ifstream lines(file);
        std::string section;
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("## "))
                section = line.starts_with("## `") ? line.substr(4, line.rfind('`') - 4) : "";
            else if (line.starts_with("| `"))
                add_row(section, line);
        }
    }
    size_t sections() const {
        return sections_.size();
    }
    // Holds an object against a section.
    void check(const std::string &section, const cJSON *object) {
        check_object(section, object, "");
    }
    // What was found by then; keys that no checked object had are among it.
    std::set<std::string> problems() const {
        std::set<std::string> all = problems_;
        for (const auto &[section, rows] : sections_)
            for (const auto &[path, row] : rows)
                if (!row.seen)
                    all.insert(section + " " + path + " is in the dictionary and never sent");
        return all;
    }

  private:
    struct Row {
        std::string type, sent;
        bool seen = false;
    };
    static constexpr size_t kColumns = 7;

    static std::string trimmed(const std::string &text, const char *marks) {
        const size_t begin = text.find_first_not_of(marks), end = text.find_last_not_of(marks);
        return begin == text.npos ? "" : text.substr(begin, end - begin + 1);
    }
    void add_row(const std::string &section, const std::string &line) {
        std::istringstream text(line.substr(1));
        std::vector<std::string> cells;
        for (std::string cell; std::getline(text, cell, '|');)
            cells.push_back(trimmed(cell, " "));
        if (section.empty() || cells.size() != kColumns || cells[3].empty() ||
            !sections_[section].emplace(trimmed(cells[0], "`"), Row{cells[1], cells[3]}).second)
            problems_.insert("no row of a record, or one that stands there twice: " + line);
    }

    static bool has_type(const cJSON *item, const std::string &type) {
        const std::string text = cJSON_IsString(item) ? item->valuestring : "";
        const bool digest = text.size() == 32 && text.find_first_not_of("0123456789abcdef") == text.npos;
        const double number = cJSON_IsNumber(item) ? item->valuedouble : NAN;
        const std::map<std::string, bool> fits = {
            {"integer", number == std::floor(number)},
            {"number", cJSON_IsNumber(item)},
            {"switch", number == 0 || number == 1},
            {"text", cJSON_IsString(item)},
            {"text or null", cJSON_IsString(item) || cJSON_IsNull(item)},
            {"digest", digest},
            {"digest or empty", digest || (cJSON_IsString(item) && text.empty())},
            {"object", cJSON_IsObject(item)},
            {"payload", cJSON_IsObject(item)},
            {"list", cJSON_IsArray(item)},
            {"list of text", cJSON_IsArray(item) && (item->child == nullptr || cJSON_IsString(item->child))},
        };
        const auto found = fits.find(type);
        return found != fits.end() && found->second;
    }

    // The key's own row, or that of a pattern "p*".
    Row *find_row(const std::string &section, const std::string &path) {
        Row *by_pattern = nullptr;
        for (auto &[name, row] : sections_[section]) {
            if (name == path)
                return &row;
            if (name.ends_with('*') && path.starts_with(name.substr(0, name.size() - 1)))
                by_pattern = &row;
        }
        return by_pattern;
    }
    void check_object(const std::string &section, const cJSON *object, const std::string &prefix) {
        std::set<std::string> there;
        const cJSON *item = nullptr, *entry = nullptr;
        cJSON_ArrayForEach(item, object) {
            const std::string path = prefix + item->string, what = section + " " + path;
            Row *row = find_row(section, path);
            if (!there.insert(path).second || row == nullptr || !has_type(item, row->type)) {
                problems_.insert(what + " is sent twice, not in the dictionary, or of another type: " +
                                 lab::print_json(item));
                continue;
            }
            row->seen = true;
            if (row->type == "object")
                check_object(section, item, path + ".");
            if (row->type == "list")
                cJSON_ArrayForEach(entry, item) check_object(section, entry, path + "[].");
        }
        for (const auto &[path, row] : sections_[section])
            if (row.sent == "always" && path.substr(0, path.rfind('.') + 1) == prefix &&
                !there.contains(path))
                problems_.insert(section + " " + path + " is missing");
    }

    std::map<std::string, std::map<std::string, Row>> sections_;
    std::set<std::string> problems_;
};
