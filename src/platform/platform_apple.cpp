#include "platform/platform.h"

#ifdef __APPLE__

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Security.h>
#include <mach-o/dyld.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace veerline::platform {

std::optional<std::string> executablePath() noexcept {
    char buffer[1025] = {};
    uint32_t size = sizeof buffer;
    if (_NSGetExecutablePath(buffer, &size) != 0) return std::nullopt;
    return std::string(buffer);
}

std::optional<std::string> realPath(const std::string& path) noexcept {
    char* resolved = ::realpath(path.c_str(), nullptr);
    if (resolved == nullptr) return std::nullopt;
    try {
        std::string result(resolved);
        std::free(resolved);
        return result;
    } catch (...) {
        std::free(resolved);
        return std::nullopt;
    }
}

std::optional<bool> volumeIsCaseSensitive(const std::string& path) noexcept {
    errno = 0;
    long answer = pathconf(path.c_str(), _PC_CASE_SENSITIVE);
    if (answer < 0) return std::nullopt;
    return answer == 1;
}

std::optional<FolderListing> listFolder(int) noexcept {
    // APFS and HFS+ find names in any Unicode normalisation, so a name's absence from the
    // listing proves nothing; callers look names up one by one.
    return std::nullopt;
}

std::uint32_t secureRandomBelow(std::uint32_t bound) noexcept {
    return bound <= 1 ? 0 : arc4random_uniform(bound);
}

std::optional<std::string> securityStatusMessage(std::int32_t status) {
    CFStringRef text = SecCopyErrorMessageString(status, nullptr);
    if (text == nullptr) return std::nullopt;
    char buffer[1024];
    bool ok = CFStringGetCString(text, buffer, sizeof buffer, kCFStringEncodingUTF8);
    CFRelease(text);
    if (!ok) return std::nullopt;
    return std::string(buffer);
}

std::string fallbackHomeDirectory() {
    const char* home = std::getenv("HOME");
    return home != nullptr ? home : "/";
}

std::string temporaryDirectory() {
    char buffer[1025];
    size_t length = confstr(_CS_DARWIN_USER_TEMP_DIR, buffer, sizeof buffer);
    std::string folder = (length > 0 && length <= sizeof buffer) ? buffer : "/tmp";
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    return folder;
}

std::string cacheDirectory(const std::string& home, const std::string*) {
    return home + "/Library/Caches/Veerline";
}

}  // namespace veerline::platform

#endif
