#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/tool_adapter.h"

namespace veerline {

// The Codex command-line tool (`codex`): one CODEX_HOME per managed profile with a starter
// config.toml, sign-in state from the text of `codex login status`. Besides PATH, it finds the copy
// of `codex` inside the ChatGPT and Codex desktop apps.
class CodexAdapter final : public ToolAdapter {
public:
    static constexpr std::string_view binaryName = "codex";
    static constexpr std::array<std::string_view, 2> overridingVariables = {"OPENAI_API_KEY", "CODEX_API_KEY"};
    static constexpr std::string_view desktopAppBundleID = "com.openai.codex";
    // The starter config.toml of a managed profile; it differs between systems, since each keeps
    // credentials its own way.
    static std::string_view managedConfig() noexcept;

    struct LoginState {
        enum class Kind { signedIn, signedOut, unknown };
        Kind kind = Kind::unknown;
        std::string method;  // signedIn only

        static LoginState signedIn(std::string method) { return {Kind::signedIn, std::move(method)}; }
        static LoginState signedOut() { return {Kind::signedOut, {}}; }
        static LoginState unknown() { return {Kind::unknown, {}}; }
        bool operator==(const LoginState&) const = default;
    };

    explicit CodexAdapter(ToolContext context) : ToolAdapter(ToolKind::codex, std::move(context)) {}

    // `codex` along the context's PATH (the shim folder skipped), else the desktop apps' copy.
    std::optional<std::string> binaryPath() const;
    // No `codex` on PATH, but a desktop app's copy exists.
    bool usesBundledCodex() const;

    // "codex-app-path" in the support directory: a desktop app bundle the user pointed us at.
    static std::string bundledHintFile(const Paths& paths);
    // The inner executable of the hinted bundle (when the hint ends in ".app"), then of
    // ChatGPT.app and Codex.app in the applications folder and in ~/Applications.
    static std::vector<std::string> bundledCandidates(const Paths& paths);
    // The first candidate that is an executable regular file.
    static std::optional<std::string> bundledCodex(const Paths& paths);

    // Decided by the first line beginning "Logged in using " (signed in, with the method),
    // "API key configured" (signed in with "API key") or "Not logged in" (signed out); unknown
    // otherwise.
    static LoginState parseLoginStatus(std::string_view text);

    bool isInstalled() const override;
    Environment environment(const Profile& profile) const override;
    // `environment` and `prepare` without an adapter: the resolver calls these, and so links none
    // of the code that runs the tool itself.
    static Environment environmentIn(const Paths& paths, const Profile& profile);
    static void prepareIn(const Paths& paths, const Profile& profile);
    ToolStatus status(const Profile& profile) const noexcept override;
    // Creates the data folder and writes `managedConfig()` as its config.toml unless something is
    // already there; a starter that an earlier version wrote and nobody edited is brought up to
    // date.
    void prepare(const Profile& profile) const override;
    std::optional<SignInCommand> setUp(const Profile& profile) const override;
    void removeData(const Profile& profile) const override;
};

}  // namespace veerline
