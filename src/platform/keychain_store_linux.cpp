// KeychainStore on the freedesktop Secret Service (gnome-keyring, KeePassXC...), through
// libsecret. Items are addressed by two attributes, "service" and "account", as Keychain items
// are by their service and account; new ones go into the default collection with the label
// "Veerline". Only the `veerline` command and the tests link this file, never the resolver.
//
// libsecret, and GLib under it, are loaded when a secret is first asked for, not at start-up:
// binding them cost every command, the status line included, a few milliseconds, and only the
// `secret` and `login --api-key` commands use them. Their headers give each function's type.

#include <dlfcn.h>
#include <libsecret/secret.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "base/error.h"
#include "secrets/secret_store.h"

namespace veerline {

namespace {

// The functions used here, from libsecret and the GLib libraries it loads.
struct Library {
#define VEERLINE_SECRET_FUNCTIONS(X)                                                                       \
    X(g_cancellable_cancel) X(g_cancellable_new) X(g_dbus_error_quark) X(g_error_free) X(g_error_matches)   \
    X(g_hash_table_insert) X(g_hash_table_new) X(g_hash_table_unref) X(g_io_error_quark) X(g_list_append)   \
    X(g_list_free) X(g_list_free_full)                                                                      \
    X(g_list_length) X(g_object_unref) X(g_str_equal) X(g_str_hash) X(secret_error_get_quark)               \
    X(secret_item_delete_sync) X(secret_item_get_locked) X(secret_item_get_secret)                          \
    X(secret_item_load_secret_sync) X(secret_item_set_secret_sync) X(secret_service_get_sync)               \
    X(secret_service_search_sync) X(secret_service_store_sync) X(secret_service_unlock_sync)                \
    X(secret_value_get) X(secret_value_new) X(secret_value_unref)
#define VEERLINE_DECLARE(name) decltype(&::name) name = nullptr;
    VEERLINE_SECRET_FUNCTIONS(VEERLINE_DECLARE)
#undef VEERLINE_DECLARE
};

// libsecret's functions, loaded once; the library stays loaded for the rest of the process.
const Library& lib() {
    static std::once_flag once;
    static Library library;
    static std::string problem;
    std::call_once(once, [] {
        void* handle = ::dlopen("libsecret-1.so.0", RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            const char* reason = ::dlerror();
            problem = "couldn't be loaded (" + std::string(reason != nullptr ? reason : "unknown reason") + ")";
            return;
        }
        // A handle's look-ups reach the libraries it loaded: GLib's functions come with it.
#define VEERLINE_LOAD(name)                                                                  \
    library.name = reinterpret_cast<decltype(library.name)>(::dlsym(handle, #name));         \
    if (library.name == nullptr && problem.empty()) problem = "lacks " #name;
        VEERLINE_SECRET_FUNCTIONS(VEERLINE_LOAD)
#undef VEERLINE_LOAD
    });
    if (!problem.empty()) {
        throw VeerlineError::keychain(KeychainStore::notAvailableStatus,
                                      "Veerline keeps secrets through libsecret, which " + problem +
                                          ". Install libsecret (libsecret-1-0 on Debian and Ubuntu) and try again.");
    }
    return library;
}
#undef VEERLINE_SECRET_FUNCTIONS

// Failures carry the Security framework status of the same meaning, so that callers can treat
// both platforms alike; the message names the cause.
constexpr std::int32_t statusNotAvailable = KeychainStore::notAvailableStatus;
constexpr std::int32_t statusLocked = -25308;        // errSecInteractionNotAllowed
constexpr std::int32_t statusNoCollection = -25294;  // errSecNoSuchKeychain
constexpr std::int32_t statusRefused = -128;         // errSecUserCanceled
constexpr std::int32_t statusFailed = -26276;        // errSecInternalError

struct GObjectUnref {
    void operator()(gpointer object) const noexcept { lib().g_object_unref(object); }
};
struct HashTableUnref {
    void operator()(GHashTable* table) const noexcept { lib().g_hash_table_unref(table); }
};
struct ItemListFree {
    void operator()(GList* list) const noexcept { lib().g_list_free_full(list, lib().g_object_unref); }
};
struct ValueUnref {
    void operator()(SecretValue* value) const noexcept { lib().secret_value_unref(value); }
};

using ServicePtr = std::unique_ptr<SecretService, GObjectUnref>;
using ItemList = std::unique_ptr<GList, ItemListFree>;
using ValuePtr = std::unique_ptr<SecretValue, ValueUnref>;

// Receives a GError and frees it.
class ErrorSlot {
public:
    ErrorSlot() = default;
    ~ErrorSlot() {
        if (error_ != nullptr) lib().g_error_free(error_);
    }
    ErrorSlot(const ErrorSlot&) = delete;
    ErrorSlot& operator=(const ErrorSlot&) = delete;

    GError** out() noexcept { return &error_; }
    const GError* get() const noexcept { return error_; }
    explicit operator bool() const noexcept { return error_ != nullptr; }

private:
    GError* error_ = nullptr;
};

// How long one Secret Service call may take. A bus can take a call and never answer (a keyring
// daemon that hangs, a stub owning the name): without a limit `secret get`, and Claude Code
// waiting on it through the key helper, would hang with it. Calls that may put up a prompt to
// unlock the keyring wait for a person typing a password, so they get longer.
constexpr std::chrono::seconds callLimit{5};
constexpr std::chrono::seconds promptLimit{60};

// Cancels the calls made with get() once its time is up. GCancellable may be cancelled from
// any thread; the blocked call then returns G_IO_ERROR_CANCELLED.
class Deadline {
public:
    explicit Deadline(std::chrono::seconds limit)
        : limit_(limit), cancellable_(lib().g_cancellable_new()), watcher_([this] { watch(); }) {}
    ~Deadline() {
        {
            std::lock_guard guard(lock_);
            finished_ = true;
        }
        wake_.notify_all();
        watcher_.join();
    }
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;

    GCancellable* get() const noexcept { return cancellable_.get(); }
    bool expired() const noexcept { return expired_; }

    // The failure to report for a call that ended with `error`.
    VeerlineError failure(const ErrorSlot& error) const;

private:
    void watch() {
        std::unique_lock guard(lock_);
        if (wake_.wait_for(guard, limit_, [this] { return finished_; })) return;
        expired_ = true;
        lib().g_cancellable_cancel(cancellable_.get());
    }

    std::chrono::seconds limit_;
    std::unique_ptr<GCancellable, GObjectUnref> cancellable_;
    std::mutex lock_;
    std::condition_variable wake_;
    bool finished_ = false;
    std::atomic<bool> expired_{false};
    std::thread watcher_;  // last: it starts once everything it uses is there
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
    const Library& g = lib();
    if (error->domain == g.g_dbus_error_quark() &&
        (error->code == G_DBUS_ERROR_SERVICE_UNKNOWN || error->code == G_DBUS_ERROR_NAME_HAS_NO_OWNER ||
         error->code == G_DBUS_ERROR_DISCONNECTED || error->code == G_DBUS_ERROR_NO_SERVER ||
         error->code == G_DBUS_ERROR_SPAWN_EXEC_FAILED || error->code == G_DBUS_ERROR_SPAWN_CHILD_EXITED ||
         error->code == G_DBUS_ERROR_SPAWN_FAILED || error->code == G_DBUS_ERROR_SPAWN_SERVICE_NOT_FOUND)) {
        return notAvailable(detail);
    }
    if (g.g_error_matches(error, g.secret_error_get_quark(), SECRET_ERROR_IS_LOCKED)) return lockedCollection();
    // A fresh keyring whose default collection was never created (its creation asks the user).
    if (g.g_error_matches(error, g.g_dbus_error_quark(), G_DBUS_ERROR_UNKNOWN_OBJECT) ||
        g.g_error_matches(error, g.g_dbus_error_quark(), G_DBUS_ERROR_UNKNOWN_METHOD)) {
        return VeerlineError::keychain(statusNoCollection,
                                       "The Secret Service has no default collection to keep secrets in (" + detail +
                                           "). Create one, for example a Login keyring in Passwords and Keys or a "
                                           "database in KeePassXC, and try again.");
    }
    if (g.g_error_matches(error, g.g_dbus_error_quark(), G_DBUS_ERROR_ACCESS_DENIED) ||
        g.g_error_matches(error, g.g_io_error_quark(), G_IO_ERROR_CANCELLED) ||
        g.g_error_matches(error, g.g_io_error_quark(), G_IO_ERROR_PERMISSION_DENIED)) {
        return VeerlineError::keychain(statusRefused, "The Secret Service refused access to your secrets (" + detail +
                                                          "): the request was turned down.");
    }
    return VeerlineError::keychain(statusFailed, "The Secret Service failed: " + detail + ".");
}

VeerlineError Deadline::failure(const ErrorSlot& error) const {
    if (!expired_) return veerline::failure(error);
    return VeerlineError::keychain(statusFailed, "The Secret Service didn't answer within " +
                                                     std::to_string(limit_.count()) +
                                                     " seconds. Check that your keyring (gnome-keyring, KeePassXC...) "
                                                     "is running and responds, then try again.");
}

ServicePtr connect() {
    ErrorSlot error;
    Deadline deadline(callLimit);
    ServicePtr service(lib().secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, deadline.get(), error.out()));
    // Not reaching the service at all (no session bus, nothing answering on it) is one cause
    // for the user, whatever GLib calls it.
    if (!service) {
        throw deadline.expired() ? deadline.failure(error) : notAvailable(error ? error.get()->message : "no answer");
    }
    return service;
}

class Attributes {
public:
    Attributes(const std::string& service, const std::string& account)
        : table_(lib().g_hash_table_new(lib().g_str_hash, lib().g_str_equal)) {
        const Library& g = lib();
        g.g_hash_table_insert(table_.get(), const_cast<char*>("service"), const_cast<char*>(service.c_str()));
        g.g_hash_table_insert(table_.get(), const_cast<char*>("account"), const_cast<char*>(account.c_str()));
    }
    GHashTable* get() const noexcept { return table_.get(); }

private:
    std::unique_ptr<GHashTable, HashTableUnref> table_;
};

// Every item addressed by the attributes, unlocked; fails when one stays locked.
ItemList unlockedItems(SecretService* service, const Attributes& attributes) {
    const Library& g = lib();
    ErrorSlot error;
    ItemList items;
    {
        Deadline deadline(callLimit);
        items.reset(g.secret_service_search_sync(service, nullptr, attributes.get(), SECRET_SEARCH_ALL, deadline.get(),
                                                 error.out()));
        if (error) throw deadline.failure(error);
    }
    GList* locked = nullptr;
    for (GList* entry = items.get(); entry != nullptr; entry = entry->next) {
        if (g.secret_item_get_locked(static_cast<SecretItem*>(entry->data))) {
            locked = g.g_list_append(locked, entry->data);
        }
    }
    if (locked == nullptr) return items;
    GList* unlocked = nullptr;
    Deadline deadline(promptLimit);
    gint count = g.secret_service_unlock_sync(service, locked, deadline.get(), &unlocked, error.out());
    guint wanted = g.g_list_length(locked);
    g.g_list_free(locked);
    ItemList unlockedOwner(unlocked);
    if (error) throw deadline.failure(error);
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
    auto* item = static_cast<SecretItem*>(items->data);
    ErrorSlot error;
    Deadline deadline(callLimit);
    if (!lib().secret_item_load_secret_sync(item, deadline.get(), error.out())) throw deadline.failure(error);
    ValuePtr value(lib().secret_item_get_secret(item));
    if (!value) return std::nullopt;
    gsize length = 0;
    const gchar* bytes = lib().secret_value_get(value.get(), &length);
    return std::string(bytes, length);
}

void KeychainStore::write(std::string_view secret, const std::string& service, const std::string& account) {
    guard(service);
    ServicePtr secretService = connect();
    Attributes attributes(service, account);
    ItemList items = unlockedItems(secretService.get(), attributes);
    ValuePtr value(lib().secret_value_new(secret.data(), static_cast<gssize>(secret.size()), "text/plain"));
    ErrorSlot error;
    // An existing item keeps its label and collection; only its secret changes.
    for (GList* entry = items.get(); entry != nullptr; entry = entry->next) {
        auto* item = static_cast<SecretItem*>(entry->data);
        Deadline deadline(callLimit);
        if (!lib().secret_item_set_secret_sync(item, value.get(), deadline.get(), error.out())) {
            throw deadline.failure(error);
        }
    }
    if (items) return;
    // Storing into a locked collection asks to unlock it first.
    Deadline deadline(promptLimit);
    if (!lib().secret_service_store_sync(secretService.get(), nullptr, attributes.get(), SECRET_COLLECTION_DEFAULT,
                                         "Veerline", value.get(), deadline.get(), error.out())) {
        throw deadline.failure(error);
    }
}

void KeychainStore::remove(const std::string& service, const std::string& account) {
    guard(service);
    ServicePtr secretService = connect();
    ItemList items = unlockedItems(secretService.get(), Attributes(service, account));
    for (GList* entry = items.get(); entry != nullptr; entry = entry->next) {
        ErrorSlot error;
        auto* item = static_cast<SecretItem*>(entry->data);
        Deadline deadline(callLimit);
        if (!lib().secret_item_delete_sync(item, deadline.get(), error.out())) throw deadline.failure(error);
    }
}

}  // namespace veerline
