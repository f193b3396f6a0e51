#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "base/error.h"
#include "base/file_io.h"
#include "shell/stale_files.h"
#include "shell/shell_integration.h"
#include "base/unicode.h"

namespace veerline {

namespace {

std::string lastComponent(const std::string& path) {
    auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

constexpr std::string_view temporaryMarker = ".veerline-tmp.";

}  // namespace

std::string ShellIntegration::read(const std::string& path) const {
    return readBounded(path, startupFileLimit, true);
}

std::string ShellIntegration::readBounded(const std::string& path, std::size_t limit, bool followLink) const {
    const std::string shown = paths_.abbreviate(path);
    std::optional<std::string> read = readRegularFile(path, limit, followLink ? Links::follow : Links::refuse, shown);
    if (!read) throw ioErrorFromErrno("read " + shown, ENOENT);
    std::string text = std::move(*read);
    if (!unicode::isValidUTF8(text)) {
        throw VeerlineError::io("Couldn't read " + shown + ": The file \u201C" + lastComponent(path) +
                      "\u201D couldn't be opened using text encoding Unicode (UTF-8).");
    }
    return text;
}

void ShellIntegration::checkWritable(const std::string& path, FileKind kind) const {
    if (kind != FileKind::other) return;
    throw VeerlineError::io("Couldn't write " + paths_.abbreviate(path) +
                            ": It isn't a regular file, nor a symbolic link to one. Nothing was changed.");
}

void ShellIntegration::write(const std::string& contents, const std::string& path) const {
    FileKind kind = kindOf(path);
    checkWritable(path, kind);
    // Through a symlinked start-up file: replace the file it points at and keep the link. A link
    // to nothing is replaced itself (its backup keeps it).
    std::string target = kind == FileKind::linkToRegular ? PathUtil::realPath(path).value_or(path) : path;
    mode_t mode = 0644;
    if (struct stat info {}; ::lstat(target.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
        mode = info.st_mode & 07777;
    }
    atomicReplace(contents, path, target, mode);
}

void ShellIntegration::replaceOwnFile(const std::string& contents, const std::string& path, mode_t mode) const {
    atomicReplace(contents, path, path, mode);
}

void ShellIntegration::atomicReplace(const std::string& contents, const std::string& displayPath,
                                     const std::string& target, mode_t mode) const {
    writeFileAtomically(target, contents, mode, paths_.abbreviate(displayPath));
}

void ShellIntegration::copyAtomically(const std::string& source, const std::string& destination) const {
    const std::string shown = paths_.abbreviate(destination);
    auto failure = [&](const std::string& cause) { return VeerlineError::io("Couldn't install " + shown + ": " + cause); };
    // The message of a failed read or write, without its own "Couldn't ... PATH: " in front.
    auto causeOf = [](const VeerlineError& error, const std::string& prefix) {
        std::string text = error.errorDescription();
        return text.starts_with(prefix) ? text.substr(prefix.size()) : text;
    };
    std::optional<std::string> bytes;
    try {
        bytes = readRegularFile(source, executableLimit);
    } catch (const VeerlineError& error) {
        throw failure(causeOf(error, "Couldn't read " + source + ": "));
    }
    if (!bytes) throw failure(std::strerror(ENOENT));
    try {
        writeFileAtomically(destination, *bytes, 0755, shown);
    } catch (const VeerlineError& error) {
        throw failure(causeOf(error, "Couldn't write " + shown + ": "));
    }
}

void ShellIntegration::symlink(const std::string& link, const std::string& destination) const {
    std::error_code error;
    auto current = std::filesystem::read_symlink(link, error);
    if (!error && current.native() == destination) return;
    std::filesystem::remove_all(link, error);
    if (::symlink(destination.c_str(), link.c_str()) != 0) {
        throw ioErrorFromErrno("create " + paths_.abbreviate(link), errno);
    }
}

void ShellIntegration::createDirectory(const std::string& path, mode_t mode) const {
    auto refuseLink = [&] {
        struct stat info {};
        if (::lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
            throw VeerlineError::io("Couldn't create " + paths_.abbreviate(path) +
                                    ": It's a symbolic link, and Veerline writes only into folders it made. "
                                    "Remove the link and try again.");
        }
    };
    refuseLink();
    if (PathUtil::isDirectory(path)) return;
    int lastError = 0;
    std::string partial;
    std::string_view rest(path);
    while (!rest.empty()) {
        auto slash = rest.find('/', 1);
        partial += rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash);
        if (partial == "/" || partial.ends_with("/")) continue;
        lastError = ::mkdir(partial.c_str(), rest.empty() ? mode : 0755) == 0 ? 0 : errno;
        if (lastError != 0 && lastError != EEXIST) break;
    }
    refuseLink();
    if (!PathUtil::isDirectory(path)) {
        throw ioErrorFromErrno("create " + paths_.abbreviate(path), lastError != 0 ? lastError : ENOTDIR);
    }
}

void ShellIntegration::removeFile(const std::string& path) const {
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        std::error_code error;
        std::filesystem::remove_all(path, error);
        if (error) throw VeerlineError::io("Couldn't remove " + paths_.abbreviate(path) + ": " + error.message());
        return;
    }
    if (::unlink(path.c_str()) != 0) throw ioErrorFromErrno("remove " + paths_.abbreviate(path), errno);
}

void ShellIntegration::removeStaleTemporaries() const noexcept {
    try {
        auto staleAfter = [](std::string_view marker) {
            return [marker](std::string_view name) {
                auto pid = processIdAfter(name, marker);
                return pid && processIsGone(*pid);
            };
        };
        removeStaleScratchFolders();
        removeEntriesInside(libexec(), staleAfter(".tmp."));
        removeEntriesInside(root(), [&](std::string_view name) {
            return name.starts_with(".") && staleAfter(temporaryMarker)(name);
        });
        removeEntriesInside(backups(), [&](std::string_view name) {
            return name.starts_with(".") && staleAfter(temporaryMarker)(name);
        });
        for (const std::string& path : managedFiles()) {
            std::string target = kindOf(path) == FileKind::linkToRegular ? PathUtil::realPath(path).value_or(path) : path;
            std::string prefix = "." + lastComponent(target) + std::string(temporaryMarker);
            removeEntriesInside(PathUtil::parent(target), [&](std::string_view name) {
                auto pid = name.starts_with(prefix) ? processIdAfter(name, prefix) : std::nullopt;
                return pid && processIsGone(*pid);
            });
        }
    } catch (...) {
        // Allocation only; the left-overs wait for the next run.
    }
}

std::string ShellIntegration::sha256(std::string_view text) noexcept {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr) != 1) return {};
    static constexpr char hex[] = "0123456789abcdef";
    std::string result;
    result.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) {
        result += hex[digest[i] >> 4];
        result += hex[digest[i] & 0x0F];
    }
    return result;
}

std::string ShellIntegration::timestamp() noexcept {
    std::time_t now = std::time(nullptr);
    std::tm local {};
    ::localtime_r(&now, &local);
    char buffer[32];
    std::size_t length = std::strftime(buffer, sizeof buffer, "%Y%m%d-%H%M%S", &local);
    return std::string(buffer, length);
}

}  // namespace veerline
