// KeychainStore on the login Keychain: generic-password items addressed by exactly three
// attributes (class, service, account).

#ifdef __APPLE__

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Security.h>

#include <memory>
#include <string>
#include <type_traits>

#include "base/error.h"
#include "secrets/secret_store.h"

namespace veerline {

namespace {

struct CFReleaser {
    void operator()(CFTypeRef reference) const noexcept {
        if (reference != nullptr) CFRelease(reference);
    }
};
template <typename Reference>
using CFPtr = std::unique_ptr<std::remove_pointer_t<Reference>, CFReleaser>;

CFPtr<CFStringRef> makeString(const std::string& text) {
    return CFPtr<CFStringRef>(CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text.data()),
                                                      static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false));
}

CFPtr<CFDataRef> makeData(std::string_view bytes) {
    return CFPtr<CFDataRef>(
        CFDataCreate(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(bytes.data()), static_cast<CFIndex>(bytes.size())));
}

CFPtr<CFMutableDictionaryRef> makeDictionary() {
    return CFPtr<CFMutableDictionaryRef>(
        CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
}

// The three attributes that address one item.
CFPtr<CFMutableDictionaryRef> itemQuery(const std::string& service, const std::string& account) {
    auto query = makeDictionary();
    auto serviceName = makeString(service);
    auto accountName = makeString(account);
    if (!query || !serviceName || !accountName) throw VeerlineError::keychain(errSecAllocate);
    CFDictionarySetValue(query.get(), kSecClass, kSecClassGenericPassword);
    CFDictionarySetValue(query.get(), kSecAttrService, serviceName.get());
    CFDictionarySetValue(query.get(), kSecAttrAccount, accountName.get());
    return query;
}

}  // namespace

std::optional<std::string> KeychainStore::read(const std::string& service, const std::string& account) const {
    guard(service);
    auto query = itemQuery(service, account);
    CFDictionarySetValue(query.get(), kSecReturnData, kCFBooleanTrue);
    CFDictionarySetValue(query.get(), kSecMatchLimit, kSecMatchLimitOne);
    CFTypeRef result = nullptr;
    OSStatus status = SecItemCopyMatching(query.get(), &result);
    CFPtr<CFTypeRef> owned(result);
    if (status == errSecItemNotFound) return std::nullopt;
    if (status != errSecSuccess) throw VeerlineError::keychain(status);
    if (result == nullptr || CFGetTypeID(result) != CFDataGetTypeID()) return std::nullopt;
    auto data = static_cast<CFDataRef>(result);
    return std::string(reinterpret_cast<const char*>(CFDataGetBytePtr(data)), static_cast<std::size_t>(CFDataGetLength(data)));
}

void KeychainStore::write(std::string_view secret, const std::string& service, const std::string& account) {
    guard(service);
    auto query = itemQuery(service, account);
    auto data = makeData(secret);
    auto changes = makeDictionary();
    if (!data || !changes) throw VeerlineError::keychain(errSecAllocate);
    CFDictionarySetValue(changes.get(), kSecValueData, data.get());
    OSStatus status = SecItemUpdate(query.get(), changes.get());
    if (status == errSecSuccess) return;
    if (status != errSecItemNotFound) throw VeerlineError::keychain(status);

    CFDictionarySetValue(query.get(), kSecValueData, data.get());
    CFDictionarySetValue(query.get(), kSecAttrAccessible, kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly);
    CFDictionarySetValue(query.get(), kSecAttrLabel, CFSTR("Veerline"));
    status = SecItemAdd(query.get(), nullptr);
    if (status != errSecSuccess) throw VeerlineError::keychain(status);
}

void KeychainStore::remove(const std::string& service, const std::string& account) {
    guard(service);
    auto query = itemQuery(service, account);
    OSStatus status = SecItemDelete(query.get());
    if (status != errSecSuccess && status != errSecItemNotFound) throw VeerlineError::keychain(status);
}

}  // namespace veerline

#endif
