#pragma once

// Reading a secret (an API key) from standard input without showing it.

#include <cstddef>
#include <string>

namespace veerline::cli {

// API keys are a few hundred bytes at most; larger input is refused, not stored.
inline constexpr std::size_t maxSecretSize = 64 * 1024;

// On a terminal: writes `prompt` to standard error and reads one line with echo off. Otherwise
// reads all of standard input, up to maxSecretSize. One trailing line feed (or CR LF) is not part
// of the secret. Throws VeerlineError when the input cannot be read, and UsageError when it is
// empty or larger than maxSecretSize, so that neither is ever stored.
std::string readSecret(const std::string& prompt);

}  // namespace veerline::cli
