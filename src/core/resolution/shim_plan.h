#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/environment.h"
#include "base/paths.h"
#include "profiles/profile.h"
#include "profiles/profile_document.h"

namespace veerline {

// How a command-line tool's environment changes before the shim starts it in a folder. Names the
// plan set on earlier runs are listed in VEERLINE_MANAGED_VARS, which is how a nested shim tells
// its own variables (which it may replace or remove) from the user's (which it leaves alone).
namespace ShimPlan {

inline constexpr std::string_view markerVariable = "VEERLINE_MANAGED_VARS";
inline constexpr std::string_view profileVariable = "VEERLINE_PROFILE";

struct Changes {
    std::map<std::string, std::string> set;
    std::vector<std::string> unset;  // sorted
    std::optional<std::string> profile;
    std::optional<Profile> prepare;  // a profile whose data folder must exist first

    Changes() = default;
    Changes(std::map<std::string, std::string> toSet, std::vector<std::string> toUnset,
            std::optional<std::string> profileName)
        : set(std::move(toSet)), unset(std::move(toUnset)), profile(std::move(profileName)) {}

    Environment applied(const Environment& environment) const;
    Environment applied(Environment&& environment) const;

    bool operator==(const Changes&) const = default;
};

// The names a VEERLINE_MANAGED_VARS value lists (none for nullptr), empty pieces left out.
std::set<std::string> managedNames(const std::string* markerValue);

// "claude" and "codex" only, exactly.
std::optional<ToolKind> tool(std::string_view commandName) noexcept;
std::vector<std::string> variables(ToolKind tool);

// Takes the document by value: the shim hands over the one it loaded instead of copying it.
Changes changes(const std::string& toolName, const Environment& environment, const std::string& cwd,
                ProfileDocument document, const Paths& paths) noexcept;

// Makes a missing data folder ready; failures are swallowed, the tool reports its own.
void prepare(const Changes& changes, const std::string& toolName, const Paths& paths,
             const Environment& environment) noexcept;

}  // namespace ShimPlan

}  // namespace veerline
