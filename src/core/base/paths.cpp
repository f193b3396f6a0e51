#include "base/paths.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <vector>

#include "base/unicode.h"
#include "platform/platform.h"

namespace veerline {

namespace PathUtil {

namespace {

// Absolute, without empty, "." or ".." components and without a final "/": what normalize
// would give back unchanged. Most paths already are (rules, PATH entries, the working folder).
bool isNormalized(std::string_view path) {
    if (path.empty() || path.front() != '/') return false;
    if (path.size() == 1) return true;
    if (path.back() == '/') return false;
    for (std::size_t slash = 0; slash != std::string_view::npos; slash = path.find('/', slash + 1)) {
        std::size_t start = slash + 1;
        std::size_t end = std::min(path.find('/', start), path.size());
        std::string_view piece = path.substr(start, end - start);
        if (piece.empty() || piece == "." || piece == "..") return false;
    }
    return true;
}

}  // namespace

std::string normalize(std::string path, const std::optional<std::string>& base) {
    if (isNormalized(path)) return path;
    std::string full = !path.empty() && path.front() == '/' ? std::move(path) : base.value_or("/") + "/" + path;

    std::vector<std::string_view> kept;
    std::string_view rest(full);
    while (!rest.empty()) {
        auto slash = rest.find('/');
        std::string_view piece = rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
        if (piece.empty() || piece == ".") continue;
        if (piece == "..") {
            if (!kept.empty()) kept.pop_back();
            continue;
        }
        kept.push_back(piece);
    }
    if (kept.empty()) return "/";
    std::string result;
    result.reserve(full.size());
    for (auto piece : kept) {
        result += '/';
        result += piece;
    }
    return result;
}

std::string parent(const std::string& path) {
    auto slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0) return "/";
    return path.substr(0, slash);
}

std::optional<std::string> realPath(const std::string& path) noexcept {
    return platform::realPath(path);
}

std::string expandTilde(std::string_view path, const std::string& home) {
    if (path != "~" && !path.starts_with("~/")) return std::string(path);
    path.remove_prefix(1);
    std::string expanded;
    expanded.reserve(home.size() + path.size());
    return expanded.append(home).append(path);
}

std::size_t componentCount(const std::string& path) noexcept {
    std::size_t count = 0;
    bool inPiece = false;
    for (char c : path) {
        if (c == '/') {
            inPiece = false;
        } else if (!inPiece) {
            inPiece = true;
            ++count;
        }
    }
    return count;
}

bool isSameOrInside(const std::string& path, const std::string& base, bool caseSensitive) {
    if (base == "/") return true;
    auto inside = [](const std::string& p, const std::string& b) {
        return p == b || (p.size() > b.size() && p.starts_with(b) && p[b.size()] == '/');
    };
    if (caseSensitive) return inside(path, base);
    return inside(unicode::lowercased(path), unicode::lowercased(base));
}

bool isCaseSensitiveVolume(const std::string& path) noexcept {
    try {
        std::string current = path;
        for (;;) {
            errno = 0;
            if (auto answer = platform::volumeIsCaseSensitive(current)) return *answer;
            if (current == "/") return true;
            current = parent(current);
        }
    } catch (...) {
        return true;
    }
}

bool isExecutableFile(const std::string& path) noexcept {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

bool isRegularFile(const std::string& path) noexcept {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool isDirectory(const std::string& path) noexcept {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace PathUtil

std::optional<FileIdentity> FileIdentity::of(const std::string& path) noexcept {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    return FileIdentity{static_cast<unsigned long long>(info.st_dev), static_cast<unsigned long long>(info.st_ino)};
}

std::optional<std::string> currentDirectory() {
    // Most working folders fit a buffer on the stack; getcwd's own buffer would take a fresh
    // page of heap in the short-lived resolver.
    char buffer[1024];
    if (::getcwd(buffer, sizeof buffer) != nullptr) return std::string(buffer);
    if (errno != ERANGE) return std::nullopt;
    std::unique_ptr<char, decltype(&std::free)> grown(::getcwd(nullptr, 0), &std::free);
    if (!grown) return std::nullopt;
    return std::string(grown.get());
}

std::string logicalWorkingDirectory(const Environment& environment) {
    std::optional<std::string> physical = currentDirectory();
    if (auto pwd = lookup(environment, "PWD"); pwd != nullptr && pwd->starts_with("/")) {
        // Usually PWD is the physical path itself. Otherwise two names of one folder lead to the
        // same inode: the shells' own test, and cheaper than resolving both names component by
        // component.
        if (physical && *pwd == *physical) return *pwd;
        auto named = FileIdentity::of(*pwd);
        if (named && named == FileIdentity::of(".")) return *pwd;
    }
    return physical ? std::move(*physical) : "/";
}

Paths::Paths(const std::string& homeFolder, std::string applicationsFolder)
    : home(PathUtil::normalize(homeFolder)), applicationsDirectory(std::move(applicationsFolder)) {}

Paths Paths::forCurrentUser(const Environment& environment) {
    if (auto home = lookup(environment, "HOME"); home != nullptr && home->starts_with("/")) {
        return Paths(*home, "/Applications");
    }
    if (const passwd* entry = ::getpwuid(::getuid()); entry != nullptr && entry->pw_dir != nullptr) {
        return Paths(entry->pw_dir, "/Applications");
    }
    return Paths(platform::fallbackHomeDirectory(), "/Applications");
}

std::string Paths::dataDirectory(ToolKind tool, const ProfileID& profile) const {
    return supportDirectory() + "/" + std::string(toolkind::dataFolderName(tool)) + "/" + profile.rawValue;
}

std::string Paths::abbreviate(const std::string& path) const {
    if (path == home) return "~";
    if (path.size() > home.size() && path.starts_with(home) && path[home.size()] == '/') {
        return "~" + path.substr(home.size());
    }
    return path;
}

bool Paths::isInsideSupportDirectory(const std::string& path) const {
    std::string normalized = PathUtil::normalize(path);
    std::string prefix = supportDirectory() + "/";
    return normalized.size() > prefix.size() && normalized.starts_with(prefix);
}

}  // namespace veerline
