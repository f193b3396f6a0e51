#include "platform/platform.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unordered_map>

#include "base/file_io.h"

#ifndef FS_CASEFOLD_FL
#define FS_CASEFOLD_FL 0x40000000
#endif

namespace veerline::platform {

namespace {

// File systems that compare names without case whatever the folder says.
bool isCaseInsensitiveFileSystem(long type) {
    switch (static_cast<unsigned long>(type)) {
        case MSDOS_SUPER_MAGIC:
        case 0x2011BAB0UL:  // exfat
        case 0x5346544EUL:  // ntfs (ntfs-3g)
        case 0x7366746EUL:  // ntfs3
        case SMB_SUPER_MAGIC:
        case 0xFE534D42UL:  // smb2
        case 0xFF534D42UL:  // cifs
            return true;
        default:
            return false;
    }
}

// Whether a name in the open folder `fd` can only ever be found spelled exactly as listed: file
// systems known to compare names byte for byte, unless the folder folds case.
bool namesAreExact(int fd) {
    struct statfs fs {};
    if (fstatfs(fd, &fs) != 0) return false;
    switch (static_cast<unsigned long>(fs.f_type)) {
        case EXT4_SUPER_MAGIC:  // ext2 and ext3 too
        case F2FS_SUPER_MAGIC:
        case TMPFS_MAGIC:
        case BTRFS_SUPER_MAGIC:
        case XFS_SUPER_MAGIC:
        case OVERLAYFS_SUPER_MAGIC:
            break;
        default:
            return false;
    }
    int flags = 0;
    return !(ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_CASEFOLD_FL) != 0);
}

// A symbolic link's target; nothing when it cannot be read.
std::optional<std::string> readLink(const std::string& path) {
    // Most targets are short; a small first buffer spares the resolver a fresh page.
    std::string buffer(256, '\0');
    while (buffer.size() <= PATH_MAX * 4) {
        ssize_t length = readlink(path.c_str(), buffer.data(), buffer.size());
        if (length <= 0) return std::nullopt;
        if (static_cast<std::size_t>(length) < buffer.size()) {
            buffer.resize(static_cast<std::size_t>(length));
            return buffer;
        }
        buffer.resize(buffer.size() * 4);
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> executablePath() noexcept {
    try {
        return readLink("/proc/self/exe");
    } catch (...) {
        return std::nullopt;
    }
}

std::optional<std::string> realPath(const std::string& path) noexcept {
    try {
        // glibc's realpath reads every component as a link; asking the kernel which file an
        // O_PATH descriptor names costs three system calls however deep the path is.
        int fd = open(path.c_str(), O_PATH | O_CLOEXEC);
        if (fd >= 0) {
            std::optional<std::string> result;
            try {
                result = readLink("/proc/self/fd/" + std::to_string(fd));
            } catch (...) {
            }
            close(fd);
            // Without /proc, or for a file deleted meanwhile (" (deleted)"), ask realpath.
            if (result && result->starts_with('/') && !result->ends_with(" (deleted)")) return result;
        } else if (errno == ENOENT || errno == ENOTDIR) {
            return std::nullopt;
        }
        std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
        if (!resolved) return std::nullopt;
        return std::string(resolved.get());
    } catch (...) {
        return std::nullopt;
    }
}

std::optional<FolderListing> listFolder(int folderFD) noexcept {
    try {
        if (!namesAreExact(folderFD)) return std::nullopt;
        // Most folders fit the first buffer; it grows up to room for a couple of hundred names.
        // A larger folder costs more to read whole than its names cost one by one. Buffers are
        // left uninitialised: only the part the kernel fills is touched.
        constexpr std::size_t largest = 8192;
        std::size_t capacity = 1024;
        std::unique_ptr<char[]> storage(new char[capacity]);
        std::size_t used = 0;
        for (;;) {
            ssize_t count = getdents64(folderFD, storage.get() + used, capacity - used);
            if (count == 0) break;
            if (count > 0) {
                used += static_cast<std::size_t>(count);
                continue;
            }
            if (errno == EINTR) continue;
            // EINVAL: no room left for the next name.
            if (errno != EINVAL || capacity == largest) return std::nullopt;
            std::unique_ptr<char[]> larger(new char[capacity * 2]);
            std::memcpy(larger.get(), storage.get(), used);
            storage = std::move(larger);
            capacity *= 2;
        }

        std::vector<std::pair<std::string_view, FolderListing::Kind>> entries;
        entries.reserve(used / 24);
        for (std::size_t offset = 0; offset < used;) {
            const auto* entry = reinterpret_cast<const struct dirent64*>(storage.get() + offset);
            offset += entry->d_reclen;
            std::string_view name(entry->d_name);
            if (name == "." || name == "..") continue;
            auto kind = entry->d_type == DT_LNK       ? FolderListing::Kind::link
                        : entry->d_type == DT_UNKNOWN ? FolderListing::Kind::unknown
                                                      : FolderListing::Kind::other;
            entries.emplace_back(name, kind);
        }
        return FolderListing(std::move(storage), std::move(entries));
    } catch (...) {
        return std::nullopt;
    }
}

std::optional<bool> volumeIsCaseSensitive(const std::string& path) noexcept {
    try {
        // ext4 and f2fs can fold case per folder; a file takes the answer of its folder.
        int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0 && errno == ENOTDIR) {
            auto slash = path.find_last_of('/');
            std::string folder = (slash == std::string::npos || slash == 0) ? "/" : path.substr(0, slash);
            fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK);
        }
        struct statfs fs {};
        if (fd < 0) {
            // An unreadable folder: only the file system can still tell.
            if (statfs(path.c_str(), &fs) != 0) return std::nullopt;
            return !isCaseInsensitiveFileSystem(static_cast<long>(fs.f_type));
        }
        FileDescriptor folder(fd);
        if (fstatfs(fd, &fs) == 0 && isCaseInsensitiveFileSystem(static_cast<long>(fs.f_type))) return false;
        int flags = 0;
        return !(ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_CASEFOLD_FL) != 0);
    } catch (...) {
        return true;
    }
}

std::uint32_t secureRandomBelow(std::uint32_t bound) noexcept {
    if (bound <= 1) return 0;
    // Reject the top partial range so every value is equally likely.
    const std::uint32_t limit = UINT32_MAX - (UINT32_MAX % bound);
    for (;;) {
        std::uint32_t value = 0;
        ssize_t got = getrandom(&value, sizeof value, 0);
        if (got != static_cast<ssize_t>(sizeof value)) {
            if (got < 0 && errno == EINTR) continue;
            // getrandom only fails on kernels older than 3.17; /dev/urandom is the same source.
            int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
            if (fd < 0 || read(fd, &value, sizeof value) != static_cast<ssize_t>(sizeof value)) {
                if (fd >= 0) close(fd);
                std::abort();
            }
            close(fd);
        }
        if (value < limit) return value % bound;
    }
}

std::optional<std::string> securityStatusMessage(std::int32_t status) {
    // The Security framework's texts for the statuses a generic-password store meets.
    static const std::unordered_map<std::int32_t, const char*> messages = {
        {0, "No error."},
        {-4, "Function or operation not implemented."},
        {-50, "One or more parameters passed to a function were not valid."},
        {-108, "Failed to allocate memory."},
        {-128, "User canceled the operation."},
        {-25291, "No keychain is available. You may need to restart your computer."},
        {-25292, "This keychain cannot be modified."},
        {-25293, "The user name or passphrase you entered is not correct."},
        {-25294, "The specified keychain could not be found."},
        {-25295, "The specified keychain is not a valid keychain file."},
        {-25299, "The specified item already exists in the keychain."},
        {-25300, "The specified item could not be found in the keychain."},
        {-25308, "User interaction is not allowed."},
        {-26276, "The function failed because of an internal error."},
        {-34018, "A required entitlement isn't present."},
    };
    auto found = messages.find(status);
    if (found == messages.end()) return std::nullopt;
    return std::string(found->second);
}

std::string fallbackHomeDirectory() {
    return "/";
}

std::string temporaryDirectory() {
    const char* tmp = std::getenv("TMPDIR");
    std::string folder = (tmp != nullptr && tmp[0] == '/') ? tmp : "/tmp";
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    return folder;
}

std::span<const std::string_view> sessionServiceVariables() noexcept {
    // The Secret Service answers on the session bus, found through these two.
    static constexpr std::string_view names[] = {"DBUS_SESSION_BUS_ADDRESS", "XDG_RUNTIME_DIR"};
    return names;
}

std::string_view codexStarterConfig() noexcept {
    // "keyring" alone fails every sign-in where no Secret Service runs (servers, SSH sessions,
    // containers, minimal desktops); "auto" falls back to a file that only the user can read.
    return "# Written by Veerline for this profile. Codex keeps this profile's login in the\n"
           "# keyring where a Secret Service runs (most desktops), else in auth.json in this\n"
           "# folder, readable by you only. Add your own settings below.\n"
           "cli_auth_credentials_store = \"auto\"\n";
}

std::span<const std::string_view> outdatedCodexStarterConfigs() noexcept {
    static constexpr std::string_view outdated[] = {
        "# Written by Veerline for this profile. Keeps this profile's Codex login in the\n"
        "# macOS Keychain instead of a plaintext auth.json. Add your own settings below.\n"
        "cli_auth_credentials_store = \"keyring\"\n",
    };
    return outdated;
}

std::string privateScratchDirectory() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || runtime[0] != '/') return temporaryDirectory();
    std::string folder = runtime;
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    return folder;
}

bool interactiveBashReadsBashrc() noexcept {
    return true;
}

bool hasApplicationBundles() noexcept {
    return false;
}

std::optional<std::string_view> shellIntegrationSetting() noexcept {
    return std::nullopt;
}

std::optional<InstalledApp> findApplication(std::string_view, const std::vector<std::string>&) noexcept {
    return std::nullopt;
}

std::string cacheDirectory(const std::string& home, const std::string* xdgCacheHome) {
    // The XDG rules say a relative value is invalid and must be ignored.
    if (xdgCacheHome != nullptr && !xdgCacheHome->empty() && xdgCacheHome->front() == '/') {
        return *xdgCacheHome + "/veerline";
    }
    return home + "/.cache/veerline";
}

}  // namespace veerline::platform
