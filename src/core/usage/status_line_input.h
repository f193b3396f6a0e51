#pragma once

// What Claude Code hands `veerline statusline` on standard input: a small JSON object about the
// session, written at once. The status line is redrawn every few hundred milliseconds and must
// never be held up, so the input gets one short wait in all, and whatever arrived by then is used.

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace veerline::StatusLineInput {

// How long the status line waits for its input, in all.
inline constexpr std::chrono::milliseconds budget{100};
inline constexpr std::size_t maxSize = 1024 * 1024;

// What arrives on `fd` until its end, `limit` bytes or `wait` from now, whichever comes first.
std::string readWithin(int fd, std::size_t limit, std::chrono::milliseconds wait) noexcept;

// The folder the session works in: "workspace" "current_dir", else "cwd", as texts. Input cut off
// anywhere still gives what was complete before the cut; a whole object gives what its parsed
// document would.
std::optional<std::string> folder(std::string_view input) noexcept;

}  // namespace veerline::StatusLineInput
