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

TEST(ShellQuoteTest, PlainWordsStayUnquotedEverythingElseIsSingleQuoted) {
    // Letters and digits in the Unicode sense, including an accent written as a combining mark.
    for (const char* plain : {"abcXYZ019-_./:=@%+,", "Café", "Cafe\xCC\x81", "日本語٣"}) {
        EXPECT_EQ(ShellQuote::quote(plain), plain);
    }
    const std::vector<std::pair<std::string, std::string>> quoted = {
        {"", "''"},        {"Application Support", "'Application Support'"}, {"a'b", "'a'\\''b'"},
        {"$HOME", "'$HOME'"}, {"a;b", "'a;b'"}, {"~", "'~'"}, {"a\nb", "'a\nb'"}, {"bad\xFF", "'bad\xFF'"}};
    for (const auto& [text, expected] : quoted) EXPECT_EQ(ShellQuote::quote(text), expected) << text;
}

TEST(ShellQuoteTest, QuotedTextSurvivesARealShell) {
    std::string tricky = "it's a \"test\" $HOME `x` \\ ; |";
    testing::RunOptions options;
    options.environment = {{"PATH", testing::systemPath()}};
    auto result = testing::run("/bin/sh", {"-c", "printf '%s' " + ShellQuote::quote(tricky)}, options);
    EXPECT_EQ(result.out, tricky);
}

TEST(SignInCommandTest, ShellLineHasOnlyTheNeededParts) {
    SignInCommand plain{"/usr/local/bin/claude", {"auth", "login"}, {}, {}};
    EXPECT_EQ(plain.shellLine(), "/usr/local/bin/claude auth login");

    SignInCommand sorted{"/bin/codex", {"login"}, {{"B", "2"}, {"A", "x y"}}, {}};
    EXPECT_EQ(sorted.shellLine(), "env A='x y' B=2 /bin/codex login");

    SignInCommand unsetOnly{"/bin/claude", {"auth", "login"}, {}, {"Z", "A"}};
    EXPECT_EQ(unsetOnly.shellLine(), "env -u Z -u A /bin/claude auth login");

    SignInCommand both{"/opt/my tools/claude", {"auth", "login"}, {{"CLAUDE_CONFIG_DIR", "/a b"}}, {"ANTHROPIC_API_KEY"}};
    EXPECT_EQ(both.shellLine(), "env -u ANTHROPIC_API_KEY CLAUDE_CONFIG_DIR='/a b' '/opt/my tools/claude' auth login");
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

TEST(AccountInfoTest, SameAccountKey) {
    AccountInfo none;
    EXPECT_EQ(none.sameAccountKey(), std::nullopt);
    AccountInfo withoutOrganization{"Ana@Example.COM", "Org", std::nullopt, "pro", "claude.ai"};
    EXPECT_EQ(withoutOrganization.sameAccountKey(), "ana@example.com|");
    AccountInfo withOrganization{"ana@example.com", std::nullopt, "org-1", std::nullopt, std::nullopt};
    EXPECT_EQ(withOrganization.sameAccountKey(), "ana@example.com|org-1");
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

TEST_F(ToolAdapterDataTest, CreateFailureNamesTheFolder) {
    testing::writeFile(paths.supportDirectory() + "/claude-code", "a file in the way");
    VeerlineError error = failureOf([&] { adapter.createDataDirectory(profile("work")); });
    EXPECT_EQ(error.kind(), VeerlineError::Kind::io);
    EXPECT_EQ(error.errorDescription(),
              "Couldn't create " + paths.supportDirectory() + "/claude-code/work: Not a directory");
}

TEST_F(ToolAdapterDataTest, SystemProfileHasNoFolder) {
    Profile system = profile("sys", Profile::Storage::system);
    testing::makeDirs(paths.supportDirectory() + "/claude-code/sys");
    EXPECT_EQ(adapter.dataDirectory(system), std::nullopt);
    EXPECT_EQ(adapter.createDataDirectory(system), std::nullopt);
    adapter.deleteDataDirectory(system);
    EXPECT_TRUE(testing::exists(paths.supportDirectory() + "/claude-code/sys"));
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

TEST_F(ToolAdapterDataTest, LaunchIsUnsupportedForCommandLineTools) {
    VeerlineError claude = failureOf([&] { adapter.launch(profile("work")); });
    EXPECT_EQ(claude.kind(), VeerlineError::Kind::unsupported);
    EXPECT_EQ(claude.errorDescription(), "Claude Code runs in your terminal; there's nothing to launch.");
    EXPECT_EQ(failureOf([&] { CodexAdapter(context).launch(profile("work")); }).errorDescription(),
              "Codex runs in your terminal; there's nothing to launch.");
}

}  // namespace
}  // namespace veerline
