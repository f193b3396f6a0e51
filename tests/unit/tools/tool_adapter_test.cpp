#include "tools/tool_adapter.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tools/claude_code_adapter.h"
#include "tools/codex_adapter.h"
#include "base/error.h"
#include "shell/shell_quote.h"
#include "support/failure.h"
#include "support/test_support.h"

namespace veerline {
namespace {

using testing::failureOf;

TEST(ShellQuoteTest, QuotedWordsReadBackThroughARealShell) {
    testing::RunOptions options;
    options.environment = {{"PATH", testing::systemPath()}};
    // Plain words (Unicode letters and numbers, a few safe marks) stay as they are.
    for (const char* plain : {"abcXYZ019-_./:=@%+,", "Caf\u00E9", "Cafe\u0301", "\u65E5\u672C\u0663"}) {
        EXPECT_EQ(ShellQuote::quote(plain), plain);
    }
    // Everything else, read back by the shell exactly, even after a letter that joins what follows.
    for (std::string word : {"", "it's a \"test\" $HOME `x` \\ ; |", "~", "a\nb", "'", "*", "bad\xFF", "Caf\u00E9",
                             "\u0D4E;echo", "\u0D4E$(id)", "-n"}) {
        auto result = testing::run("/bin/sh", {"-c", "printf '%s' " + ShellQuote::quote(word)}, options);
        EXPECT_EQ(result.out, word) << ShellQuote::quote(word);
    }
}

TEST(SignInCommandTest, ShellLineRunsAsDescribed) {
    testing::TempDir dir;
    testing::writeFakeTool(dir / "fake tool");
    SignInCommand command{dir / "fake tool", {"it's", ""}, {{"SET_ME", "a b"}}, {"DROP_ME"}};
    testing::RunOptions options;
    options.environment = {{"PATH", testing::systemPath()}, {"DROP_ME", "1"}, {"KEEP", "k"}};
    auto result = testing::run("/bin/sh", {"-c", command.shellLine()}, options);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    auto report = testing::parseFakeToolReport(result.out);
    EXPECT_EQ(report.arguments, (std::vector<std::string>{"it's", ""}));
    EXPECT_EQ(report.environment.count("DROP_ME"), 0u);
    EXPECT_EQ(report.environment["SET_ME"], "a b");
    EXPECT_EQ(report.environment["KEEP"], "k");
}

TEST(AccountInfoTest, JSONFormLeavesOutAbsentFields) {
    AccountInfo account{"a@b.c", std::nullopt, "o1", "max", std::nullopt};
    nlohmann::json json = account.toJSON();
    EXPECT_EQ(json, nlohmann::json::parse(R"({"email":"a@b.c","organizationID":"o1","plan":"max"})"));
    EXPECT_EQ(AccountInfo::fromJSON(json), account);
    EXPECT_EQ(AccountInfo{}.toJSON(), nlohmann::json::object());

    EXPECT_EQ(AccountInfo::fromJSON(nlohmann::json::parse(R"({"method":"API key","other":1,"email":null})")),
              (AccountInfo{std::nullopt, std::nullopt, std::nullopt, std::nullopt, "API key"}));
    EXPECT_EQ(AccountInfo::fromJSON(nlohmann::json::parse(R"({"email":3})")), std::nullopt);
    EXPECT_EQ(AccountInfo::fromJSON(nlohmann::json::array()), std::nullopt);
}

class ToolAdapterDataTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    Paths paths{dir / "home", dir / "Applications"};
    ToolContext context{paths, {{"HOME", dir / "home"}, {"PATH", "/nonexistent"}}};
    ClaudeCodeAdapter adapter{context};

    static Profile profile(std::string id, Profile::Storage storage = Profile::Storage::managed) {
        return Profile(ProfileID(std::move(id)), "Work", ProfileColor::blue, std::nullopt,
                       {ToolKind::claudeCode, ToolKind::codex}, storage);
    }
};

TEST_F(ToolAdapterDataTest, ManagedProfileFolderIsCreatedPrivateAndDeleted) {
    Profile work = profile("work");
    std::string expected = paths.supportDirectory() + "/claude-code/work";
    EXPECT_EQ(adapter.dataDirectory(work), expected);

    EXPECT_EQ(adapter.createDataDirectory(work), expected);
    EXPECT_EQ(testing::fileMode(expected), 0700u);
    EXPECT_EQ(testing::fileMode(paths.supportDirectory() + "/claude-code"), 0700u);
    testing::writeFile(expected + "/sub/file", "x");
    // An existing folder is fine and keeps its contents.
    EXPECT_EQ(adapter.createDataDirectory(work), expected);
    EXPECT_TRUE(testing::exists(expected + "/sub/file"));

    adapter.deleteDataDirectory(work);
    EXPECT_FALSE(testing::exists(expected));
    adapter.deleteDataDirectory(work);  // nothing there: nothing to do
}

TEST_F(ToolAdapterDataTest, DeletionOutsideTheSupportFolderIsRefused) {
    std::string outside = paths.home + "/Library/Application Support/precious";
    testing::writeFile(outside + "/keep", "x");
    EXPECT_EQ(failureOf([&] { adapter.deleteDataDirectory(profile("../../precious")); }).kind(),
              VeerlineError::Kind::unsafeDeletion);
    EXPECT_TRUE(testing::exists(outside + "/keep"));

    // The support folder itself is not "inside" it either.
    EXPECT_THROW(adapter.deleteDataDirectory(profile("..")), VeerlineError);
}

TEST_F(ToolAdapterDataTest, DeletingALinkedFolderRemovesOnlyTheLink) {
    std::string elsewhere = dir / "elsewhere";
    testing::writeFile(elsewhere + "/keep", "x");
    std::string folder = paths.supportDirectory() + "/claude-code/linked";
    testing::makeSymlink(elsewhere, folder);
    adapter.deleteDataDirectory(profile("linked"));
    EXPECT_FALSE(testing::exists(folder));
    EXPECT_TRUE(testing::exists(elsewhere + "/keep"));
}

TEST_F(ToolAdapterDataTest, CreateFailureNamesTheFolder) {
    testing::writeFile(paths.supportDirectory() + "/claude-code", "a file in the way");
    VeerlineError error = failureOf([&] { adapter.createDataDirectory(profile("work")); });
    EXPECT_EQ(error.kind(), VeerlineError::Kind::io);
    EXPECT_EQ(error.errorDescription(),
              "Couldn't create " + paths.supportDirectory() + "/claude-code/work: Not a directory");
}

TEST_F(ToolAdapterDataTest, LaunchIsUnsupportedForCommandLineTools) {
    VeerlineError claude = failureOf([&] { adapter.launch(profile("work")); });
    EXPECT_EQ(claude.kind(), VeerlineError::Kind::unsupported);
    EXPECT_EQ(claude.errorDescription(), "Claude Code runs in your terminal; there's nothing to launch.");
    EXPECT_EQ(failureOf([&] { CodexAdapter(context).launch(profile("work")); }).errorDescription(),
              "Codex runs in your terminal; there's nothing to launch.");
}

}  // namespace
}  // namespace veerline
