#include "resolution/shim_plan.h"

#include <algorithm>
#include <set>

#include "tools/claude_code_adapter.h"
#include "tools/codex_adapter.h"
#include "resolution/rule_resolver.h"

namespace veerline::ShimPlan {

namespace {

// The profile's variables and its data folder depend on the paths alone. No adapter is built: the
// resolver would then link the code that runs the tools for their sign-in status.
Environment environmentFor(ToolKind kind, const Paths& paths, const Profile& profile) {
    return kind == ToolKind::claudeCode ? ClaudeCodeAdapter::environmentIn(paths, profile)
                                        : CodexAdapter::environmentIn(paths, profile);
}

}  // namespace

std::set<std::string> managedNames(const std::string* markerValue) {
    std::set<std::string> names;
    if (markerValue == nullptr) return names;
    std::string_view rest(*markerValue);
    while (!rest.empty()) {
        auto comma = rest.find(',');
        auto piece = rest.substr(0, comma);
        if (!piece.empty()) names.emplace(piece);
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    }
    return names;
}

Environment Changes::applied(const Environment& environment) const {
    return applied(Environment(environment));
}

Environment Changes::applied(Environment&& environment) const {
    for (const auto& name : unset) environment.erase(name);
    for (const auto& [name, value] : set) environment[name] = value;
    return std::move(environment);
}

std::optional<ToolKind> tool(std::string_view commandName) noexcept {
    if (commandName == ClaudeCodeAdapter::binaryName) return ToolKind::claudeCode;
    if (commandName == CodexAdapter::binaryName) return ToolKind::codex;
    return std::nullopt;
}

std::vector<std::string> variables(ToolKind kind) {
    switch (kind) {
        case ToolKind::claudeCode: return {"CLAUDE_CONFIG_DIR"};
        case ToolKind::codex: return {"CODEX_HOME"};
        case ToolKind::claudeDesktop:
        case ToolKind::chatGPTApp: return {};
    }
    return {};
}

Changes changes(const std::string& toolName, const Environment& environment, const std::string& cwd,
                ProfileDocument document, const Paths& paths) noexcept {
    try {
        auto kind = tool(toolName);
        if (!kind) return {};
        const std::vector<std::string> toolVariables = variables(*kind);
        const std::set<std::string> managed = managedNames(lookup(environment, std::string(markerVariable)));

        RuleResolver resolver(std::move(document), paths.home);
        Resolution resolution = resolver.resolve(cwd, cwd);
        Environment profileEnvironment;
        bool applies = false;
        // A profile whose id can't safely name a folder runs the tool as if no profile applied.
        if (resolution.profile && resolution.profile->uses(*kind) &&
            resolver.document.isUsable(resolution.profile->id)) {
            profileEnvironment = environmentFor(*kind, paths, *resolution.profile);
            applies = true;
        }

        Changes result;
        std::set<std::string> newManaged = managed;
        for (const auto& name : toolVariables) newManaged.erase(name);

        for (const auto& name : toolVariables) {
            bool inEnvironment = environment.contains(name);
            if (inEnvironment && !managed.contains(name)) {
                applies = false;  // the user chose this tool's setup by hand
            } else if (auto value = profileEnvironment.find(name); value != profileEnvironment.end()) {
                result.set[name] = value->second;
                newManaged.insert(name);
            } else if (inEnvironment) {
                result.unset.push_back(name);
            }
        }

        const std::string profileName(profileVariable);
        if (applies) {
            result.set[profileName] = resolution.profile->name;
            result.profile = resolution.profile->name;
            if (resolution.profile->storage == Profile::Storage::managed) result.prepare = resolution.profile;
        } else if (environment.contains(profileName)) {
            result.unset.push_back(profileName);
        }

        std::string list;
        for (const auto& name : newManaged) {  // std::set keeps them sorted
            bool unsetNow = std::find(result.unset.begin(), result.unset.end(), name) != result.unset.end();
            if (result.set.contains(name) || (environment.contains(name) && !unsetNow)) {
                if (!list.empty()) list += ',';
                list += name;
            }
        }
        const std::string markerName(markerVariable);
        if (!list.empty()) {
            result.set[markerName] = list;
        } else if (environment.contains(markerName)) {
            result.unset.push_back(markerName);
        }

        std::sort(result.unset.begin(), result.unset.end());
        return result;
    } catch (...) {
        return {};
    }
}

void prepare(const Changes& changes, const std::string& toolName, const Paths& paths,
             const Environment& /*environment: preparing needs none of it*/) noexcept {
    try {
        if (!changes.prepare || !changes.prepare->id.isValid()) return;
        auto kind = tool(toolName);
        if (!kind) return;
        // A ready folder costs one stat: Codex's config file can only be there inside a folder.
        std::string folder = paths.dataDirectory(*kind, changes.prepare->id);
        if (*kind == ToolKind::claudeCode ? PathUtil::isDirectory(folder)
                                          : PathUtil::isRegularFile(folder + "/config.toml")) {
            return;
        }
        if (*kind == ToolKind::claudeCode) {
            ClaudeCodeAdapter::prepareIn(paths, *changes.prepare);
        } else {
            CodexAdapter::prepareIn(paths, *changes.prepare);
        }
    } catch (...) {
        // The tool starts anyway and reports its own trouble with the folder.
    }
}

}  // namespace veerline::ShimPlan
