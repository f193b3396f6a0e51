#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "tools/tool_adapter.h"

namespace veerline {

// The Claude Code command-line tool (`claude`): one CLAUDE_CONFIG_DIR per managed profile, sign-in
// state from the JSON of `claude auth status`.
class ClaudeCodeAdapter final : public ToolAdapter {
public:
    static constexpr std::string_view binaryName = "claude";
    // Variables that make the tool use a credential other than the profile's sign-in.
    static constexpr std::array<std::string_view, 3> overridingVariables = {
        "CLAUDE_CODE_OAUTH_TOKEN", "ANTHROPIC_API_KEY", "ANTHROPIC_AUTH_TOKEN"};

    struct AuthStatus {
        bool loggedIn = false;
        AccountInfo account;
        bool operator==(const AuthStatus&) const = default;
    };

    explicit ClaudeCodeAdapter(ToolContext context) : ToolAdapter(ToolKind::claudeCode, std::move(context)) {}

    // `claude` along the context's PATH (the shim folder skipped).
    std::optional<std::string> binaryPath() const;

    // Reads the JSON object between the first "{" and the last "}"; banners around it are
    // ignored. Nothing unless it is an object with a boolean "loggedIn".
    static std::optional<AuthStatus> parseAuthStatus(std::string_view text);

    // What is wrong with the "apiKeyHelper" in a managed profile's settings.json, found by running
    // it as Claude Code does (the key it prints is never kept); nothing without a helper or when
    // it gives a key.
    std::optional<std::string> keyHelperProblem(const Profile& profile) const;

    bool isInstalled() const override;
    Environment environment(const Profile& profile) const override;
    // `environment` and `prepare` without an adapter: the resolver calls these, and so links none
    // of the code that runs the tool itself.
    static Environment environmentIn(const Paths& paths, const Profile& profile);
    static void prepareIn(const Paths& paths, const Profile& profile);
    ToolStatus status(const Profile& profile) const noexcept override;
    void prepare(const Profile& profile) const override;
    std::optional<SignInCommand> setUp(const Profile& profile) const override;
    void removeData(const Profile& profile) const override;
};

}  // namespace veerline
