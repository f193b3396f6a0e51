#pragma once

#include <string_view>

namespace veerline::sharing {

// What signs a tool in or picks the account it works for never travels from the shared setup
// into a profile: each profile keeps its own. This is the one list of it.
struct SignInKeys {
    // A top-level key of Claude Code's settings.json: key helpers, credential exports, AWS and
    // GCP refresh commands, forced sign-in method, organisation or gateway.
    static bool isClaudeSetting(std::string_view key) noexcept;
    // A variable under settings.json's "env": API keys and tokens, the choice of Bedrock, Vertex
    // or Foundry with their accounts, projects and endpoints, and anything named like a secret.
    static bool isClaudeVariable(std::string_view name) noexcept;
    // A top-level key of Codex's config.toml: sign-in method, credential store, workspace,
    // model provider and the endpoints that go with them.
    static bool isCodexSetting(std::string_view key) noexcept;
};

}  // namespace veerline::sharing
