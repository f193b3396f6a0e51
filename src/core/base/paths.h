#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/environment.h"
#include "profiles/profile.h"

namespace veerline {

// Operations on absolute, "/"-separated path strings. None of them fails.
namespace PathUtil {

std::string normalize(std::string path, const std::optional<std::string>& base = std::nullopt);
std::string parent(const std::string& path);
std::optional<std::string> realPath(const std::string& path) noexcept;
std::string expandTilde(std::string_view path, const std::string& home);
std::size_t componentCount(const std::string& path) noexcept;
bool isSameOrInside(const std::string& path, const std::string& base, bool caseSensitive);
bool isCaseSensitiveVolume(const std::string& path) noexcept;
bool isExecutableFile(const std::string& path) noexcept;
bool isRegularFile(const std::string& path) noexcept;
bool isDirectory(const std::string& path) noexcept;

}  // namespace PathUtil

// Which file a path leads to (links followed): two paths name the same file exactly when their
// identities are equal.
struct FileIdentity {
    unsigned long long device = 0;
    unsigned long long inode = 0;

    static std::optional<FileIdentity> of(const std::string& path) noexcept;

    bool operator==(const FileIdentity&) const = default;
};

// The process's working folder as the system names it (getcwd); none when it has none, for
// example when it was deleted.
std::optional<std::string> currentDirectory();

// The working folder as the user sees it: PWD when it names the same folder as getcwd, which keeps
// the symbolic links the user went through; otherwise getcwd's answer, or "/" when there is none.
std::string logicalWorkingDirectory(const Environment& environment);

// The current user's folders and every per-user location derived from them.
struct Paths {
    std::string home;
    std::string applicationsDirectory;

    Paths(const std::string& homeFolder, std::string applicationsFolder);

    static Paths forCurrentUser(const Environment& environment);

    std::string supportDirectory() const { return home + "/Library/Application Support/Veerline"; }
    std::string profilesFile() const { return supportDirectory() + "/profiles.json"; }
    std::string lockFile() const { return supportDirectory() + "/.profiles.lock"; }
    std::string shimDirectory() const { return home + "/.veerline/bin"; }

    std::string dataDirectory(ToolKind tool, const ProfileID& profile) const;
    std::string abbreviate(const std::string& path) const;
    bool isInsideSupportDirectory(const std::string& path) const;

    bool operator==(const Paths&) const = default;
};

}  // namespace veerline
