#include "profiles/profile_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>


#include <algorithm>
#include <cerrno>
#include <cmath>
#include <filesystem>
#include <vector>

#include "base/error.h"
#include "base/file_io.h"
#include "base/json_input.h"
#include "profiles/quick_document_decoder.h"

namespace veerline {

namespace {

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
    if (found->is_number_float()) {
        // The decoder reads 2.0 and 1e1 as the integers they are, so the probe must too: a newer
        // format in any spelling is refused, never rewritten as an older one.
        double number = found->get<double>();
        if (!std::isfinite(number) || std::trunc(number) != number) return std::nullopt;
        if (number >= 9.2e18) return INT64_MAX;
        if (number <= -9.2e18) return INT64_MIN;
        return static_cast<std::int64_t>(number);
    }
    return std::nullopt;
}

// Where a save lands: the profiles file itself, or, when it is a symbolic link (kept in a synced
// folder, say), the regular file at the end of the links, which is replaced in its own folder.
// Anything but a regular file there (a device, a FIFO, a folder) is refused.
std::string saveTarget(const std::string& path) {
    std::string current = path;
    for (int hops = 0; hops < 40; ++hops) {
        struct stat info {};
        if (::lstat(current.c_str(), &info) != 0) {
            if (errno == ENOENT) return current;
            throw ioErrorFromErrno("save profiles", errno);
        }
        if (S_ISREG(info.st_mode)) return current;
        if (!S_ISLNK(info.st_mode)) {
            throw VeerlineError::io("Couldn't save profiles: " + current + " isn't a regular file.");
        }
        std::error_code error;
        std::string target = std::filesystem::read_symlink(current, error).string();
        if (error) throw VeerlineError::io("Couldn't save profiles: " + error.message());
        if (!target.starts_with("/")) target = PathUtil::parent(current) + "/" + target;
        std::string name = target.substr(target.rfind('/') + 1);
        std::optional<std::string> folder = PathUtil::realPath(PathUtil::parent(target));
        if (!folder || name.empty() || name == "." || name == "..") {
            throw VeerlineError::io("Couldn't save profiles: " + current + " links to " + target +
                                    ", which isn't a file in an existing folder.");
        }
        current = (*folder == "/" ? "" : *folder) + "/" + name;
    }
    throw ioErrorFromErrno("save profiles", ELOOP);
}

}  // namespace

namespace detail {

ProfilesLock::ProfilesLock(const std::string& lockFile) {
    // Never through a link (that would create or lock its target), never a FIFO or device.
    int fd = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600);
    if (fd < 0) throw ioErrorFromErrno("open " + lockFile, errno);
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        throw VeerlineError::io("Couldn't open " + lockFile + ": it isn't a regular file.");
    }
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
    std::optional<std::string> bytes = readRegularFile(path, maxFileSize);
    if (!bytes) return ProfileDocument::empty();
    return decode(*bytes);
}

ProfileDocument ProfileStore::decode(std::string_view bytes) const {
    // The JSON reader takes a NUL byte for the end of the text, and JSON never holds one: what
    // follows it would be accepted unread and dropped by the next save.
    const bool holdsNUL = bytes.find('\0') != std::string_view::npos;
    if (!holdsNUL) {
        if (std::optional<ProfileDocument> document = decodeDocumentQuickly(bytes)) return std::move(*document);
    }
    auto root = holdsNUL ? nlohmann::json(nlohmann::json::value_t::discarded)
                         : JsonInput::parse(bytes).value_or(nlohmann::json(nlohmann::json::value_t::discarded));
    try {
        // Text that is not JSON is parsed again only to describe where it goes wrong.
        if (root.is_discarded()) return decodeDocument(bytes);
        auto version = probeVersion(root);
        if (version && *version > ProfileDocument::currentVersion) {
            throw VeerlineError::storeTooNew(*version);
        }
        ProfileDocument document = documentFromJSON(root);
        if (document.version > ProfileDocument::currentVersion) throw VeerlineError::storeTooNew(document.version);
        return document;
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

namespace {

// Whether `part` is `whole` with some elements left out, the order kept.
template <typename T>
bool leavesOut(const std::vector<T>& whole, const std::vector<T>& part) {
    auto next = whole.begin();
    for (const T& element : part) {
        next = std::find(next, whole.end(), element);
        if (next == whole.end()) return false;
        ++next;
    }
    return true;
}

// An edit that only takes profiles, rules or the terminal default out, and leaves nothing pointing
// at a profile it took. It can add no problem to the document, so it is saved even while problems
// it did not cause remain: otherwise two of them would each block the repair of the other.
bool onlyTakesOut(const ProfileDocument& loaded, const ProfileDocument& edited) {
    if (edited.version != loaded.version || !leavesOut(loaded.profiles, edited.profiles) ||
        !leavesOut(loaded.rules, edited.rules) || (edited.cliDefault && edited.cliDefault != loaded.cliDefault)) {
        return false;
    }
    auto keeps = [&](const ProfileID& id) { return loaded.profile(id) == nullptr || edited.profile(id) != nullptr; };
    return std::all_of(edited.rules.begin(), edited.rules.end(),
                       [&](const FolderRule& rule) { return keeps(rule.profileID); }) &&
           (!edited.cliDefault || keeps(*edited.cliDefault));
}

}  // namespace

void ProfileStore::commit(const ProfileDocument& loaded, const ProfileDocument& edited) const {
    if (edited == loaded) return;
    if (!onlyTakesOut(loaded, edited)) edited.validate();
    write(edited);
}

void ProfileStore::write(const ProfileDocument& document) const {
    const std::string bytes = encodeDocument(document);
    // This save holds the lock, so temporary files other saves left behind are nobody's: the
    // writer sweeps those of processes that are gone.
    if (int error = replaceFileAtomically(saveTarget(paths_.profilesFile()), bytes, 0600); error != 0) {
        throw ioErrorFromErrno("save profiles", error);
    }
}

}  // namespace veerline
