#include "resolution/binary_locator.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace veerline {
namespace {

using testing::TempDir;

class BinaryLocatorTest : public ::testing::Test {
protected:
    TempDir dir;
    std::string shims = dir / "home/.veerline/bin";
    std::string real = dir / "real";

    void SetUp() override {
        testing::writeFile(shims + "/claude", "#!/bin/sh\n", 0755);
        testing::writeFile(real + "/claude", "#!/bin/sh\n", 0755);
    }
};

TEST_F(BinaryLocatorTest, SkipsExcludedFolderInAnySpelling) {
    testing::makeSymlink(shims, dir / "link-to-shims");
    for (const std::string& entry :
         {shims, shims + "/", shims + "/./", dir / "home/.veerline/x/../bin", dir / "link-to-shims"}) {
        BinaryLocator locator(entry + ":" + real, {shims});
        EXPECT_EQ(locator.find("claude"), real + "/claude") << entry;
    }
    // The excluded folder may itself be given through a link.
    BinaryLocator viaLink(shims + ":" + real, {dir / "link-to-shims"});
    EXPECT_EQ(viaLink.find("claude"), real + "/claude");
}

TEST_F(BinaryLocatorTest, FindIncludingExcludedReturnsTheShim) {
    BinaryLocator locator(shims + ":" + real, {shims});
    EXPECT_EQ(locator.findIncludingExcluded("claude"), shims + "/claude");
}

TEST_F(BinaryLocatorTest, SkipsRelativeEntriesNonExecutablesAndFolders) {
    testing::writeFile(dir / "plain/claude", "x", 0644);
    testing::makeDirs(dir / "folder/claude");
    BinaryLocator locator("real:.:" + dir / "plain" + ":" + dir / "folder" + "::" + real, {});
    EXPECT_EQ(locator.find("claude"), real + "/claude");
    EXPECT_FALSE(BinaryLocator("", {}).find("claude").has_value());
    EXPECT_FALSE(BinaryLocator(real, {}).find("codex").has_value());
}

TEST_F(BinaryLocatorTest, ReturnsNormalisedEntryNotRealPath) {
    testing::makeSymlink(real, dir / "real-link");
    BinaryLocator locator(dir / "real-link/", {});
    EXPECT_EQ(locator.find("claude"), dir / "real-link/claude");
}

TEST_F(BinaryLocatorTest, EnvironmentConstructorDefaultsAndExcludesShimFolder) {
    Paths paths(dir / "home", "/Applications");
    BinaryLocator fromEnv({{"PATH", shims + ":" + real}}, paths);
    EXPECT_EQ(fromEnv.find("claude"), real + "/claude");
    BinaryLocator noPath({}, paths);
    EXPECT_EQ(noPath.searchPath, "/usr/bin:/bin:/usr/sbin:/sbin");
    EXPECT_EQ(noPath.excludedDirectories, std::vector<std::string>{shims});
}

}  // namespace
}  // namespace veerline
