#include "shell/stale_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <string>
#include <vector>

#include "base/file_io.h"

namespace veerline {

std::optional<long> processIdAfter(std::string_view name, std::string_view marker,
                                   std::optional<char> terminator) noexcept {
    auto at = name.find(marker);
    if (at == std::string_view::npos) return std::nullopt;
    std::string_view digits = name.substr(at + marker.size());
    if (terminator) {
        auto end = digits.find(*terminator);
        if (end == std::string_view::npos) return std::nullopt;
        digits = digits.substr(0, end);
    }
    long pid = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), pid);
    if (digits.empty() || error != std::errc() || end != digits.data() + digits.size() || pid <= 0) {
        return std::nullopt;
    }
    return pid;
}

bool processIsGone(long pid) noexcept {
    if (pid <= 0 || pid == static_cast<long>(::getpid())) return false;
    return ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

void removeEntriesInside(const std::string& folder, const std::function<bool(std::string_view)>& selected) noexcept {
    try {
        FileDescriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!fd) return;
        std::vector<std::string> names;
        {
            DIR* listing = ::fdopendir(::dup(fd.get()));
            if (listing == nullptr) return;
            while (dirent* entry = ::readdir(listing)) {
                std::string_view name = entry->d_name;
                if (name != "." && name != ".." && selected(name)) names.emplace_back(name);
            }
            ::closedir(listing);
        }
        for (const std::string& name : names) {
            struct stat info {};
            if (::fstatat(fd.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 || info.st_uid != ::getuid()) {
                continue;
            }
            if (!S_ISDIR(info.st_mode)) {
                ::unlinkat(fd.get(), name.c_str(), 0);
                continue;
            }
            FileDescriptor inner(::openat(fd.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!inner) continue;
            if (DIR* listing = ::fdopendir(::dup(inner.get()))) {
                std::vector<std::string> files;
                while (dirent* entry = ::readdir(listing)) {
                    std::string_view file = entry->d_name;
                    if (file != "." && file != "..") files.emplace_back(file);
                }
                ::closedir(listing);
                for (const std::string& file : files) ::unlinkat(inner.get(), file.c_str(), 0);
            }
            ::unlinkat(fd.get(), name.c_str(), AT_REMOVEDIR);
        }
    } catch (...) {
        // Allocation only; the left-overs wait for the next run.
    }
}

}  // namespace veerline
