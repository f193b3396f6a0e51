#include "profiles/profile.h"

#include <algorithm>

#include "base/unicode.h"
#include "platform/platform.h"

namespace veerline {

namespace {

bool isSlugCharacter(std::string_view character) {
    if (character.size() != 1) return false;
    char c = character[0];
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

void dropTrailingHyphens(std::string& text) {
    while (!text.empty() && text.back() == '-') text.pop_back();
}

}  // namespace

bool ProfileID::isValid() const noexcept {
    // Anything non-ASCII fails the character test below, so counting bytes is enough here.
    if (rawValue.empty() || rawValue.size() > 40) return false;
    if (rawValue.front() == '-' || rawValue.back() == '-') return false;
    if (rawValue.find("--") != std::string::npos) return false;
    return std::all_of(rawValue.begin(), rawValue.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
    });
}

ProfileID ProfileID::generate(std::string_view name, const std::set<ProfileID>& avoiding) {
    std::string slug;
    for (const std::string& character : unicode::graphemeClusters(unicode::foldedForSlug(name))) {
        if (isSlugCharacter(character)) {
            slug += character;
        } else if (!slug.empty() && slug.back() != '-') {
            slug += '-';
        }
    }
    dropTrailingHyphens(slug);
    if (slug.size() > 20) slug.resize(20);
    dropTrailingHyphens(slug);
    if (slug.empty()) slug = "profile";

    // No "l", "o", "0" or "1": the suffix is read and typed by people.
    static constexpr std::string_view alphabet = "abcdefghijkmnpqrstuvwxyz23456789";
    static_assert(alphabet.size() == 32);
    while (true) {
        std::string candidate = slug + "-";
        for (int i = 0; i < 4; ++i) {
            candidate += alphabet[platform::secureRandomBelow(static_cast<std::uint32_t>(alphabet.size()))];
        }
        ProfileID id(std::move(candidate));
        if (!avoiding.contains(id)) return id;
    }
}

namespace toolkind {

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

std::optional<ToolKind> fromArgument(std::string_view word) {
    std::string lower = unicode::lowercased(word);
    if (lower == "claude-desktop" || lower == "desktop") return ToolKind::claudeDesktop;
    if (lower == "chatgpt-app" || lower == "chatgpt" || lower == "codex-app") return ToolKind::chatGPTApp;
    if (lower == "claude-code" || lower == "claude" || lower == "code") return ToolKind::claudeCode;
    if (lower == "codex") return ToolKind::codex;
    return std::nullopt;
}

}  // namespace toolkind

namespace profilecolor {

std::string_view rawValue(ProfileColor color) noexcept {
    switch (color) {
        case ProfileColor::blue: return "blue";
        case ProfileColor::green: return "green";
        case ProfileColor::orange: return "orange";
        case ProfileColor::purple: return "purple";
        case ProfileColor::pink: return "pink";
        case ProfileColor::graphite: return "graphite";
    }
    return "";
}

std::string_view hex(ProfileColor color) noexcept {
    switch (color) {
        case ProfileColor::blue: return "#2563EB";
        case ProfileColor::green: return "#16A34A";
        case ProfileColor::orange: return "#EA580C";
        case ProfileColor::purple: return "#7C3AED";
        case ProfileColor::pink: return "#DB2777";
        case ProfileColor::graphite: return "#4B5563";
    }
    return "#000000";
}

RGB rgb(ProfileColor color) noexcept {
    unsigned long value = 0;
    for (char c : hex(color).substr(1)) {
        int digit = (c >= '0' && c <= '9') ? c - '0' : c - 'A' + 10;
        value = value * 16 + static_cast<unsigned long>(digit);
    }
    return {static_cast<int>((value >> 16) & 255), static_cast<int>((value >> 8) & 255),
            static_cast<int>(value & 255)};
}

std::optional<ProfileColor> fromRawValue(std::string_view raw) noexcept {
    for (ProfileColor color : allCases) {
        if (rawValue(color) == raw) return color;
    }
    return std::nullopt;
}

}  // namespace profilecolor

std::string_view Profile::storageRawValue(Storage storage) noexcept {
    return storage == Storage::system ? "system" : "managed";
}

std::optional<Profile::Storage> Profile::storageFromRawValue(std::string_view raw) noexcept {
    if (raw == "managed") return Storage::managed;
    if (raw == "system") return Storage::system;
    return std::nullopt;
}

Profile::Profile(ProfileID profileID, std::string profileName, ProfileColor profileColor,
                 std::optional<std::string> profileBadge, std::vector<ToolKind> profileTools,
                 Storage profileStorage)
    : id(std::move(profileID)), name(std::move(profileName)), color(profileColor),
      badge(profileBadge ? std::move(*profileBadge) : defaultBadge(name)), storage(profileStorage) {
    setTools(std::move(profileTools));
}

void Profile::setTools(std::vector<ToolKind> tools) {
    std::sort(tools.begin(), tools.end());
    tools.erase(std::unique(tools.begin(), tools.end()), tools.end());
    tools_ = std::move(tools);
}

bool Profile::uses(ToolKind tool) const noexcept {
    return std::find(tools_.begin(), tools_.end(), tool) != tools_.end();
}

std::string Profile::defaultBadge(std::string_view name) {
    // Split on whole characters: a separator carrying a combining mark is no separator.
    std::vector<std::string> initials;
    bool atWordStart = true;
    for (const std::string& character : unicode::graphemeClusters(name)) {
        if (character == " " || character == "-" || character == "_") {
            atWordStart = true;
            continue;
        }
        if (atWordStart) {
            initials.push_back(character);
            if (initials.size() == 2) break;
            atWordStart = false;
        }
    }
    if (initials.empty()) return "?";
    std::string badge;
    for (const std::string& initial : initials) badge += unicode::uppercased(initial);
    return badge;
}

}  // namespace veerline
