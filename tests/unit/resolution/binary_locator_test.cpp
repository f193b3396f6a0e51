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

TEST_F(BinaryLocatorTest, SkipsRelativeEntriesNonExecutablesAndFolders) {
    testing::writeFile(dir / "plain/claude", "x", 0644);
    testing::makeDirs(dir / "folder/claude");
    BinaryLocator locator("real:.:" + dir / "plain" + ":" + dir / "folder" + "::" + real, {});
    EXPECT_EQ(locator.find("claude"), real + "/claude");
    EXPECT_FALSE(BinaryLocator("", {}).find("claude").has_value());
    EXPECT_FALSE(BinaryLocator(real, {}).find("codex").has_value());
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
