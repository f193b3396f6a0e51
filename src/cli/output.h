#pragma once

// How `veerline` shows things: aligned tables, colour swatches and questions.

#include <iosfwd>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

#include "profiles/profile.h"

namespace veerline::cli {

// Text that came from the user or from a file, ready for a terminal: every control character
// (C0 with line feeds and tabs, DEL, C1, a lone 8-bit CSI byte, line separators) written out as an
// escape, so that a name or a path can't hide text, move the cursor or retitle the window. The one
// way user data is shown; the output streams use it too.
std::string printable(std::string_view text);

// “text”, with the typographic quotation marks the library's messages use; `text` is shown
// printable.
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

// Standard output or error for `veerline`: names, paths and messages come from files anyone
// could have written, so every control character is written out as an escape ("\x1B") and
// cannot clear the screen or retitle the terminal; line feeds, tabs and plain colour sequences
// (ESC [ digits and ";" m) pass. Writes straight to the descriptor and remembers the first
// failure, so that a full disk or a closed pipe is an error rather than lost output.
class TerminalSafeOutput : public std::streambuf {
public:
    explicit TerminalSafeOutput(int fd) : fd_(fd) {}
    ~TerminalSafeOutput() override { sync(); }

    // 0, or the errno of the first write that failed.
    int error() const noexcept { return error_; }

protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* text, std::streamsize count) override;
    int sync() override;

private:
    // Writes what is pending; an unfinished sequence at the end waits unless `everything`.
    void drain(bool everything);

    int fd_;
    int error_ = 0;
    std::string pending_;
};

// Asks a yes/no question on the terminal; only an answer starting with "y" or "Y" is a yes.
bool confirm(const std::string& question);

}  // namespace veerline::cli
