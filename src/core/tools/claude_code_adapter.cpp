#include "tools/claude_code_adapter.h"

#include <nlohmann/json.hpp>

#include "base/error.h"
#include "base/json_input.h"
#include "tools/process_runner.h"

namespace veerline {

namespace {

std::optional<std::string> stringMember(const nlohmann::json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end() || !found->is_string()) return std::nullopt;
    return found->get<std::string>();
}

}  // namespace

std::optional<std::string> ClaudeCodeAdapter::binaryPath() const {
    return context().locator().find(std::string(binaryName));
}

std::optional<ClaudeCodeAdapter::AuthStatus> ClaudeCodeAdapter::parseAuthStatus(std::string_view text) {
    auto first = text.find('{');
    auto last = text.rfind('}');
    if (first == std::string_view::npos || last == std::string_view::npos || last < first) return std::nullopt;
    auto object = JsonInput::parse(text.substr(first, last - first + 1)).value_or(nullptr);
    if (!object.is_object()) return std::nullopt;
    auto loggedIn = object.find("loggedIn");
    if (loggedIn == object.end() || !loggedIn->is_boolean()) return std::nullopt;

    AuthStatus status;
    status.loggedIn = loggedIn->get<bool>();
    status.account.email = stringMember(object, "email");
    status.account.organizationName = stringMember(object, "orgName");
    status.account.organizationID = stringMember(object, "orgId");
    status.account.plan = stringMember(object, "subscriptionType");
    status.account.method = stringMember(object, "authMethod");
    return status;
}

bool ClaudeCodeAdapter::isInstalled() const {
    return binaryPath().has_value();
}

Environment ClaudeCodeAdapter::environment(const Profile& profile) const {
    return environmentIn(context().paths, profile);
}

Environment ClaudeCodeAdapter::environmentIn(const Paths& paths, const Profile& profile) {
    auto folder = dataDirectory(ToolKind::claudeCode, paths, profile);
    if (!folder) return {};
    return {{"CLAUDE_CONFIG_DIR", *folder}};
}

ToolStatus ClaudeCodeAdapter::status(const Profile& profile) const noexcept {
    try {
        auto binary = binaryPath();
        if (!binary) return ToolStatus::notInstalled();
        auto folder = dataDirectory(profile);
        if (folder && !PathUtil::isDirectory(*folder)) return ToolStatus::notSetUp();

        ProcessResult result = ProcessRunner::runSync(*binary, {"auth", "status"}, helperEnvironment(profile),
                                                      context().commandTimeout);
        if (result.timedOut) return ToolStatus::needsAttention("`claude auth status` didn't answer in time.");
        auto parsed = parseAuthStatus(result.standardOutput);
        if (!parsed) {
            return ToolStatus::needsAttention("Couldn't read `claude auth status` (exit " +
                                              std::to_string(result.exitCode) + ").");
        }
        if (parsed->loggedIn) return ToolStatus::signedIn(parsed->account);
        if (!folder) return ToolStatus::notSetUp();
        return ToolStatus::needsAttention("Signed out. Sign in again.");
    } catch (const std::exception& error) {
        return ToolStatus::needsAttention(error.what());
    }
}

void ClaudeCodeAdapter::prepare(const Profile& profile) const {
    prepareIn(context().paths, profile);
}

void ClaudeCodeAdapter::prepareIn(const Paths& paths, const Profile& profile) {
    createDataDirectory(ToolKind::claudeCode, paths, profile);
}

std::optional<SignInCommand> ClaudeCodeAdapter::setUp(const Profile& profile) const {
    createDataDirectory(profile);
    auto binary = binaryPath();
    if (!binary) return std::nullopt;
    SignInCommand command;
    command.executable = *binary;
    command.arguments = {"auth", "login"};
    command.environment = environment(profile);
    command.unset.assign(overridingVariables.begin(), overridingVariables.end());
    // A system profile signs in to the tool's default folder, whatever the shell exported.
    if (profile.storage == Profile::Storage::system) command.unset.emplace_back("CLAUDE_CONFIG_DIR");
    return command;
}

void ClaudeCodeAdapter::removeData(const Profile& profile) const {
    auto folder = dataDirectory(profile);
    if (!folder) return;
    // Refuse before signing anything out, not only before deleting.
    if (!profile.id.isValid() || !context().paths.isInsideSupportDirectory(*folder)) {
        throw VeerlineError::unsafeDeletion(*folder);
    }
    if (auto binary = binaryPath(); binary && PathUtil::isDirectory(*folder)) {
        // Best effort: a sign-out that fails or hangs doesn't stop the deletion.
        ProcessRunner::runSync(*binary, {"auth", "logout"}, helperEnvironment(profile), context().commandTimeout);
    }
    deleteDataDirectory(profile);
}

}  // namespace veerline
