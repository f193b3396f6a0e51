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

TEST(PathUtilTest, ParentAndComponents) {
    EXPECT_EQ(PathUtil::parent("/"), "/");
    EXPECT_EQ(PathUtil::parent("/a"), "/");
    EXPECT_EQ(PathUtil::parent("/a/b"), "/a");
    EXPECT_EQ(PathUtil::parent("/a/b/"), "/a/b");
    EXPECT_EQ(PathUtil::parent("a"), "/");
    EXPECT_EQ(PathUtil::componentCount("/"), 0u);
    EXPECT_EQ(PathUtil::componentCount("/a/b"), 2u);
    EXPECT_EQ(PathUtil::componentCount("//a///b/"), 2u);
}

TEST(PathUtilTest, ExpandTildeOnlyForOwnHome) {
    EXPECT_EQ(PathUtil::expandTilde("~", "/h"), "/h");
    EXPECT_EQ(PathUtil::expandTilde("~/x/y", "/h"), "/h/x/y");
    EXPECT_EQ(PathUtil::expandTilde("~bob/x", "/h"), "~bob/x");
    EXPECT_EQ(PathUtil::expandTilde("/a/~", "/h"), "/a/~");
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

TEST(PathUtilTest, FileTestsFollowLinks) {
    TempDir dir;
    testing::writeFile(dir / "exe", "#!/bin/sh\n", 0755);
    testing::writeFile(dir / "plain", "x", 0644);
    testing::makeDirs(dir / "folder");
    testing::makeSymlink(dir / "exe", dir / "link");
    EXPECT_TRUE(PathUtil::isExecutableFile(dir / "exe"));
    EXPECT_TRUE(PathUtil::isExecutableFile(dir / "link"));
    EXPECT_FALSE(PathUtil::isExecutableFile(dir / "plain"));
    EXPECT_FALSE(PathUtil::isExecutableFile(dir / "folder"));
    EXPECT_TRUE(PathUtil::isRegularFile(dir / "plain"));
    EXPECT_FALSE(PathUtil::isRegularFile(dir / "folder"));
    EXPECT_TRUE(PathUtil::isDirectory(dir / "folder"));
    EXPECT_FALSE(PathUtil::isDirectory(dir / "missing"));
    EXPECT_EQ(PathUtil::realPath(dir / "link"), dir / "exe");
    EXPECT_EQ(PathUtil::realPath(dir / "folder/../exe"), dir / "exe");
    EXPECT_FALSE(PathUtil::realPath(dir / "missing").has_value());
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

TEST(PathUtilTest, CaseSensitivityOfMissingPathAnswersForNearestAncestor) {
    TempDir dir;
    bool existing = PathUtil::isCaseSensitiveVolume(dir.path());
    EXPECT_EQ(PathUtil::isCaseSensitiveVolume(dir / "no/such/folder"), existing);
    testing::writeFile(dir / "file", "x");
    EXPECT_EQ(PathUtil::isCaseSensitiveVolume(dir / "file"), existing);  // a file answers for its folder
    // The usual Linux temp folder (ext4, tmpfs, overlay) compares names by case.
    EXPECT_TRUE(PathUtil::isCaseSensitiveVolume("/proc/self"));
}

TEST(PathsTest, ForCurrentUserTakesAbsoluteHomeOnly) {
    EXPECT_EQ(Paths::forCurrentUser({{"HOME", "/home//u/"}}).home, "/home/u");
    Paths fromDatabase = Paths::forCurrentUser({});
    EXPECT_TRUE(fromDatabase.home.starts_with("/"));
    EXPECT_EQ(Paths::forCurrentUser({{"HOME", "relative/home"}}).home, fromDatabase.home);
    EXPECT_EQ(Paths::forCurrentUser({{"HOME", ""}}).home, fromDatabase.home);
    EXPECT_EQ(fromDatabase.applicationsDirectory, "/Applications");
}

TEST(PathsTest, DerivedLocations) {
    Paths paths("/Users/a/", "/Apps");
    EXPECT_EQ(paths.home, "/Users/a");
    EXPECT_EQ(paths.applicationsDirectory, "/Apps");
    EXPECT_EQ(paths.supportDirectory(), "/Users/a/Library/Application Support/Veerline");
    EXPECT_EQ(paths.profilesFile(), "/Users/a/Library/Application Support/Veerline/profiles.json");
    EXPECT_EQ(paths.lockFile(), "/Users/a/Library/Application Support/Veerline/.profiles.lock");
    EXPECT_EQ(paths.shimDirectory(), "/Users/a/.veerline/bin");
    EXPECT_EQ(paths.dataDirectory(ToolKind::claudeDesktop, ProfileID("work")),
              "/Users/a/Library/Application Support/Veerline/desktop/work");
    EXPECT_EQ(paths.dataDirectory(ToolKind::claudeCode, ProfileID("work")),
              "/Users/a/Library/Application Support/Veerline/claude-code/work");
}

TEST(PathsTest, AbbreviateOnlyWholeHomeComponents) {
    Paths paths("/Users/a", "/Applications");
    EXPECT_EQ(paths.abbreviate("/Users/a"), "~");
    EXPECT_EQ(paths.abbreviate("/Users/a/x/y"), "~/x/y");
    EXPECT_EQ(paths.abbreviate("/Users/ab"), "/Users/ab");
    EXPECT_EQ(paths.abbreviate("/other"), "/other");
}

TEST(PathsTest, InsideSupportDirectoryExcludesItselfAndSiblings) {
    Paths paths("/Users/a", "/Applications");
    std::string support = paths.supportDirectory();
    EXPECT_FALSE(paths.isInsideSupportDirectory(support));
    EXPECT_FALSE(paths.isInsideSupportDirectory(support + "/"));
    EXPECT_FALSE(paths.isInsideSupportDirectory(support + "Other/x"));
    EXPECT_TRUE(paths.isInsideSupportDirectory(support + "/codex/p"));
    EXPECT_FALSE(paths.isInsideSupportDirectory(support + "/codex/../.."));
    EXPECT_TRUE(paths.isInsideSupportDirectory(
        "Users/a/Library/Application Support/Veerline/x"));  // relative is taken from the root
}

}  // namespace
}  // namespace veerline
