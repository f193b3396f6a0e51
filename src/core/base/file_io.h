#pragma once

#include <cstddef>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

namespace veerline {

// Owns an open file descriptor (or none, as -1) and closes it on destruction.
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

// Unlinks `path` on destruction unless keep() says the rename that consumes it went through.
class TemporaryFile {
public:
    explicit TemporaryFile(std::string path) noexcept : path_(std::move(path)) {}
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const std::string& path() const noexcept { return path_; }
    void keep() noexcept { kept_ = true; }

private:
    std::string path_;
    bool kept_ = false;
};

// Writes all of `bytes`: 0, or the errno of the write that failed (EIO if one wrote nothing).
int writeAll(int fd, std::string_view bytes) noexcept;

// Appends to `out` until end of file or until `out` holds `limit` bytes: 0 or errno. A caller
// that refuses files over some size passes one byte more and checks whether `out` reached it.
// Only allocation throws.
int readAll(int fd, std::string& out, std::size_t limit = std::numeric_limits<std::size_t>::max());

}  // namespace veerline
