#include "base/file_io.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <signal.h>

#include <algorithm>
#include <charconv>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/interrupt_cleanup.h"

namespace veerline {

namespace {
bool descriptorsLeftToProcessEnd = false;
}  // namespace

void leaveDescriptorsToProcessEnd() noexcept {
    descriptorsLeftToProcessEnd = true;
}

FileDescriptor::~FileDescriptor() {
    if (fd_ >= 0 && !descriptorsLeftToProcessEnd) ::close(fd_);
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = other.release();
    }
    return *this;
}

int FileDescriptor::close() noexcept {
    if (fd_ < 0) return 0;
    return ::close(release()) == 0 ? 0 : errno;
}

namespace {

std::string describeSize(std::size_t bytes) {
    if (bytes >= 1024 * 1024 && bytes % (1024 * 1024) == 0) return std::to_string(bytes / (1024 * 1024)) + " MB";
    if (bytes >= 1024 && bytes % 1024 == 0) return std::to_string(bytes / 1024) + " kB";
    return std::to_string(bytes) + " bytes";
}

std::pair<std::string, std::string> splitFolder(const std::string& path) {
    std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {".", path};
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

}  // namespace

TemporaryFile::TemporaryFile(std::string path) noexcept
    : path_(std::move(path)), interrupted_(path_, RemoveOnInterrupt::Kind::file) {}

TemporaryFile::~TemporaryFile() {
    if (!kept_) ::unlink(path_.c_str());
}

std::string temporaryPathBeside(const std::string& target) {
    static std::atomic<unsigned> counter{0};
    auto [folder, name] = splitFolder(target);
    return (folder == "/" ? "" : folder) + "/." + name + "." + std::to_string(::getpid()) + "." +
           std::to_string(counter.fetch_add(1)) + ".tmp";
}

namespace {

// The owner's process id of a temporary file named ".NAME.PID.N.tmp", or 0.
pid_t temporaryOwner(std::string_view entry, std::string_view targetName) noexcept {
    if (!entry.starts_with('.') || !entry.ends_with(".tmp")) return 0;
    entry.remove_prefix(1);
    entry.remove_suffix(4);
    if (!entry.starts_with(targetName) || entry.size() <= targetName.size() + 1 || entry[targetName.size()] != '.') {
        return 0;
    }
    entry.remove_prefix(targetName.size() + 1);
    const std::size_t dot = entry.find('.');
    if (dot == std::string_view::npos) return 0;
    std::string_view counter = entry.substr(dot + 1);
    if (counter.empty() || counter.find_first_not_of("0123456789") != std::string_view::npos) return 0;
    pid_t pid = 0;
    auto [end, error] = std::from_chars(entry.data(), entry.data() + dot, pid);
    if (error != std::errc() || end != entry.data() + dot || pid <= 0) return 0;
    return pid;
}

}  // namespace

void sweepAbandonedTemporaries(const std::string& folder, std::string_view targetName) noexcept {
    try {
        std::unique_ptr<DIR, FolderCloser> listing(::opendir(folder.c_str()));
        if (!listing) return;
        std::vector<std::string> abandoned;
        while (const dirent* entry = ::readdir(listing.get())) {
            pid_t owner = temporaryOwner(entry->d_name, targetName);
            if (owner == 0 || owner == ::getpid()) continue;
            if (::kill(owner, 0) != 0 && errno == ESRCH) abandoned.emplace_back(entry->d_name);
        }
        for (const std::string& name : abandoned) ::unlinkat(::dirfd(listing.get()), name.c_str(), 0);
    } catch (...) {
        // Only allocation can fail here, and a sweep is a courtesy.
    }
}

namespace {

// 0 or errno; only `beforeRename` throws. Leftovers of killed writers of the same target go once
// the new file is in place.
int replaceAtomically(const std::string& target, std::string_view content, mode_t mode,
                      const std::function<void()>& beforeRename) {
    TemporaryFile temporary(temporaryPathBeside(target));
    if (int error = writeNewFile(temporary.path(), content, mode); error != 0) return error;
    if (beforeRename) beforeRename();
    if (::rename(temporary.path().c_str(), target.c_str()) != 0) return errno;
    temporary.keep();
    auto [folder, name] = splitFolder(target);
    sweepAbandonedTemporaries(folder, name);
    return 0;
}

}  // namespace

void writeFileAtomically(const std::string& target, std::string_view content, mode_t mode,
                         const std::string& shownPath, const std::function<void()>& beforeRename) {
    if (int error = replaceAtomically(target, content, mode, beforeRename); error != 0) {
        throw ioErrorFromErrno("write " + (shownPath.empty() ? target : shownPath), error);
    }
}

int replaceFileAtomically(const std::string& target, std::string_view content, mode_t mode) noexcept {
    try {
        return replaceAtomically(target, content, mode, {});
    } catch (...) {
        return ENOMEM;
    }
}

bool placeNewFileAtomically(const std::string& target, std::string_view content, mode_t mode) {
    auto failure = [&](int error) { return ioErrorFromErrno("write " + target, error); };
    TemporaryFile temporary(temporaryPathBeside(target));
    if (int error = writeNewFile(temporary.path(), content, mode); error != 0) throw failure(error);
    auto [folder, name] = splitFolder(target);
    if (::link(temporary.path().c_str(), target.c_str()) != 0) {
        if (errno == EEXIST) return false;
        struct stat info {};
        if (::lstat(target.c_str(), &info) == 0) return false;
        if (::rename(temporary.path().c_str(), target.c_str()) != 0) throw failure(errno);
        temporary.keep();
    }
    sweepAbandonedTemporaries(folder, name);
    return true;
}

int placeLinkAtomically(const std::string& target, const std::string& destination) noexcept {
    try {
        TemporaryFile temporary(temporaryPathBeside(target));
        if (::symlink(destination.c_str(), temporary.path().c_str()) != 0) return errno;
        if (::rename(temporary.path().c_str(), target.c_str()) != 0) return errno;
        temporary.keep();
        return 0;
    } catch (...) {
        return ENOMEM;
    }
}

int moveIntoPlace(const std::string& from, const std::string& to) noexcept {
    return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

int writeNewFile(const std::string& path, std::string_view content, mode_t mode) noexcept {
    FileDescriptor fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!fd) return errno;
    int error = writeAll(fd.get(), content);
    if (error == 0 && ::fchmod(fd.get(), mode) != 0) error = errno;
    if (error == 0 && ::fsync(fd.get()) != 0) error = errno;
    if (int closed = fd.close(); closed != 0 && error == 0) error = closed;
    return error;
}

int writeAll(int fd, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        if (written == 0) return EIO;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

namespace {

// The file at `path` opened for reading without waiting on it, and judged by what was opened
// rather than by an earlier look at the path: the descriptor, or none with `error` set to the
// errno of the failure, or with `notRegular` set when something other than a regular file is there.
FileDescriptor openRegularFile(const std::string& path, Links links, struct stat& info, int& error,
                               bool& notRegular) noexcept {
    notRegular = false;
    // A FIFO or a socket's path opens at once this way, and a device is never made our terminal.
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY |
                                                 (links == Links::refuse ? O_NOFOLLOW : 0)));
    if (!file) {
        error = errno;
        // A socket can't be opened at all; it is no more a file than a FIFO is.
        notRegular = error == ENXIO || error == EOPNOTSUPP || (error == ELOOP && links == Links::refuse);
        return file;
    }
    if (::fstat(file.get(), &info) != 0) {
        error = errno;
        return FileDescriptor();
    }
    if (!S_ISREG(info.st_mode)) {
        notRegular = true;
        return FileDescriptor();
    }
    error = 0;
    return file;
}

}  // namespace

bool sameFileContents(const std::string& first, const std::string& second) noexcept {
    try {
        struct stat infoA {}, infoB {};
        int error = 0;
        bool notRegular = false;
        FileDescriptor a = openRegularFile(first, Links::follow, infoA, error, notRegular);
        FileDescriptor b = openRegularFile(second, Links::follow, infoB, error, notRegular);
        if (!a || !b || infoA.st_size != infoB.st_size) return false;
        static constexpr std::size_t piece = 65536;
        std::string bufferA, bufferB;
        for (;;) {
            bufferA.clear();
            bufferB.clear();
            if (readAll(a.get(), bufferA, piece) != 0 || readAll(b.get(), bufferB, piece) != 0) return false;
            if (bufferA != bufferB) return false;
            if (bufferA.empty()) return true;
        }
    } catch (...) {
        return false;
    }
}

std::optional<std::string> readRegularFile(const std::string& path, std::size_t limit, Links links,
                                           const std::string& shownPath) {
    const std::string& shown = shownPath.empty() ? path : shownPath;
    struct stat info {};
    int openError = 0;
    bool notRegular = false;
    FileDescriptor file = openRegularFile(path, links, info, openError, notRegular);
    if (notRegular) {
        const char* what = links == Links::refuse && openError == ELOOP ? "it's a symbolic link." : "it isn't a regular file.";
        throw VeerlineError::io("Couldn't read " + shown + ": " + what);
    }
    if (!file) {
        if (openError == ENOENT) return std::nullopt;
        throw ioErrorFromErrno("read " + shown, openError);
    }
    auto tooLarge = [&] {
        return VeerlineError::io("Couldn't read " + shown + ": the file is too large (over " + describeSize(limit) +
                                 ").");
    };
    if (info.st_size > 0 && static_cast<std::uintmax_t>(info.st_size) > limit) throw tooLarge();
    std::string bytes;
    // One byte more than allowed shows a file that grew, or one whose size the system can't tell.
    const std::size_t bound = limit == std::numeric_limits<std::size_t>::max() ? limit : limit + 1;
    if (info.st_size > 0) {
        // The size is known: one read of it and a byte more, straight into the answer (a buffer of
        // its own and a copy cost a second round of page faults on a file of megabytes, such as the
        // usage cache). Coming back short at exactly the size, the read was the whole file, and a
        // second read only to hear "end of file" is spared (the resolver reads two files on every
        // start).
        const auto size = static_cast<std::size_t>(info.st_size);
        const std::size_t wanted = std::min(size + 1, bound);
        bytes.resize(wanted);
        ssize_t count;
        do {
            count = ::read(file.get(), bytes.data(), wanted);
        } while (count < 0 && errno == EINTR);
        if (count < 0) throw ioErrorFromErrno("read " + shown, errno);
        bytes.resize(static_cast<std::size_t>(count));
        if (bytes.size() == size) return bytes;
    }
    if (int error = readAll(file.get(), bytes, bound); error != 0) throw ioErrorFromErrno("read " + shown, error);
    if (bytes.size() > limit) throw tooLarge();
    return bytes;
}

int removeTreeAt(int folderFD, const std::string& name) {
    struct stat info {};
    if (::fstatat(folderFD, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT ? 0 : errno;
    if (!S_ISDIR(info.st_mode)) {
        return ::unlinkat(folderFD, name.c_str(), 0) == 0 || errno == ENOENT ? 0 : errno;
    }
    int fd = ::openat(folderFD, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return errno;
    // fdopendir takes the descriptor over; closedir closes it.
    std::unique_ptr<DIR, FolderCloser> folder(::fdopendir(fd));
    if (!folder) {
        int error = errno;
        ::close(fd);
        return error;
    }
    // Names first, removals after: a folder changed while it is read may list names twice or not
    // at all.
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* entry = ::readdir(folder.get())) {
        std::string_view entryName(entry->d_name);
        if (entryName != "." && entryName != "..") names.emplace_back(entryName);
    }
    if (errno != 0) return errno;
    for (const std::string& entryName : names) {
        if (int error = removeTreeAt(::dirfd(folder.get()), entryName); error != 0) return error;
    }
    folder.reset();
    return ::unlinkat(folderFD, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT ? 0 : errno;
}

int readAll(int fd, std::string& out, std::size_t limit) {
    // Reads straight into the string: a large buffer on the stack would cost fresh stack pages
    // in the short-lived resolver.
    while (out.size() < limit) {
        const std::size_t used = out.size();
        if (out.capacity() == used || out.capacity() < 4096) {
            out.reserve(std::min(limit, std::max<std::size_t>(2 * out.capacity(), 4096)));
        }
        const std::size_t room = std::min(out.capacity(), limit) - used;
        out.resize(used + room);
        ssize_t count = ::read(fd, out.data() + used, room);
        int error = errno;
        out.resize(used + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        if (count < 0) {
            if (error == EINTR) continue;
            return error;
        }
        if (count == 0) break;
    }
    return 0;
}

}  // namespace veerline
