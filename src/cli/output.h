#pragma once

// How `veerline` shows things: aligned tables, colour swatches and questions.

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "profiles/profile.h"

namespace veerline::cli {

// “text”, with the typographic quotation marks the library's messages use.
std::string curlyQuoted(std::string_view text);

// Columns separated by two spaces, each as wide as its widest cell in user-perceived
// characters; colour escape sequences in a cell take no width.
class Table {
public:
    explicit Table(std::vector<std::string> headings);
    void addRow(std::vector<std::string> cells);
    void print(std::ostream& out) const;

private:
    std::vector<std::vector<std::string>> rows_;
};

// A "●" and a space in the profile's colour for a 24-bit terminal; nothing without colour.
std::string swatch(ProfileColor color, bool colour);

// Asks a yes/no question on the terminal; only an answer starting with "y" or "Y" is a yes.
bool confirm(const std::string& question);

}  // namespace veerline::cli
