#include "base/paths.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/test_support.h"

namespace veerline {
namespace {

using testing::TempDir;

TEST(PathUtilTest, NormalizeResolvesDotsAndSlashes) {
    EXPECT_EQ(PathUtil::normalize("a/./b/../c", std::string("/x")), "/x/a/c");
    EXPECT_EQ(PathUtil::normalize("/../.."), "/");
    EXPECT_EQ(PathUtil::normalize("//a//b/"), "/a/b");
    EXPECT_EQ(PathUtil::normalize(""), "/");
    EXPECT_EQ(PathUtil::normalize("x", std::string("y")), "/y/x");
    EXPECT_EQ(PathUtil::normalize("/a/.../b"), "/a/.../b");
    EXPECT_EQ(PathUtil::normalize("~/a"), "/~/a");  // no tilde expansion here
    // Names that only look like "." and ".." are kept; the real ones go wherever they stand.
    EXPECT_EQ(PathUtil::normalize("/.a/..b/c."), "/.a/..b/c.");
    EXPECT_EQ(PathUtil::normalize("/a/b/."), "/a/b");
    EXPECT_EQ(PathUtil::normalize("/a/b/.."), "/a");
    EXPECT_EQ(PathUtil::normalize("/./a"), "/a");
    EXPECT_EQ(PathUtil::normalize("/a/b/c"), "/a/b/c");
}

TEST(PathUtilTest, ContainmentWithAndWithoutCase) {
    EXPECT_TRUE(PathUtil::isSameOrInside("/anything", "/", true));
    EXPECT_TRUE(PathUtil::isSameOrInside("/a", "/a", true));
    EXPECT_TRUE(PathUtil::isSameOrInside("/a/b", "/a", true));
    EXPECT_FALSE(PathUtil::isSameOrInside("/ab", "/a", true));
    EXPECT_FALSE(PathUtil::isSameOrInside("/a", "/a/b", true));
    EXPECT_FALSE(PathUtil::isSameOrInside("/Work/A", "/work", true));
    EXPECT_TRUE(PathUtil::isSameOrInside("/Work/A", "/work", false));
    EXPECT_TRUE(PathUtil::isSameOrInside("/ÉTÉ/x", "/été", false));
}

TEST(PathUtilTest, RealPathAndIdentityOfFoldersBehindLinks) {
    TempDir dir;
    testing::makeDirs(dir / "real/inner");
    testing::writeFile(dir / "real/inner/file", "x");
    testing::makeSymlink("real", dir / "relative");
    testing::makeSymlink(dir / "relative/inner", dir / "chained");
    EXPECT_EQ(PathUtil::realPath(dir / "chained"), dir / "real/inner");
    EXPECT_EQ(PathUtil::realPath(dir / "chained/file"), dir / "real/inner/file");
    EXPECT_EQ(PathUtil::realPath(dir / "chained/../inner"), dir / "real/inner");  // ".." after the link
    EXPECT_FALSE(PathUtil::realPath(dir / "real/inner/file/below").has_value());

    auto identity = FileIdentity::of(dir / "real/inner");
    ASSERT_TRUE(identity.has_value());
    EXPECT_EQ(FileIdentity::of(dir / "chained"), identity);
    EXPECT_NE(FileIdentity::of(dir / "real"), identity);
    EXPECT_FALSE(FileIdentity::of(dir / "missing").has_value());
}

TEST(PathsTest, LogicalWorkingDirectoryKeepsLinksOnlyForTheSameFolder) {
    TempDir dir;
    std::string real = dir / "real/inner";
    testing::makeDirs(real);
    testing::makeDirs(dir / "other");
    testing::makeSymlink(dir / "real", dir / "link");
    std::string previous = std::filesystem::current_path().string();
    std::filesystem::current_path(real);
    std::string physical = std::filesystem::current_path().string();
    EXPECT_EQ(logicalWorkingDirectory({{"PWD", physical}}), physical);
    EXPECT_EQ(logicalWorkingDirectory({{"PWD", dir / "link/inner"}}), dir / "link/inner");
    EXPECT_EQ(logicalWorkingDirectory({{"PWD", dir / "other"}}), physical);  // stale
    EXPECT_EQ(logicalWorkingDirectory({{"PWD", "inner"}}), physical);        // not absolute
    EXPECT_EQ(logicalWorkingDirectory({}), physical);
    std::filesystem::current_path(previous);
}

}  // namespace
}  // namespace veerline
