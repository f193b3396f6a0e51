#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "profiles/profile.h"
#include "profiles/profile_document.h"

namespace veerline {

// Which profile applies to a folder, and what decided it.
struct Resolution {
    // `rule` is set for folderRule; `path`, the dotfile's full path, for dotfile.
    struct Source {
        enum class Kind { folderRule, dotfile, cliDefault, none };

        Kind kind = Kind::none;
        std::optional<FolderRule> rule;
        std::string path;

        static Source folderRule(FolderRule winner) { return {Kind::folderRule, std::move(winner), {}}; }
        static Source dotfile(std::string dotfilePath) { return {Kind::dotfile, std::nullopt, std::move(dotfilePath)}; }
        static Source cliDefault() { return {Kind::cliDefault, std::nullopt, {}}; }
        static Source none() { return {}; }

        bool operator==(const Source&) const = default;
    };

    std::optional<Profile> profile;
    Source source;
    std::vector<std::string> warnings;

    bool operator==(const Resolution&) const = default;
};

// Weighs folder rules, the nearest `.veerline` dotfile and the terminal default against each
// other. Reads the file system, never writes it, and keeps nothing between calls.
struct RuleResolver {
    // Whether names below a path compare case-sensitively.
    using CaseSensitivity = std::function<bool(const std::string&)>;

    static constexpr const char* dotfileName = ".veerline";
    static constexpr std::size_t maxDotfileSize = 4096;

    ProfileDocument document;
    std::string home;

    // Without `caseSensitivity` the volume itself is asked (PathUtil::isCaseSensitiveVolume).
    RuleResolver(ProfileDocument profiles, std::string homeFolder, CaseSensitivity caseSensitivity = {});

    Resolution resolve(const std::string& path, const std::string& cwd) const noexcept;

    // The first line of a dotfile that is neither blank nor a "#" comment, trimmed of spaces
    // and tabs; nothing for files that are unreadable, larger than 4096 bytes or not UTF-8.
    static std::optional<std::string> readReference(const std::string& path) noexcept;

private:
    struct Dotfile {
        std::string path;
        std::string reference;
        bool inRealChain = false;  // found walking up from a real path, so its folder is real too
    };

    CaseSensitivity caseSensitivity_;

    // `workingFolder`: the process's working folder, when one of the starts is known to be it.
    std::optional<Dotfile> nearestDotfile(const std::vector<std::string>& starts, std::size_t firstReal,
                                          const std::string* workingFolder) const;
    static std::vector<std::string> unique(std::vector<std::string> list);
};

}  // namespace veerline
