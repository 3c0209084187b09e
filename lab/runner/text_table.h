// Rows of cells as text for a terminal.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

// Columns as wide as their widest cell.
inline std::string text_table(const std::vector<std::vector<std::string>> &rows) {
    std::vector<size_t> widths;
    for (const auto &row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (const auto &row : rows) {
        std::string line = "   ";
        for (size_t i = 0; i < row.size(); i++)
            line += " " + row[i] + std::string(widths[i] - row[i].size() + 1, ' ');
        text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    return text;
}
