#pragma once

// How `veerline` shows things: aligned tables, colour swatches and questions.

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "core/profile.h"

namespace veerline::cli {

// “text”, with the typographic quotation marks the library's messages use.
std::string curlyQuoted(std::string_view text);

// Columns separated by two spaces, each as wide as its widest cell in user-perceived
// characters. A cell's `prefix` and `suffix` (invisible escape sequences) take no width.
class Table {
public:
    struct Cell {
        std::string text;
        std::string prefix = {};
        std::string suffix = {};
    };

    explicit Table(std::vector<std::string> headings);
    void addRow(std::vector<Cell> cells);
    void print(std::ostream& out) const;

private:
    std::vector<std::vector<Cell>> rows_;
};

// A "●" in the profile's colour for a 24-bit terminal; nothing without colour.
Table::Cell swatch(ProfileColor color, bool colour);

// Asks a yes/no question on the terminal; only an answer starting with "y" or "Y" is a yes.
bool confirm(const std::string& question);

}  // namespace veerline::cli
