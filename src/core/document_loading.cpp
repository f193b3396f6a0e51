#include "core/document_loading.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "core/profile_store.h"
#include "core/unicode.h"

namespace veerline {

namespace {

std::optional<std::string> readWholeFile(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};

    std::string content;
    char buffer[4096];
    for (;;) {
        ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (got == 0) return content;
        content.append(buffer, static_cast<std::size_t>(got));
    }
}

}  // namespace

std::optional<ProfileDocument> loadDocument(const Environment& environment, const Paths& paths) noexcept {
    if (const std::string* disable = lookup(environment, "VEERLINE_DISABLE"); disable != nullptr && *disable == "1") {
        return std::nullopt;
    }
    if (!veerlineStillInstalled(paths)) return std::nullopt;
    try {
        return ProfileStore(paths).load();
    } catch (...) {
        // Whatever went wrong, the tool runs as if Veerline were not there.
        return std::nullopt;
    }
}

bool veerlineStillInstalled(const Paths& paths) noexcept {
    try {
        std::optional<std::string> content = readWholeFile(paths.home + "/.veerline/app-path");
        if (!content || !unicode::isValidUTF8(*content)) return true;
        std::string appPath = unicode::trimmed(*content);
        if (appPath.empty()) return true;
        return ::access(appPath.c_str(), F_OK) == 0;
    } catch (...) {
        return true;
    }
}

}  // namespace veerline
