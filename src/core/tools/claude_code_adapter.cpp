#include "tools/claude_code_adapter.h"

#include <nlohmann/json.hpp>

#include "base/error.h"
#include "base/file_io.h"
#include "base/json_input.h"
#include "tools/process_runner.h"

namespace veerline {

namespace {

std::optional<std::string> stringMember(const nlohmann::json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end() || !found->is_string()) return std::nullopt;
    return found->get<std::string>();
}

// Claude Code's settings are a small JSON file a person edits.
constexpr std::size_t settingsFileLimit = 8 * 1024 * 1024;

}  // namespace

std::optional<std::string> ClaudeCodeAdapter::keyHelperProblem(const Profile& profile) const {
    auto folder = dataDirectory(profile);
    if (!folder) return std::nullopt;
    const std::string settingsFile = *folder + "/settings.json";
    std::optional<std::string> helper;
    try {
        auto text = readRegularFile(settingsFile, settingsFileLimit);
        if (!text) return std::nullopt;
        auto settings = JsonInput::parse(*text).value_or(nullptr);
        if (!settings.is_object()) return std::nullopt;
        helper = stringMember(settings, "apiKeyHelper");
    } catch (const VeerlineError&) {
        // Claude Code reports settings it can't read itself.
        return std::nullopt;
    }
    if (!helper || helper->empty()) return std::nullopt;
    // Claude Code runs the helper through a shell and signs in with what it prints. Its output is
    // looked at only to see that there is a key; none of it goes into the message.
    ProcessResult result = ProcessRunner::runSync("/bin/sh", {"-c", *helper}, helperEnvironment(profile),
                                                  context().commandTimeout);
    const bool gaveKey = !result.timedOut && result.exitCode == 0 &&
                         result.standardOutput.find_first_not_of(" \t\r\n") != std::string::npos;
    const std::string helperName = "The API key helper in " + context().paths.abbreviate(settingsFile);
    if (result.timedOut) return helperName + " didn't answer in time.";
    if (!gaveKey) return helperName + " gives no key (exit " + std::to_string(result.exitCode) + ").";
    return std::nullopt;
}

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
        // A helper that yields no key fails every start, whatever `claude auth status` says.
        if (auto problem = keyHelperProblem(profile)) return ToolStatus::needsAttention(*problem);

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
