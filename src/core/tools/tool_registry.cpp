#include "tools/tool_registry.h"

#include "tools/claude_code_adapter.h"
#include "tools/codex_adapter.h"

namespace veerline::ToolRegistry {

std::vector<std::shared_ptr<const ToolAdapter>> cliAdapters(const ToolContext& context) {
    return {std::make_shared<const ClaudeCodeAdapter>(context), std::make_shared<const CodexAdapter>(context)};
}

Environment environment(const std::optional<Profile>& profile, const ToolContext& context) {
    if (!profile) return {};
    return environment(*profile, context);
}

Environment environment(const Profile& profile, const ToolContext& context) {
    Environment result{{"VEERLINE_PROFILE", profile.name}};
    for (const auto& adapter : cliAdapters(context)) {
        if (!profile.uses(adapter->kind())) continue;
        for (auto& [name, value] : adapter->environment(profile)) result[name] = value;
    }
    return result;
}

}  // namespace veerline::ToolRegistry
