#include "base/unicode.h"

#include <gtest/gtest.h>

namespace veerline {
namespace {

TEST(UnicodeTest, CaseMapping) {
    EXPECT_EQ(unicode::lowercased("ÀÉÎ Work"), "àéî work");
    EXPECT_EQ(unicode::uppercased("ßx"), "SSX");
    EXPECT_EQ(unicode::uppercased("ﬁ"), "FI");
    EXPECT_EQ(unicode::uppercased("é"), "É");
    EXPECT_TRUE(unicode::equalIgnoringCase("Straße", "STRASSE"));
    EXPECT_FALSE(unicode::equalIgnoringCase("work", "works"));
}

TEST(UnicodeTest, GraphemeClustersKeepCombiningMarks) {
    auto clusters = unicode::graphemeClusters("e\u0301x🇫🇷");
    ASSERT_EQ(clusters.size(), 3u);
    EXPECT_EQ(clusters[0], "e\u0301");
    EXPECT_EQ(clusters[2], "🇫🇷");
    EXPECT_EQ(unicode::characterCount(""), 0u);
}

TEST(UnicodeTest, TrimAndRepair) {
    EXPECT_EQ(unicode::trimmed("\u00A0\t work \u2003\n"), "work");
    EXPECT_EQ(unicode::trimmed(" \u3000 "), "");
    EXPECT_EQ(unicode::repairUTF8("a\xff" "b"), "a\uFFFD" "b");
    EXPECT_FALSE(unicode::isValidUTF8("\xc3"));
    EXPECT_TRUE(unicode::isLetterOrNumber(U'é'));
    EXPECT_TRUE(unicode::isLetterOrNumber(U'٣'));
    EXPECT_FALSE(unicode::isLetterOrNumber(U'-'));
}

}  // namespace
}  // namespace veerline
