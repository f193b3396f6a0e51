#include "base/environment.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace veerline {
namespace {

std::vector<std::string> entriesOf(ChildEnvironment& child) {
    std::vector<std::string> entries;
    for (char** entry = child.entries(); *entry != nullptr; ++entry) entries.emplace_back(*entry);
    return entries;
}

TEST(ChildEnvironmentTest, IsTheEnvironmentWithTheChangesMade) {
    std::vector<std::string> strings{"PATH=/bin", "DUP=first", "NOEQUALS", "DUP=second", "GONE=x",
                                     "SET=old",   "EMPTY=",    "=nameless", "SET=older"};
    std::vector<char*> source;
    for (auto& text : strings) source.push_back(text.data());
    source.push_back(nullptr);

    ChildEnvironment child(source.data(), {"GONE", "MISSING"}, {{"SET", "new"}, {"NEW", "1"}});
    EXPECT_EQ(entriesOf(child),
              (std::vector<std::string>{"PATH=/bin", "DUP=first", "EMPTY=", "=nameless", "NEW=1", "SET=new"}));
    EXPECT_EQ(child.entries()[0], source[0]);  // handed on, not copied

    ChildEnvironment nothing(nullptr, {}, {});
    EXPECT_TRUE(entriesOf(nothing).empty());
}

TEST(CurrentEnvironmentTest, OnlyTheNamedVariables) {
    ::setenv("VEERLINE_TEST_SET", "yes", 1);
    ::setenv("VEERLINE_TEST_EMPTY", "", 1);
    ::unsetenv("VEERLINE_TEST_UNSET");
    EXPECT_EQ(currentEnvironment({"VEERLINE_TEST_SET", "VEERLINE_TEST_EMPTY", "VEERLINE_TEST_UNSET"}),
              (Environment{{"VEERLINE_TEST_SET", "yes"}, {"VEERLINE_TEST_EMPTY", ""}}));
    EXPECT_EQ(currentEnvironment().at("VEERLINE_TEST_SET"), "yes");
    ::unsetenv("VEERLINE_TEST_SET");
    ::unsetenv("VEERLINE_TEST_EMPTY");
}

}  // namespace
}  // namespace veerline
