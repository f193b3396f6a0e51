#pragma once

#include <string>
#include <string_view>

namespace veerline {

// Quoting for command lines the user pastes into a POSIX shell.
namespace ShellQuote {

// The text unchanged when it is a plain word (letters and numbers in the Unicode sense and
// "-_./:=@%+,"); otherwise wrapped in single quotes, each inner single quote written as '\''.
std::string quote(std::string_view text);

}  // namespace ShellQuote

}  // namespace veerline
