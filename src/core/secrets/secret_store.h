#pragma once

// Small secrets (tokens, API keys) kept as byte strings, addressed by a service and an account.

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "profiles/profile.h"

namespace veerline {

class SecretStore {
public:
    virtual ~SecretStore() = default;

    // The stored secret; nothing when there is none.
    virtual std::optional<std::string> read(const std::string& service, const std::string& account) const = 0;
    // Stores the secret, replacing any earlier one for the same service and account.
    virtual void write(std::string_view secret, const std::string& service, const std::string& account) = 0;
    // Removes the secret; removing what isn't there succeeds. (`delete` is a keyword in C++.)
    virtual void remove(const std::string& service, const std::string& account) = 0;
};

// Secrets kept for the lifetime of the object. Any service name is accepted; one instance may be
// shared between threads.
class InMemorySecretStore final : public SecretStore {
public:
    std::optional<std::string> read(const std::string& service, const std::string& account) const override;
    void write(std::string_view secret, const std::string& service, const std::string& account) override;
    void remove(const std::string& service, const std::string& account) override;

private:
    static std::string key(const std::string& service, const std::string& account);

    mutable std::mutex lock_;
    std::map<std::string, std::string> items_;
};

// The system's secret store: the login Keychain on macOS, the freedesktop Secret Service
// (gnome-keyring, KeePassXC...) on Linux. It only ever touches items whose service belongs to
// Veerline, so no caller can read, overwrite or delete another application's secrets. Failures
// are VeerlineError::keychain; a missing item is never one.
//
// The operations are built only into the programs that link the VeerlineKeychain library, so the
// resolver stays free of the platform's secret-store libraries.
class KeychainStore final : public SecretStore {
public:
    static constexpr std::string_view servicePrefix = "app.veerline.";
    // The account under which a tool's API key is kept.
    static constexpr std::string_view apiKeyAccount = "api-key";
    // The status of a failure that reached no store at all (errSecNotAvailable): no Keychain, or
    // no Secret Service running.
    static constexpr std::int32_t notAvailableStatus = -25291;

    // "app.veerline.profile.<id>.<tool raw value>".
    static std::string service(const ProfileID& profile, ToolKind tool);
    // The prefix followed by at least one more character.
    static bool isAllowed(std::string_view service) noexcept;
    // Throws VeerlineError::unsupported with the refusal text unless the service is allowed.
    static void guard(const std::string& service);

    std::optional<std::string> read(const std::string& service, const std::string& account) const override;
    void write(std::string_view secret, const std::string& service, const std::string& account) override;
    void remove(const std::string& service, const std::string& account) override;
};

}  // namespace veerline
