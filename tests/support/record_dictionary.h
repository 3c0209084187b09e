// The tables of docs/records.md: which keys a record has, of which type, and which must always be there.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <cjson/cJSON.h>

#include "lab_files.h"

class RecordDictionary {
  public:
    // Problems of the document itself (columns, unknown types, examples that are not of their type) go to
    // problems().
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

    std::vector<std::string> sections() const {
        std::vector<std::string> names;
        for (const auto &[name, rows] : sections_)
            names.push_back(name);
        return names;
    }

    // Holds an object against a section.
    void check(const std::string &section, const cJSON *object) {
        const auto found = sections_.find(section);
        if (found == sections_.end())
            problems_.insert(section + " has no section");
        else
            check_object(section, found->second, object, "");
    }

    // Keys that no checked object had.
    std::vector<std::string> never_seen() const {
        std::vector<std::string> keys;
        for (const auto &[section, rows] : sections_)
            for (const auto &[path, row] : rows)
                if (!row.seen)
                    keys.push_back(section + " " + path);
        return keys;
    }
    const std::set<std::string> &problems() const {
        return problems_;
    }

  private:
    struct Row {
        std::string type, sent;
        bool seen = false;
    };
    using Rows = std::map<std::string, Row>;
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
        if (section.empty() || cells.size() != kColumns) {
            problems_.insert("no row of a record: " + line);
            return;
        }
        const std::string path = trimmed(cells[0], "`"), what = section + " " + path;
        if (!sections_[section].emplace(path, Row{cells[1], cells[3]}).second)
            problems_.insert(what + " stands there twice");
        const bool container = cells[1] == "object" || cells[1] == "list" || cells[1] == "payload";
        const lab::JsonTree example(cJSON_Parse(trimmed(cells[6], "`").c_str()));
        if (container != (example == nullptr) || (example && !has_type(example.get(), cells[1])))
            problems_.insert(what + ": the example is no " + cells[1]);
        if (cells[3].empty())
            problems_.insert(what + ": not told when it is sent");
    }

    static bool is_digest(const cJSON *item) {
        return cJSON_IsString(item) && strlen(item->valuestring) == 32 &&
               item->valuestring[strspn(item->valuestring, "0123456789abcdef")] == '\0';
    }

    static bool has_type(const cJSON *item, const std::string &type) {
        if (type == "integer")
            return cJSON_IsNumber(item) && item->valuedouble == std::floor(item->valuedouble);
        if (type == "number")
            return cJSON_IsNumber(item);
        if (type == "switch")
            return cJSON_IsNumber(item) && (item->valuedouble == 0 || item->valuedouble == 1);
        if (type == "text")
            return cJSON_IsString(item);
        if (type == "text or null")
            return cJSON_IsString(item) || cJSON_IsNull(item);
        if (type == "digest")
            return is_digest(item);
        if (type == "digest or empty")
            return is_digest(item) || (cJSON_IsString(item) && *item->valuestring == '\0');
        if (type == "object" || type == "payload")
            return cJSON_IsObject(item);
        if (type != "list" && type != "list of text")
            return false;
        const cJSON *entry = nullptr;
        cJSON_ArrayForEach(entry, item) {
            if (!(type == "list" ? cJSON_IsObject(entry) : cJSON_IsString(entry)))
                return false;
        }
        return cJSON_IsArray(item);
    }

    // The key's own row, or that of a pattern "p*".
    static Rows::iterator find_row(Rows &rows, const std::string &path) {
        const auto own = rows.find(path);
        if (own != rows.end())
            return own;
        return std::find_if(rows.begin(), rows.end(), [&](const auto &row) {
            return row.first.ends_with('*') && path.starts_with(row.first.substr(0, row.first.size() - 1));
        });
    }

    void check_object(const std::string &section, Rows &rows, const cJSON *object,
                      const std::string &prefix) {
        std::set<std::string> there;
        const cJSON *item = nullptr;
        cJSON_ArrayForEach(item, object) {
            const std::string path = prefix + item->string, what = section + " " + path;
            if (!there.insert(item->string).second)
                problems_.insert(what + " is sent twice in one object");
            const auto row = find_row(rows, path);
            if (row == rows.end()) {
                problems_.insert(what + " is sent and not in the dictionary");
                continue;
            }
            row->second.seen = true;
            const std::string &type = row->second.type;
            if (!has_type(item, type))
                problems_.insert(what + " is no " + type + ": " + lab::print_json(item));
            else if (type == "object")
                check_object(section, rows, item, path + ".");
            else if (type == "list")
                check_entries(section, rows, item, path + "[].");
        }
        for (const auto &[path, row] : rows) {
            const size_t name = path.rfind('.') + 1; // 0 without a dot
            if (row.sent == "always" && path.substr(0, name) == prefix && !there.contains(path.substr(name)))
                problems_.insert(section + " " + path + " is missing");
        }
    }

    void check_entries(const std::string &section, Rows &rows, const cJSON *list, const std::string &prefix) {
        const cJSON *entry = nullptr;
        cJSON_ArrayForEach(entry, list) check_object(section, rows, entry, prefix);
    }

    std::map<std::string, Rows> sections_;
    std::set<std::string> problems_;
};
