#include "core/file_io.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace veerline {

FileDescriptor::~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
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

TemporaryFile::~TemporaryFile() {
    if (!kept_) ::unlink(path_.c_str());
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

int readAll(int fd, std::string& out, std::size_t limit) {
    char buffer[65536];
    while (out.size() < limit) {
        ssize_t count = ::read(fd, buffer, std::min(sizeof buffer, limit - out.size()));
        if (count < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        if (count == 0) break;
        out.append(buffer, static_cast<std::size_t>(count));
    }
    return 0;
}

}  // namespace veerline
