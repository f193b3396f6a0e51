#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace veerline {

// A profile's stable identifier, exactly as stored. Any text can be held; validity is only
// enforced when a whole document is validated.
struct ProfileID {
    std::string rawValue;

    ProfileID() = default;
    explicit ProfileID(std::string raw) : rawValue(std::move(raw)) {}

    const std::string& description() const noexcept { return rawValue; }

    // 1 to 40 characters of a-z, 0-9 and single inner hyphens.
    bool isValid() const noexcept;

    // A fresh valid id made from a display name: a slug of at most 20 characters, "-" and four
    // random characters, never one of `avoiding`.
    static ProfileID generate(std::string_view name, const std::set<ProfileID>& avoiding);

    bool operator==(const ProfileID&) const = default;
    // std::string compares as unsigned bytes, so valid ids sort in byte order.
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
// A word the user typed ("Claude", "desktop", "codex-app"), matched without case; blanks are
// not trimmed.
std::optional<ToolKind> fromArgument(std::string_view word);
}  // namespace toolkind

// The colours a profile can wear, in their declaration order.
enum class ProfileColor { blue, green, orange, purple, pink, graphite };

namespace profilecolor {
struct RGB {
    int r = 0;
    int g = 0;
    int b = 0;
    bool operator==(const RGB&) const = default;
};
inline constexpr std::array<ProfileColor, 6> allCases = {
    ProfileColor::blue, ProfileColor::green, ProfileColor::orange,
    ProfileColor::purple, ProfileColor::pink, ProfileColor::graphite};
std::string_view rawValue(ProfileColor color) noexcept;
// "#" and six upper-case hexadecimal digits.
std::string_view hex(ProfileColor color) noexcept;
RGB rgb(ProfileColor color) noexcept;
std::optional<ProfileColor> fromRawValue(std::string_view raw) noexcept;
}  // namespace profilecolor

// One account setup of the user.
class Profile {
public:
    // Where the profile's tools keep their data: a folder of Veerline's own per tool, or the
    // tools' default setup.
    enum class Storage { managed, system };
    static std::string_view storageRawValue(Storage storage) noexcept;
    static std::optional<Storage> storageFromRawValue(std::string_view raw) noexcept;

    ProfileID id;
    std::string name;
    ProfileColor color = ProfileColor::graphite;
    std::string badge;
    Storage storage = Storage::managed;

    // An absent badge becomes `defaultBadge(name)`; tools are normalised.
    Profile(ProfileID profileID, std::string profileName, ProfileColor profileColor = ProfileColor::graphite,
            std::optional<std::string> profileBadge = std::nullopt,
            std::vector<ToolKind> profileTools = {toolkind::allCases.begin(), toolkind::allCases.end()},
            Storage profileStorage = Storage::managed);

    // Always free of duplicates and sorted in ToolKind order.
    const std::vector<ToolKind>& tools() const noexcept { return tools_; }
    void setTools(std::vector<ToolKind> tools);
    bool uses(ToolKind tool) const noexcept;

    // The first user-perceived character of each of the first two words (split at " ", "-" and
    // "_"), upper-cased; "?" when there is no word.
    static std::string defaultBadge(std::string_view name);

    bool operator==(const Profile&) const = default;

private:
    std::vector<ToolKind> tools_;
};

}  // namespace veerline

template <>
struct std::hash<veerline::ProfileID> {
    std::size_t operator()(const veerline::ProfileID& id) const noexcept {
        return std::hash<std::string>{}(id.rawValue);
    }
};
