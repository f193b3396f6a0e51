#include "resolution/document_loading.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "base/file_io.h"
#include "profiles/profile_store.h"
#include "base/unicode.h"

namespace veerline {

namespace {

std::optional<std::string> readWholeFile(const std::string& path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return std::nullopt;
    std::string content;
    if (readAll(fd.get(), content) != 0) return std::nullopt;
    return content;
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
