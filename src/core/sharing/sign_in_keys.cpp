#include "sharing/sign_in_keys.h"

#include <algorithm>
#include <array>

namespace veerline::sharing {

namespace {

template <std::size_t N>
bool listed(const std::array<std::string_view, N>& names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

template <std::size_t N>
bool startsWithAny(const std::array<std::string_view, N>& prefixes, std::string_view name) {
    return std::any_of(prefixes.begin(), prefixes.end(), [&](std::string_view prefix) { return name.starts_with(prefix); });
}

template <std::size_t N>
bool endsWithAny(const std::array<std::string_view, N>& suffixes, std::string_view name) {
    return std::any_of(suffixes.begin(), suffixes.end(), [&](std::string_view suffix) { return name.ends_with(suffix); });
}

}  // namespace

bool SignInKeys::isClaudeSetting(std::string_view key) noexcept {
    static constexpr std::array<std::string_view, 3> suffixes = {"Helper", "Export", "AuthRefresh"};
    return key.starts_with("forceLogin") || endsWithAny(suffixes, key);
}

bool SignInKeys::isClaudeVariable(std::string_view name) noexcept {
    static constexpr std::array<std::string_view, 22> names = {
        "ANTHROPIC_API_KEY", "ANTHROPIC_AUTH_TOKEN", "ANTHROPIC_BASE_URL", "ANTHROPIC_CUSTOM_HEADERS",
        "ANTHROPIC_ORGANIZATION_ID", "ANTHROPIC_WORKSPACE_ID", "ANTHROPIC_PROFILE", "ANTHROPIC_CONFIG_DIR",
        "ANTHROPIC_IDENTITY_TOKEN_FILE", "ANTHROPIC_FEDERATION_RULE_ID", "ANTHROPIC_SERVICE_ACCOUNT_ID",
        "CLAUDE_CODE_OAUTH_TOKEN", "CLAUDE_CODE_OAUTH_TOKEN_FILE_DESCRIPTOR", "CLAUDE_CODE_API_KEY_FILE_DESCRIPTOR",
        "CLAUDE_CODE_CLIENT_KEY", "CLAUDE_CODE_CLIENT_KEY_PASSPHRASE", "CLAUDE_CODE_USE_BEDROCK",
        "CLAUDE_CODE_USE_VERTEX", "CLAUDE_CODE_USE_FOUNDRY", "CLAUDE_CODE_USE_MANTLE", "CLAUDE_CODE_USE_GATEWAY",
        "CLAUDE_CODE_USE_ANTHROPIC_AWS"};
    // Cloud accounts and the providers' own endpoints, keys and projects.
    static constexpr std::array<std::string_view, 8> prefixes = {
        "AWS_", "AZURE_", "GOOGLE_", "GCLOUD_", "ANTHROPIC_BEDROCK_", "ANTHROPIC_VERTEX_", "ANTHROPIC_FOUNDRY_",
        "ANTHROPIC_AWS_"};
    // Named like a secret, whoever reads it: a key for one account is never another's.
    static constexpr std::array<std::string_view, 7> suffixes = {"_API_KEY", "_TOKEN", "_TOKEN_FILE", "_SECRET",
                                                                 "_SECRET_KEY", "_PASSWORD", "_CREDENTIALS"};
    if (name.starts_with("CLAUDE_CODE_SKIP_") && name.ends_with("_AUTH")) return true;
    return listed(names, name) || startsWithAny(prefixes, name) || endsWithAny(suffixes, name);
}

bool SignInKeys::isCodexSetting(std::string_view key) noexcept {
    static constexpr std::array<std::string_view, 10> names = {
        "preferred_auth_method", "forced_login_method", "forced_chatgpt_workspace_id", "cli_auth_credentials_store",
        "mcp_oauth_credentials_store", "model_provider", "model_providers", "chatgpt_base_url", "openai_base_url",
        "mcp_enterprise_managed_auth"};
    return listed(names, key);
}

}  // namespace veerline::sharing
