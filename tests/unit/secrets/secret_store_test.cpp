// The secret stores' edge cases: the guard that keeps the system store to Veerline's own items,
// and the in-memory store, alone and shared between threads. The system store's behaviour
// against a real Secret Service is walked through in tests/e2e/secret_service.sh.

#include "secrets/secret_store.h"

#include <stdlib.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.h"

namespace veerline {
namespace {

TEST(KeychainStoreTest, ForeignServicesAreRefusedBeforeAnyStoreIsAsked) {
    // A bus that isn't there: had the guard let a call through, it would fail otherwise.
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/veerline-test-bus", 1);
    KeychainStore store;
    for (const std::string service :
         {"com.example.mail", "app.veerline.", "app.veerline", "", "com.other.app.veerline.x", "APP.VEERLINE.x"}) {
        VeerlineError expected =
            VeerlineError::unsupported("Refused Keychain access to \u201C" + service + "\u201D: not a Veerline item.");
        EXPECT_EQ(testing::failureOf([&] { store.read(service, "api-key"); }), expected);
        EXPECT_EQ(testing::failureOf([&] { store.write("secret", service, "api-key"); }), expected);
        EXPECT_EQ(testing::failureOf([&] { store.remove(service, "api-key"); }), expected);
    }
}

TEST(InMemorySecretStoreTest, KeepsItemsApartEvenAcrossThreads) {
    InMemorySecretStore store;
    store.remove("s", "a");
    store.write("one", "s", "a");
    store.write("two", "s", "a");
    store.write(std::string("b\0ytes", 6), "s", "b");
    EXPECT_EQ(store.read("s", "a"), "two");
    store.remove("s", "a");
    EXPECT_EQ(store.read("s", "a"), std::nullopt);
    EXPECT_EQ(store.read("s", "b"), std::string("b\0ytes", 6));

    std::atomic<int> mismatches{0};
    std::vector<std::jthread> threads;
    for (std::string account : {"a", "b", "c", "d", "e", "f", "g", "h"}) {
        threads.emplace_back([&store, &mismatches, account] {
            for (int i = 0; i < 2000; ++i) {
                store.write(account + std::to_string(i), "shared", account);
                if (store.read("shared", account) != account + std::to_string(i)) ++mismatches;
                if (i % 2 == 0) store.remove("shared", account);
            }
            if (store.read("shared", account) != account + "1999") ++mismatches;
        });
    }
    threads.clear();  // joins them
    EXPECT_EQ(mismatches, 0);
}

}  // namespace
}  // namespace veerline
