#include "base/error.h"

#include <gtest/gtest.h>

namespace veerline {
namespace {

TEST(VeerlineErrorTest, MessagesAreCompleteSentences) {
    EXPECT_STREQ(VeerlineError::storeTooNew(2).what(),
                 "Your profiles were saved by a newer version of Veerline (format 2). Update Veerline "
                 "to change them.");
    EXPECT_EQ(VeerlineError::storeCorrupt("/p/profiles.json", "").errorDescription(),
              "Couldn't read /p/profiles.json: ");
    EXPECT_EQ(VeerlineError::profileNotFound(" Work").errorDescription(),
              "There's no profile called \u201C Work\u201D. Run `veerline profile list` to see them.");
    EXPECT_EQ(VeerlineError::unsafeDeletion("/tmp/x").errorDescription(),
              "Refused to delete /tmp/x because it isn't inside Veerline's own data folder.");
    EXPECT_EQ(VeerlineError::invalidProfile("Profile names can't be empty.").errorDescription(),
              "Profile names can't be empty.");
    EXPECT_EQ(VeerlineError::keychain(-25300).errorDescription(),
              "Keychain error -25300: The specified item could not be found in the keychain.");
    EXPECT_EQ(VeerlineError::keychain(12345).errorDescription(), "Keychain error 12345: unknown");
}

}  // namespace
}  // namespace veerline
