#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/interrupt_cleanup.h"

namespace veerline {

// Owns an open file descriptor (or none, as -1) and closes it on destruction, unless the process
// has said it leaves its descriptors to execve or exit (see leaveDescriptorsToProcessEnd).
class FileDescriptor {
public:
    FileDescriptor() noexcept = default;
    explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
    ~FileDescriptor();
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    // Hands the descriptor over without closing it.
    int release() noexcept { return std::exchange(fd_, -1); }
    // Closes now, for callers that must see close's own error: 0 or errno.
    int close() noexcept;

private:
    int fd_ = -1;
};

// For a process about to end in execve or exit, which close every close-on-exec descriptor at
// once: from the call on, FileDescriptor's destructor leaves its descriptor open instead of
// spending a system call on it (1 to 2 us each here, for nothing). Veerline opens every
// descriptor close-on-exec. Only the resolver, which runs before every tool start, calls this.
void leaveDescriptorsToProcessEnd() noexcept;

// Closes a DIR* from opendir or fdopendir, for std::unique_ptr.
struct FolderCloser {
    void operator()(DIR* folder) const noexcept { ::closedir(folder); }
};

// Unlinks `path` on destruction unless keep() says the rename that consumes it went through; an
// interrupt (SIGINT, SIGTERM, SIGHUP) meanwhile removes it too.
class TemporaryFile {
public:
    explicit TemporaryFile(std::string path) noexcept;
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const std::string& path() const noexcept { return path_; }
    void keep() noexcept {
        kept_ = true;
        interrupted_.dismiss();
    }

private:
    std::string path_;
    bool kept_ = false;
    RemoveOnInterrupt interrupted_;
};

// Writes all of `bytes`: 0, or the errno of the write that failed (EIO if one wrote nothing).
int writeAll(int fd, std::string_view bytes) noexcept;

// A fresh name beside `target` for the file that will replace it by rename: hidden, unique to
// this process and call, and shaped ".NAME.PID.N.tmp" so that a sweep can tell whose it is.
std::string temporaryPathBeside(const std::string& target);

// Creates `path` (never an existing one), writes `content`, sets `mode` and flushes it to disk:
// 0, or the errno of the step that failed.
int writeNewFile(const std::string& path, std::string_view content, mode_t mode) noexcept;

// The one way Veerline replaces a file: `content` goes into a temporary file beside `target`,
// is flushed to disk with `mode`, and is renamed over `target` (a link at `target` is replaced,
// never followed). Readers see the old file or the new one, never a mix; on failure the old file
// stays and the temporary one goes. `beforeRename`, when given, runs after the new content is on
// disk and may throw to abandon the write (a caller re-checking that nobody changed the target
// meanwhile). Leftovers of killed writers of the same target are swept afterwards.
// Throws VeerlineError::io "Couldn't write SHOWN: WHY", SHOWN being `shownPath` or `target`.
void writeFileAtomically(const std::string& target, std::string_view content, mode_t mode,
                         const std::string& shownPath = {}, const std::function<void()>& beforeRename = {});

// The same write for a caller that words its own failure: 0, or the errno of the step that failed.
int replaceFileAtomically(const std::string& target, std::string_view content, mode_t mode) noexcept;

// Puts `content` at `target` only when nothing is there, atomically: the file is written in full
// beside it and hard-linked into place, which never replaces anything (a file system without hard
// links gets a rename after one more look). False when something was there already. Throws
// VeerlineError::io "Couldn't write TARGET: WHY".
bool placeNewFileAtomically(const std::string& target, std::string_view content, mode_t mode);

// The same for a symbolic link at `target` pointing at `destination`: 0 or errno.
int placeLinkAtomically(const std::string& target, const std::string& destination) noexcept;

// Renames `from` over `to` (same file system), for a file Veerline has already written in full
// elsewhere: 0 or errno.
int moveIntoPlace(const std::string& from, const std::string& to) noexcept;

// Removes the temporary files that writers of `targetName` in `folder` left when they were killed
// outright (SIGKILL, a power cut): those named as temporaryPathBeside names them whose process is
// gone. A file of a live process is left to it.
void sweepAbandonedTemporaries(const std::string& folder, std::string_view targetName) noexcept;

// The small files Veerline writes itself to name an app (~/.veerline/app-path, codex-app-path):
// a path and a line break. Anything larger was not written by Veerline.
inline constexpr std::size_t maxHintFileSize = 16 * 1024;

enum class Links { follow, refuse };

// The content of the regular file at `path`, or nothing when no file is there (ENOENT). What
// Veerline reads from disk is input, so nothing in its place may stall or swamp the reader: the
// file is opened non-blocking (a FIFO cannot hang a prompt), must be a regular file by fstat
// before a byte is read (no device, FIFO, socket or folder), and may hold at most `limit` bytes.
// With Links::refuse a symbolic link at `path` is refused too. Throws VeerlineError::io,
// "Couldn't read SHOWN: WHY", SHOWN being `shownPath` or `path`, when any of that fails.
std::optional<std::string> readRegularFile(const std::string& path, std::size_t limit,
                                           Links links = Links::follow, const std::string& shownPath = {});

// Whether both paths are regular files (links followed) with the same bytes, opened and judged
// as readRegularFile does and compared a piece at a time; false when either can't be read.
bool sameFileContents(const std::string& first, const std::string& second) noexcept;

// Removes `name` in the open folder `folderFD` without following a symbolic link anywhere: a
// link is removed as a link, a folder with everything in it, each level opened with O_NOFOLLOW
// relative to its parent. 0 when it is gone (or was never there), otherwise the errno of the
// first failure.
int removeTreeAt(int folderFD, const std::string& name);

// Appends to `out` until end of file or until `out` holds `limit` bytes: 0 or errno. A caller
// that refuses files over some size passes one byte more and checks whether `out` reached it.
// Only allocation throws.
int readAll(int fd, std::string& out, std::size_t limit = std::numeric_limits<std::size_t>::max());

}  // namespace veerline
