#include "core/paths.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <vector>

#include "core/unicode.h"
#include "platform/platform.h"

namespace veerline {

namespace PathUtil {

std::string normalize(const std::string& path, const std::optional<std::string>& base) {
    std::string full = path;
    if (full.empty() || full.front() != '/') full = base.value_or("/") + "/" + full;

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
    std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
    if (!resolved) return std::nullopt;
    try {
        return std::string(resolved.get());
    } catch (...) {
        return std::nullopt;
    }
}

std::string expandTilde(const std::string& path, const std::string& home) {
    if (path == "~") return home;
    if (path.starts_with("~/")) return home + path.substr(1);
    return path;
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

std::string logicalWorkingDirectory(const Environment& environment) {
    std::unique_ptr<char, decltype(&std::free)> buffer(::getcwd(nullptr, 0), &std::free);
    std::string cwd = buffer ? buffer.get() : "/";
    if (auto pwd = lookup(environment, "PWD"); pwd != nullptr && pwd->starts_with("/")) {
        // getcwd already answers with the real path, so only PWD needs resolving.
        auto realCwd = cwd.starts_with("/") ? std::optional<std::string>(cwd) : PathUtil::realPath(cwd);
        if (PathUtil::realPath(*pwd) == realCwd) return *pwd;
    }
    return cwd;
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
