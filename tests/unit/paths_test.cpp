#include "core/paths.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace veerline {
namespace {

TEST(PathUtilTest, NormalizeResolvesDotsAndSlashes) {
    EXPECT_EQ(PathUtil::normalize("a/./b/../c", std::string("/x")), "/x/a/c");
    EXPECT_EQ(PathUtil::normalize("/../.."), "/");
    EXPECT_EQ(PathUtil::normalize("//a//b/"), "/a/b");
    EXPECT_EQ(PathUtil::normalize(""), "/");
    EXPECT_EQ(PathUtil::normalize("x", std::string("y")), "/y/x");
    EXPECT_EQ(PathUtil::normalize("/a/.../b"), "/a/.../b");
}

}  // namespace
}  // namespace veerline
