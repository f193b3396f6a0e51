#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "base/environment.h"
#include "profiles/profile.h"
#include "tools/tool_adapter.h"

namespace veerline {

// The command-line tools that have adapters, and the variables those adapters manage.
namespace ToolRegistry {

// Every variable an adapter sets to point a tool at a profile.
inline constexpr std::array<std::string_view, 2> managedVariables = {"CLAUDE_CONFIG_DIR", "CODEX_HOME"};

// The Claude Code adapter, then the Codex adapter, both with `context`.
std::vector<std::shared_ptr<const ToolAdapter>> cliAdapters(const ToolContext& context);

// A profile's whole environment: VEERLINE_PROFILE (its name) plus the variables of each adapter
// whose tool the profile uses. Empty without a profile.
Environment environment(const std::optional<Profile>& profile, const ToolContext& context);
Environment environment(const Profile& profile, const ToolContext& context);

}  // namespace ToolRegistry

}  // namespace veerline
