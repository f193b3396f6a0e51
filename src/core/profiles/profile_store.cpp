#include "profiles/profile_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <cerrno>
#include <vector>

#include "base/error.h"
#include "base/file_io.h"
#include "profiles/quick_document_decoder.h"
#include "platform/platform.h"

namespace veerline {

namespace {

std::uint32_t randomUInt32() noexcept {
    std::uint32_t high = platform::secureRandomBelow(1u << 16);
    std::uint32_t low = platform::secureRandomBelow(1u << 16);
    return (high << 16) | low;
}

// The version alone, read before the whole document so that a newer format is reported as
// such even when the rest of it would not decode. Nothing when it cannot be read.
std::optional<std::int64_t> probeVersion(const nlohmann::json& root) {
    if (!root.is_object()) return std::nullopt;
    auto found = root.find("version");
    if (found == root.end()) return std::nullopt;
    if (found->is_number_unsigned()) {
        // Anything beyond the signed range is still newer than us.
        auto number = found->get<std::uint64_t>();
        if (number > static_cast<std::uint64_t>(INT64_MAX)) return INT64_MAX;
        return static_cast<std::int64_t>(number);
    }
    if (found->is_number_integer()) return found->get<std::int64_t>();
    return std::nullopt;
}

}  // namespace

namespace detail {

ProfilesLock::ProfilesLock(const std::string& lockFile) {
    int fd = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) throw ioErrorFromErrno("open " + lockFile, errno);
    while (::flock(fd, LOCK_EX) != 0) {
        if (errno == EINTR) continue;
        int error = errno;
        ::close(fd);
        throw ioErrorFromErrno("lock profiles", error);
    }
    fd_ = fd;
}

ProfilesLock::~ProfilesLock() {
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
}

}  // namespace detail

ProfileDocument ProfileStore::load() const {
    const std::string path = paths_.profilesFile();
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        if (errno == ENOENT) return ProfileDocument::empty();
        throw ioErrorFromErrno("read " + path, errno);
    }
    std::string bytes;
    if (int error = readAll(file.get(), bytes); error != 0) throw ioErrorFromErrno("read " + path, error);
    return decode(bytes);
}

ProfileDocument ProfileStore::decode(std::string_view bytes) const {
    if (std::optional<ProfileDocument> document = decodeDocumentQuickly(bytes)) return std::move(*document);
    auto root = nlohmann::json::parse(bytes.begin(), bytes.end(), nullptr, false);
    try {
        // Text that is not JSON is parsed again only to describe where it goes wrong.
        if (root.is_discarded()) return decodeDocument(bytes);
        auto version = probeVersion(root);
        if (version && *version > ProfileDocument::currentVersion) {
            throw VeerlineError::storeTooNew(*version);
        }
        return documentFromJSON(root);
    } catch (const DocumentDecodeError& error) {
        throw VeerlineError::storeCorrupt(paths_.profilesFile(), error.what());
    }
}

void ProfileStore::ensureSupportDirectory() const {
    const std::string directory = paths_.supportDirectory();
    // Walk up to the first folder that exists, then create the missing ones top down.
    std::vector<std::string> missing;
    std::string current = directory;
    while (true) {
        struct stat info {};
        if (::stat(current.c_str(), &info) == 0) {
            if (!S_ISDIR(info.st_mode)) throw ioErrorFromErrno("create " + directory, ENOTDIR);
            break;
        }
        if (errno != ENOENT) throw ioErrorFromErrno("create " + directory, errno);
        missing.push_back(current);
        std::string parent = PathUtil::parent(current);
        if (parent == current) break;
        current = std::move(parent);
    }
    for (auto folder = missing.rbegin(); folder != missing.rend(); ++folder) {
        if (::mkdir(folder->c_str(), 0700) == 0) {
            // The umask must not loosen or narrow what we promise.
            ::chmod(folder->c_str(), 0700);
            continue;
        }
        int error = errno;
        struct stat info {};
        // Another process may have created it meanwhile.
        if (error == EEXIST && ::stat(folder->c_str(), &info) == 0 && S_ISDIR(info.st_mode)) continue;
        throw ioErrorFromErrno("create " + directory, error);
    }
}

void ProfileStore::commit(const ProfileDocument& loaded, const ProfileDocument& edited) const {
    if (edited == loaded) return;
    edited.validate();
    write(edited);
}

void ProfileStore::write(const ProfileDocument& document) const {
    const std::string bytes = encodeDocument(document);
    const std::string target = paths_.profilesFile();
    const std::string temporaryPath =
        target + ".tmp." + std::to_string(::getpid()) + "." + std::to_string(randomUInt32());

    FileDescriptor file(::open(temporaryPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file) throw ioErrorFromErrno("write " + temporaryPath, errno);
    TemporaryFile cleanup(temporaryPath);
    ::fchmod(file.get(), 0600);

    int error = writeAll(file.get(), bytes);
    if (error == 0 && ::fsync(file.get()) != 0) error = errno;
    if (int closed = file.close(); closed != 0 && error == 0 && closed != EINTR) error = closed;
    if (error != 0) throw ioErrorFromErrno("save profiles", error);

    if (::rename(temporaryPath.c_str(), target.c_str()) != 0) {
        throw ioErrorFromErrno("save profiles", errno);
    }
    cleanup.keep();
}

}  // namespace veerline
