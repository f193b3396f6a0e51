#include "base/file_io.h"

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
