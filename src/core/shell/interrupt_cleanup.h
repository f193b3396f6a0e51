#pragma once

#include <string>

namespace veerline {

// While alive, keeps `path` on a list that SIGINT, SIGTERM and SIGHUP empty before the process
// dies of the signal: files are unlinked first, then folders removed (when empty). The list is
// small and fixed; a path that doesn't fit, or is too long, is simply not covered.
class InterruptCleanup {
public:
    enum class Kind { file, folder };

    explicit InterruptCleanup(const std::string& path, Kind kind = Kind::file) noexcept;
    ~InterruptCleanup();
    InterruptCleanup(const InterruptCleanup&) = delete;
    InterruptCleanup& operator=(const InterruptCleanup&) = delete;

private:
    int slot_ = -1;
};

}  // namespace veerline

#include <functional>
#include <optional>
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
