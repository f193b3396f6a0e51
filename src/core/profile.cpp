#include "core/profile.h"

namespace veerline::toolkind {

std::string_view rawValue(ToolKind kind) noexcept {
    switch (kind) {
        case ToolKind::claudeDesktop: return "claude-desktop";
        case ToolKind::chatGPTApp: return "chatgpt-app";
        case ToolKind::claudeCode: return "claude-code";
        case ToolKind::codex: return "codex";
    }
    return "";
}

std::string_view displayName(ToolKind kind) noexcept {
    switch (kind) {
        case ToolKind::claudeDesktop: return "Claude Desktop";
        case ToolKind::chatGPTApp: return "ChatGPT app";
        case ToolKind::claudeCode: return "Claude Code";
        case ToolKind::codex: return "Codex";
    }
    return "";
}

bool isApp(ToolKind kind) noexcept {
    return kind == ToolKind::claudeDesktop || kind == ToolKind::chatGPTApp;
}

std::string_view dataFolderName(ToolKind kind) noexcept {
    switch (kind) {
        case ToolKind::claudeDesktop: return "desktop";
        case ToolKind::chatGPTApp: return "chatgpt-app";
        case ToolKind::claudeCode: return "claude-code";
        case ToolKind::codex: return "codex";
    }
    return "";
}

std::optional<ToolKind> fromRawValue(std::string_view raw) noexcept {
    for (ToolKind kind : allCases) {
        if (rawValue(kind) == raw) return kind;
    }
    return std::nullopt;
}

}  // namespace veerline::toolkind
