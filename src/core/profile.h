#pragma once

#include <array>
#include <compare>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace veerline {

// A profile's stable identifier, exactly as stored.
struct ProfileID {
    std::string rawValue;

    ProfileID() = default;
    explicit ProfileID(std::string raw) : rawValue(std::move(raw)) {}

    const std::string& description() const noexcept { return rawValue; }

    bool operator==(const ProfileID&) const = default;
    auto operator<=>(const ProfileID& other) const { return rawValue <=> other.rawValue; }
};

// The tools Veerline manages, in their sort order.
enum class ToolKind { claudeDesktop, chatGPTApp, claudeCode, codex };

namespace toolkind {
inline constexpr std::array<ToolKind, 4> allCases = {ToolKind::claudeDesktop, ToolKind::chatGPTApp,
                                                     ToolKind::claudeCode, ToolKind::codex};
std::string_view rawValue(ToolKind kind) noexcept;
std::string_view displayName(ToolKind kind) noexcept;
bool isApp(ToolKind kind) noexcept;
std::string_view dataFolderName(ToolKind kind) noexcept;
// Exact match of a raw value.
std::optional<ToolKind> fromRawValue(std::string_view raw) noexcept;
}  // namespace toolkind

}  // namespace veerline

template <>
struct std::hash<veerline::ProfileID> {
    std::size_t operator()(const veerline::ProfileID& id) const noexcept {
        return std::hash<std::string>{}(id.rawValue);
    }
};
