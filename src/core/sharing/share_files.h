#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/paths.h"

namespace veerline {
namespace detail {
class ProfilesLock;
}

namespace sharing {

// What lstat sees at a path: nothing, a symbolic link (never followed), a folder or anything else.
enum class EntryKind { missing, link, folder, other };
EntryKind entryKind(const std::string& path) noexcept;

// A tool's settings file: at most this many bytes (Claude Code's .claude.json grows with its caches).
inline constexpr std::size_t maxSharedFileSize = 64 * 1024 * 1024;

// The file at `path` itself, never through a link: nothing when absent. Throws VeerlineError::io
// for a link, a folder, an unreadable or an oversized file.
std::optional<std::string> readOwnFile(const std::string& path);

// Replaces `path` itself (a link there is replaced, not followed) by a file holding `content`;
// `mode` is the old file's when there was one. `beforeRename` may throw to abandon the write.
void replaceFile(const std::string& path, const std::string& content, mode_t mode,
                 const std::function<void()>& beforeRename = {});

// The permission bits of the file at `path` (not followed), or `fallback` when there is none.
mode_t fileModeOr(const std::string& path, mode_t fallback) noexcept;

// Claude Code's own lock on a file it rewrites (.claude.json): a folder named after the file
// with ".lock", made by mkdir and removed by rmdir, so that taking and dropping it are atomic.
// Claude Code treats a lock whose folder wasn't touched for ten seconds as left by a dead
// process and takes it over; so does this. Throws VeerlineError::io, naming `shown`, when the
// lock stays taken.
class ClaudeStateLock {
public:
    static constexpr int staleSeconds = 10;

    ClaudeStateLock(const std::string& file, const std::string& shown);
    ~ClaudeStateLock();
    ClaudeStateLock(const ClaudeStateLock&) = delete;
    ClaudeStateLock& operator=(const ClaudeStateLock&) = delete;

private:
    std::string folder_;
};

// The one lock for every read-modify-write of sharing state (sharing.json, each profile's
// record and the files it describes), between processes: an exclusive flock on ".sharing.lock"
// in the support folder, held by every share command and every command that brings a profile
// the shared setup.
class SharingLock {
public:
    explicit SharingLock(const Paths& paths);
    ~SharingLock();
    SharingLock(const SharingLock&) = delete;
    SharingLock& operator=(const SharingLock&) = delete;

private:
    std::unique_ptr<detail::ProfilesLock> lock_;
};

}  // namespace sharing
}  // namespace veerline
