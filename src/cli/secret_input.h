#pragma once

// Reading a secret (an API key) from standard input without showing it.

#include <string>

namespace veerline::cli {

// On a terminal: writes `prompt` to standard error and reads one line with echo off. Otherwise
// reads all of standard input. One trailing line feed (or CR LF) is not part of the secret.
// Throws VeerlineError when the input cannot be read, and a UsageError-style message when it is
// empty, so that an empty key is never stored.
std::string readSecret(const std::string& prompt);

}  // namespace veerline::cli
