#include "cli/output.h"

#include <algorithm>
#include <iostream>

#include "base/unicode.h"

namespace veerline::cli {

std::string curlyQuoted(std::string_view text) {
    return "\u201C" + std::string(text) + "\u201D";
}

std::string swatch(ProfileColor color, bool colour) {
    if (!colour) return "";
    auto rgb = profilecolor::rgb(color);
    return "\x1b[38;2;" + std::to_string(rgb.r) + ";" + std::to_string(rgb.g) + ";" + std::to_string(rgb.b) +
           "m\u25CF\x1b[0m ";
}

namespace {

// Width on screen: user-perceived characters outside "ESC [ ... final byte" sequences.
std::size_t visibleWidth(const std::string& text) {
    std::string visible;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\x1b' && i + 1 < text.size() && text[i + 1] == '[') {
            i += 2;
            while (i < text.size() && !(text[i] >= 0x40 && text[i] <= 0x7E)) ++i;
            continue;
        }
        visible += text[i];
    }
    return unicode::characterCount(visible);
}

}  // namespace

Table::Table(std::vector<std::string> headings) {
    rows_.push_back(std::move(headings));
}

void Table::addRow(std::vector<std::string> cells) {
    rows_.push_back(std::move(cells));
}

void Table::print(std::ostream& out) const {
    std::vector<std::size_t> widths;
    for (const auto& row : rows_) {
        if (widths.size() < row.size()) widths.resize(row.size(), 0);
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], visibleWidth(row[column]));
        }
    }
    for (const auto& row : rows_) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            line += row[column];
            if (column + 1 < row.size()) line.append(widths[column] - visibleWidth(row[column]) + 2, ' ');
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
