#pragma once

#include <cstddef>
#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include "base/environment.h"

namespace veerline {

// What a finished child process printed and how it ended. (`stdout`/`stderr` are C macros, so
// the streams are spelled out.)
struct ProcessResult {
    std::int32_t exitCode = 0;      // exit status; the signal number when a signal ended it; 127 when it couldn't start
    std::string standardOutput;     // UTF-8, invalid bytes replaced by U+FFFD
    std::string standardError;      // likewise; the launch failure message when it couldn't start
    bool timedOut = false;

    // standardOutput, then a line feed and standardError when standardError is not empty.
    std::string combinedOutput() const;

    bool operator==(const ProcessResult&) const = default;
};

// Runs one executable (never through a shell) with an explicit argument list and a complete
// environment, standard input from /dev/null, and a time-out.
namespace ProcessRunner {

// What is kept of each output stream; the rest is read and dropped. Status answers are a few lines.
inline constexpr std::size_t maxKeptOutput = 1024 * 1024;

ProcessResult runSync(const std::string& executable, const std::vector<std::string>& arguments,
                      const Environment& environment, double timeout) noexcept;

// The same run on a worker thread.
std::future<ProcessResult> run(std::string executable, std::vector<std::string> arguments,
                               Environment environment, double timeout);

// The minimal environment a tool's child process starts from, with the variables that lead to
// the session's keyring on this system.
Environment baseEnvironment(const Environment& from);

}  // namespace ProcessRunner

}  // namespace veerline
