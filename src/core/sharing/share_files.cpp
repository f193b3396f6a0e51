#include "sharing/share_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>

#include "base/error.h"
#include "base/file_io.h"
#include "profiles/profile_store.h"

namespace veerline::sharing {

EntryKind entryKind(const std::string& path) noexcept {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return EntryKind::missing;
    if (S_ISLNK(st.st_mode)) return EntryKind::link;
    return S_ISDIR(st.st_mode) ? EntryKind::folder : EntryKind::other;
}

std::optional<std::string> readOwnFile(const std::string& path) {
    switch (entryKind(path)) {
        case EntryKind::missing: return std::nullopt;
        case EntryKind::link: throw VeerlineError::io("Couldn't read " + path + ": it is a symbolic link, which Veerline leaves alone.");
        default: break;
    }
    return readRegularFile(path, maxSharedFileSize);
}

mode_t fileModeOr(const std::string& path, mode_t fallback) noexcept {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return fallback;
    return st.st_mode & 07777;
}

void replaceFile(const std::string& path, const std::string& content, mode_t mode,
                 const std::function<void()>& beforeRename) {
    writeFileAtomically(path, content, mode, {}, beforeRename);
}

ClaudeStateLock::ClaudeStateLock(const std::string& file, const std::string& shown) : folder_(file + ".lock") {
    using Clock = std::chrono::steady_clock;
    // Claude Code holds it for one read-modify-write; waiting well past its stale time covers
    // one that is slow, and one refreshing a lock it keeps would be a bug to report, not wait for.
    const auto giveUp = Clock::now() + std::chrono::seconds(3 * staleSeconds);
    auto pause = std::chrono::milliseconds(2);
    while (::mkdir(folder_.c_str(), 0755) != 0) {
        if (errno != EEXIST) throw ioErrorFromErrno("lock " + shown, errno);
        struct stat info {};
        if (::lstat(folder_.c_str(), &info) == 0 && S_ISDIR(info.st_mode) &&
            ::time(nullptr) - info.st_mtime > staleSeconds) {
            ::rmdir(folder_.c_str());
            continue;
        }
        if (Clock::now() > giveUp) {
            throw VeerlineError::io("Couldn't update " + shown + ": Claude Code keeps it locked (" + shown +
                                    ".lock). Quit Claude Code in that profile, then try again.");
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(50));
    }
}

ClaudeStateLock::~ClaudeStateLock() {
    ::rmdir(folder_.c_str());
}

SharingLock::SharingLock(const Paths& paths) {
    // The support folder may not exist yet: make it, and those above it, as the profiles store does.
    std::vector<std::string> missing;
    for (std::string current = paths.supportDirectory(); entryKind(current) == EntryKind::missing;
         current = PathUtil::parent(current)) {
        missing.push_back(current);
        if (current == "/" || current.empty()) break;
    }
    for (auto folder = missing.rbegin(); folder != missing.rend(); ++folder) {
        if (::mkdir(folder->c_str(), 0700) != 0 && errno != EEXIST) throw ioErrorFromErrno("create " + *folder, errno);
    }
    lock_ = std::make_unique<detail::ProfilesLock>(paths.supportDirectory() + "/.sharing.lock");
}

SharingLock::~SharingLock() = default;

}  // namespace veerline::sharing
