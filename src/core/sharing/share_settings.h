#pragma once

#include <array>
#include <map>
#include <string>

#include "base/paths.h"
#include "profiles/profile.h"

namespace veerline {

// Which command-line tools share one setup across the managed profiles, and where that setup
// lives: "sharing.json" in the support folder. A tool that is absent is not shared.
struct ShareSettings {
    static constexpr std::array<ToolKind, 2> tools = {ToolKind::claudeCode, ToolKind::codex};

    std::map<ToolKind, std::string> sources;

    static std::string file(const Paths& paths) { return paths.supportDirectory() + "/sharing.json"; }
    // The tool's own default folder: ~/.claude or ~/.codex.
    static std::string defaultSource(ToolKind tool, const Paths& paths);
    // No file is no sharing. A file that isn't exactly what `save` writes throws
    // VeerlineError::storeCorrupt naming it: sharing is never turned off behind the user's back.
    static ShareSettings load(const Paths& paths);
    static bool exists(const Paths& paths) noexcept;
    void save(const Paths& paths) const;

    bool operator==(const ShareSettings&) const = default;
};

}  // namespace veerline
