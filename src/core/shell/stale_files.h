#pragma once

// Left-overs of Veerline processes that were killed: temporary files named after the process id.

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace veerline {

// The process id written in `name` right after the first `marker`, running to the end of the
// name or, when `terminator` is given, up to it.
std::optional<long> processIdAfter(std::string_view name, std::string_view marker,
                                   std::optional<char> terminator = std::nullopt) noexcept;

// True when no process `pid` runs any more: files named after it are left-overs.
bool processIsGone(long pid) noexcept;

// Removes the entries of `folder` the user owns for which `selected(name)` holds: files and links
// as themselves, folders with the files directly in them. Nothing when `folder` itself is a
// link. Failures are ignored.
void removeEntriesInside(const std::string& folder, const std::function<bool(std::string_view)>& selected) noexcept;

}  // namespace veerline
