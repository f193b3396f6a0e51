#include "platform/platform.h"

#ifdef __APPLE__

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Security.h>
#include <mach-o/dyld.h>
#include <stdlib.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

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

std::span<const std::string_view> sessionServiceVariables() noexcept {
    // The Keychain needs nothing from the environment.
    return {};
}

std::string_view codexStarterConfig() noexcept {
    return "# Written by Veerline for this profile. Keeps this profile's Codex login in the\n"
           "# macOS Keychain instead of a plaintext auth.json. Add your own settings below.\n"
           "cli_auth_credentials_store = \"keyring\"\n";
}

std::span<const std::string_view> outdatedCodexStarterConfigs() noexcept {
    return {};
}

std::string privateScratchDirectory() {
    // The per-user temporary folder is already private to the user here.
    return temporaryDirectory();
}

bool interactiveBashReadsBashrc() noexcept {
    return false;
}

bool hasApplicationBundles() noexcept {
    return true;
}

std::optional<std::string_view> shellIntegrationSetting() noexcept {
    return "Settings \u2192 Terminal \u2192 Use profiles in the terminal";
}

namespace {

// A CoreFoundation object released when it goes out of scope.
template <typename Ref>
struct Owned {
    Ref ref = nullptr;
    explicit Owned(Ref value) : ref(value) {}
    ~Owned() {
        if (ref != nullptr) CFRelease(ref);
    }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
};

std::optional<std::string> plistString(CFDictionaryRef plist, const char* key) {
    Owned<CFStringRef> name(CFStringCreateWithCString(nullptr, key, kCFStringEncodingUTF8));
    if (name.ref == nullptr) return std::nullopt;
    CFTypeRef value = CFDictionaryGetValue(plist, name.ref);
    if (value == nullptr || CFGetTypeID(value) != CFStringGetTypeID()) return std::nullopt;
    auto string = static_cast<CFStringRef>(value);
    CFIndex size = CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), kCFStringEncodingUTF8) + 1;
    std::string buffer(static_cast<std::size_t>(size), '\0');
    if (!CFStringGetCString(string, buffer.data(), size, kCFStringEncodingUTF8)) return std::nullopt;
    buffer.resize(std::strlen(buffer.c_str()));
    return buffer;
}

// The bundle's Info.plist as a dictionary; null when it can't be read or isn't one.
CFDictionaryRef readInfoPlist(const std::string& bundle) {
    std::string path = bundle + "/Contents/Info.plist";
    Owned<CFURLRef> url(CFURLCreateFromFileSystemRepresentation(
        nullptr, reinterpret_cast<const UInt8*>(path.c_str()), static_cast<CFIndex>(path.size()), false));
    if (url.ref == nullptr) return nullptr;
    Owned<CFReadStreamRef> stream(CFReadStreamCreateWithFile(nullptr, url.ref));
    if (stream.ref == nullptr || !CFReadStreamOpen(stream.ref)) return nullptr;
    CFPropertyListRef plist =
        CFPropertyListCreateWithStream(nullptr, stream.ref, 0, kCFPropertyListImmutable, nullptr, nullptr);
    CFReadStreamClose(stream.ref);
    if (plist == nullptr) return nullptr;
    if (CFGetTypeID(plist) != CFDictionaryGetTypeID()) {
        CFRelease(plist);
        return nullptr;
    }
    return static_cast<CFDictionaryRef>(plist);
}

}  // namespace

std::optional<InstalledApp> findApplication(std::string_view bundleID, const std::vector<std::string>& folders) noexcept {
    try {
        for (const std::string& folder : folders) {
            std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(folder.c_str()), ::closedir);
            if (!listing) continue;
            std::vector<std::string> names;
            while (const dirent* entry = ::readdir(listing.get())) {
                std::string_view name = entry->d_name;
                if (name.size() > 4 && name.ends_with(".app")) names.emplace_back(name);
            }
            // Directory order is arbitrary; sorted, the same copy wins every time.
            std::sort(names.begin(), names.end());
            for (const std::string& name : names) {
                std::string bundle = folder + "/" + name;
                Owned<CFDictionaryRef> plist(readInfoPlist(bundle));
                if (plist.ref == nullptr || plistString(plist.ref, "CFBundleIdentifier") != bundleID) continue;
                return InstalledApp{bundle, plistString(plist.ref, "CFBundleShortVersionString")};
            }
        }
    } catch (...) {
    }
    return std::nullopt;
}

std::string cacheDirectory(const std::string& home, const std::string*) {
    return home + "/Library/Caches/Veerline";
}

}  // namespace veerline::platform

#endif
