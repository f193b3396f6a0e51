#include "cli/output.h"

#include <algorithm>
#include <iostream>

#include "core/unicode.h"

namespace veerline::cli {

std::string curlyQuoted(std::string_view text) {
    return "\u201C" + std::string(text) + "\u201D";
}

Table::Cell swatch(ProfileColor color, bool colour) {
    if (!colour) return {};
    auto rgb = profilecolor::rgb(color);
    return {"\u25CF",
            "\x1b[38;2;" + std::to_string(rgb.r) + ";" + std::to_string(rgb.g) + ";" + std::to_string(rgb.b) + "m",
            "\x1b[0m"};
}

Table::Table(std::vector<std::string> headings) {
    std::vector<Cell> header;
    for (auto& heading : headings) header.push_back({std::move(heading), ""});
    rows_.push_back(std::move(header));
}

void Table::addRow(std::vector<Cell> cells) {
    rows_.push_back(std::move(cells));
}

void Table::print(std::ostream& out) const {
    std::vector<std::size_t> widths;
    for (const auto& row : rows_) {
        if (widths.size() < row.size()) widths.resize(row.size(), 0);
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], unicode::characterCount(row[column].text));
        }
    }
    for (const auto& row : rows_) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            const Cell& cell = row[column];
            line += cell.prefix + cell.text + cell.suffix;
            if (column + 1 < row.size()) {
                line.append(widths[column] - unicode::characterCount(cell.text) + 2, ' ');
            }
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        out << line << "\n";
    }
}

bool confirm(const std::string& question) {
    std::cout << question << " [y/N] " << std::flush;
    std::string answer;
    if (!std::getline(std::cin, answer)) {
        std::cout << "\n";
        return false;
    }
    answer = unicode::trimmed(answer);
    return !answer.empty() && (answer[0] == 'y' || answer[0] == 'Y');
}

}  // namespace veerline::cli
