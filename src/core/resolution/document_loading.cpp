#include "resolution/document_loading.h"

#include <unistd.h>

#include <string>

#include "base/file_io.h"
#include "profiles/profile_store.h"
#include "base/unicode.h"

namespace veerline {

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
        std::optional<std::string> content = readRegularFile(paths.home + "/.veerline/app-path", maxHintFileSize);
        if (!content || !unicode::isValidUTF8(*content)) return true;
        std::string appPath = unicode::trimmed(*content);
        if (appPath.empty()) return true;
        return ::access(appPath.c_str(), F_OK) == 0;
    } catch (...) {
        return true;
    }
}

}  // namespace veerline
