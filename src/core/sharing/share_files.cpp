#include "sharing/share_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/error.h"
#include "base/file_io.h"

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

void replaceFile(const std::string& path, const std::string& content, mode_t mode) {
    TemporaryFile temporary(temporaryPathBeside(path));
    int error = writeNewFile(temporary.path(), content, mode);
    if (error == 0 && ::rename(temporary.path().c_str(), path.c_str()) != 0) error = errno;
    if (error != 0) throw ioErrorFromErrno("write " + path, error);
    temporary.keep();
}

}  // namespace veerline::sharing
