#include "secrets/secret_store.h"

#include "base/error.h"

namespace veerline {

std::string InMemorySecretStore::key(const std::string& service, const std::string& account) {
    std::string key = service;
    key += '\0';
    key += account;
    return key;
}

std::optional<std::string> InMemorySecretStore::read(const std::string& service, const std::string& account) const {
    std::string itemKey = key(service, account);
    std::lock_guard guard(lock_);
    auto found = items_.find(itemKey);
    if (found == items_.end()) return std::nullopt;
    return found->second;
}

void InMemorySecretStore::write(std::string_view secret, const std::string& service, const std::string& account) {
    std::string itemKey = key(service, account);
    std::string value(secret);
    std::lock_guard guard(lock_);
    items_.insert_or_assign(std::move(itemKey), std::move(value));
}

void InMemorySecretStore::remove(const std::string& service, const std::string& account) {
    std::string itemKey = key(service, account);
    std::lock_guard guard(lock_);
    items_.erase(itemKey);
}

std::string KeychainStore::service(const ProfileID& profile, ToolKind tool) {
    return std::string(servicePrefix) + "profile." + profile.rawValue + "." + std::string(toolkind::rawValue(tool));
}

bool KeychainStore::isAllowed(std::string_view service) noexcept {
    // Longer in bytes is longer in characters: the prefix is ASCII.
    return service.size() > servicePrefix.size() && service.starts_with(servicePrefix);
}

void KeychainStore::guard(const std::string& service) {
    if (!isAllowed(service)) {
        throw VeerlineError::unsupported("Refused Keychain access to \u201C" + service + "\u201D: not a Veerline item.");
    }
}

}  // namespace veerline
