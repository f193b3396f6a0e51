// KeychainStore on the freedesktop Secret Service (gnome-keyring, KeePassXC...), through
// libsecret. Items are addressed by two attributes, "service" and "account", as Keychain items
// are by their service and account; new ones go into the default collection with the label
// "Veerline". Only the `veerline` command and the tests link this file, never the resolver.

#include <libsecret/secret.h>

#include <memory>

#include "base/error.h"
#include "secrets/secret_store.h"

namespace veerline {

namespace {

// Failures carry the Security framework status of the same meaning, so that callers can treat
// both platforms alike; the message names the cause.
constexpr std::int32_t statusNotAvailable = KeychainStore::notAvailableStatus;
constexpr std::int32_t statusLocked = -25308;        // errSecInteractionNotAllowed
constexpr std::int32_t statusNoCollection = -25294;  // errSecNoSuchKeychain
constexpr std::int32_t statusRefused = -128;         // errSecUserCanceled
constexpr std::int32_t statusFailed = -26276;        // errSecInternalError

struct GObjectUnref {
    void operator()(gpointer object) const noexcept { g_object_unref(object); }
};
struct HashTableUnref {
    void operator()(GHashTable* table) const noexcept { g_hash_table_unref(table); }
};
struct ItemListFree {
    void operator()(GList* list) const noexcept { g_list_free_full(list, g_object_unref); }
};
struct ValueUnref {
    void operator()(SecretValue* value) const noexcept { secret_value_unref(value); }
};

using ServicePtr = std::unique_ptr<SecretService, GObjectUnref>;
using ItemList = std::unique_ptr<GList, ItemListFree>;
using ValuePtr = std::unique_ptr<SecretValue, ValueUnref>;

// Receives a GError and frees it.
class ErrorSlot {
public:
    ErrorSlot() = default;
    ~ErrorSlot() {
        if (error_ != nullptr) g_error_free(error_);
    }
    ErrorSlot(const ErrorSlot&) = delete;
    ErrorSlot& operator=(const ErrorSlot&) = delete;

    GError** out() noexcept { return &error_; }
    const GError* get() const noexcept { return error_; }
    explicit operator bool() const noexcept { return error_ != nullptr; }

private:
    GError* error_ = nullptr;
};

VeerlineError notAvailable(const std::string& detail) {
    return VeerlineError::keychain(
        statusNotAvailable, "No Secret Service is running, so Veerline can't reach your secrets (" + detail +
                                "). Start gnome-keyring, KeePassXC or another Secret Service in your session "
                                "and try again.");
}

VeerlineError lockedCollection() {
    return VeerlineError::keychain(statusLocked, "The Secret Service's collection is locked. Unlock your keyring "
                                                 "(log in to your desktop session or open your password manager) "
                                                 "and try again.");
}

VeerlineError failure(const ErrorSlot& slot) {
    const GError* error = slot.get();
    std::string detail = error != nullptr && error->message != nullptr ? error->message : "unknown failure";
    if (error == nullptr) return VeerlineError::keychain(statusFailed, "The Secret Service failed: " + detail + ".");
    if (error->domain == G_DBUS_ERROR &&
        (error->code == G_DBUS_ERROR_SERVICE_UNKNOWN || error->code == G_DBUS_ERROR_NAME_HAS_NO_OWNER ||
         error->code == G_DBUS_ERROR_DISCONNECTED || error->code == G_DBUS_ERROR_NO_SERVER ||
         error->code == G_DBUS_ERROR_SPAWN_EXEC_FAILED || error->code == G_DBUS_ERROR_SPAWN_CHILD_EXITED ||
         error->code == G_DBUS_ERROR_SPAWN_FAILED || error->code == G_DBUS_ERROR_SPAWN_SERVICE_NOT_FOUND)) {
        return notAvailable(detail);
    }
    if (g_error_matches(error, SECRET_ERROR, SECRET_ERROR_IS_LOCKED)) return lockedCollection();
    // A fresh keyring whose default collection was never created (its creation asks the user).
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_OBJECT) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD)) {
        return VeerlineError::keychain(statusNoCollection,
                                       "The Secret Service has no default collection to keep secrets in (" + detail +
                                           "). Create one, for example a Login keyring in Passwords and Keys or a "
                                           "database in KeePassXC, and try again.");
    }
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED) ||
        g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED) ||
        g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PERMISSION_DENIED)) {
        return VeerlineError::keychain(statusRefused, "The Secret Service refused access to your secrets (" + detail +
                                                          "): the request was turned down.");
    }
    return VeerlineError::keychain(statusFailed, "The Secret Service failed: " + detail + ".");
}

ServicePtr connect() {
    ErrorSlot error;
    ServicePtr service(secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, error.out()));
    // Not reaching the service at all (no session bus, nothing answering on it) is one cause
    // for the user, whatever GLib calls it.
    if (!service) throw notAvailable(error ? error.get()->message : "no answer");
    return service;
}

class Attributes {
public:
    Attributes(const std::string& service, const std::string& account)
        : table_(g_hash_table_new(g_str_hash, g_str_equal)) {
        g_hash_table_insert(table_.get(), const_cast<char*>("service"), const_cast<char*>(service.c_str()));
        g_hash_table_insert(table_.get(), const_cast<char*>("account"), const_cast<char*>(account.c_str()));
    }
    GHashTable* get() const noexcept { return table_.get(); }

private:
    std::unique_ptr<GHashTable, HashTableUnref> table_;
};

// Every item addressed by the attributes, unlocked; fails when one stays locked.
ItemList unlockedItems(SecretService* service, const Attributes& attributes) {
    ErrorSlot error;
    ItemList items(secret_service_search_sync(service, nullptr, attributes.get(), SECRET_SEARCH_ALL, nullptr,
                                              error.out()));
    if (error) throw failure(error);
    GList* locked = nullptr;
    for (GList* entry = items.get(); entry != nullptr; entry = entry->next) {
        if (secret_item_get_locked(SECRET_ITEM(entry->data))) locked = g_list_append(locked, entry->data);
    }
    if (locked == nullptr) return items;
    GList* unlocked = nullptr;
    gint count = secret_service_unlock_sync(service, locked, nullptr, &unlocked, error.out());
    guint wanted = g_list_length(locked);
    g_list_free(locked);
    ItemList unlockedOwner(unlocked);
    if (error) throw failure(error);
    // A prompt the user dismissed unlocks nothing and reports no error.
    if (count < 0 || static_cast<guint>(count) < wanted) throw lockedCollection();
    return items;
}

}  // namespace

std::optional<std::string> KeychainStore::read(const std::string& service, const std::string& account) const {
    guard(service);
    ServicePtr secretService = connect();
    ItemList items = unlockedItems(secretService.get(), Attributes(service, account));
    if (!items) return std::nullopt;
    auto* item = SECRET_ITEM(items->data);
    ErrorSlot error;
    if (!secret_item_load_secret_sync(item, nullptr, error.out())) throw failure(error);
    ValuePtr value(secret_item_get_secret(item));
    if (!value) return std::nullopt;
    gsize length = 0;
    const gchar* bytes = secret_value_get(value.get(), &length);
    return std::string(bytes, length);
}

void KeychainStore::write(std::string_view secret, const std::string& service, const std::string& account) {
    guard(service);
    ServicePtr secretService = connect();
    Attributes attributes(service, account);
    ItemList items = unlockedItems(secretService.get(), attributes);
    ValuePtr value(secret_value_new(secret.data(), static_cast<gssize>(secret.size()), "text/plain"));
    ErrorSlot error;
    // An existing item keeps its label and collection; only its secret changes.
    for (GList* entry = items.get(); entry != nullptr; entry = entry->next) {
        if (!secret_item_set_secret_sync(SECRET_ITEM(entry->data), value.get(), nullptr, error.out())) {
            throw failure(error);
        }
    }
    if (items) return;
    if (!secret_service_store_sync(secretService.get(), nullptr, attributes.get(), SECRET_COLLECTION_DEFAULT,
                                   "Veerline", value.get(), nullptr, error.out())) {
        throw failure(error);
    }
}

void KeychainStore::remove(const std::string& service, const std::string& account) {
    guard(service);
    ServicePtr secretService = connect();
    ItemList items = unlockedItems(secretService.get(), Attributes(service, account));
    for (GList* entry = items.get(); entry != nullptr; entry = entry->next) {
        ErrorSlot error;
        if (!secret_item_delete_sync(SECRET_ITEM(entry->data), nullptr, error.out())) throw failure(error);
    }
}

}  // namespace veerline
