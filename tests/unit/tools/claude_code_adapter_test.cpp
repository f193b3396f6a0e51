#include "tools/claude_code_adapter.h"

#include <gtest/gtest.h>

#include "base/error.h"
#include "support/test_support.h"

namespace veerline {
namespace {

using AuthStatus = ClaudeCodeAdapter::AuthStatus;

TEST(ClaudeCodeParseTest, JSONAfterABannerParses) {
    auto parsed = ClaudeCodeAdapter::parseAuthStatus(
        "Warning: update available\n{\n  \"loggedIn\": true,\n  \"email\": \"ana@example.com\",\n"
        "  \"orgName\": \"Acme\", \"orgId\": \"o-1\", \"subscriptionType\": \"max\",\n"
        "  \"authMethod\": \"claude.ai\"\n}\ntrailing line\n");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(*parsed, (AuthStatus{true, {"ana@example.com", "Acme", "o-1", "max", "claude.ai"}}));
}

// A temporary home with a fake `claude` on the context's PATH that records its arguments and
// environment, then does what the test asks.
class ClaudeCodeAdapterTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    std::string home = dir / "home";
    std::string bin = dir / "bin";
    std::string record = dir / "record";
    Paths paths{home, dir / "Applications"};
    Environment callerEnvironment{{"HOME", home}, {"PATH", bin + ":" + testing::systemPath()}, {"USER", "ana"},
                                  {"LANG", "C.UTF-8"}, {"https_proxy", "http://proxy:3128"},
                                  {"SECRET_TOKEN", "must not leak"}, {"ANTHROPIC_API_KEY", "sk-must-not-leak"},
                                  {"CLAUDE_CONFIG_DIR", "/somewhere/else"}};
    ToolContext context{paths, callerEnvironment, 5.0};

    Profile managed = Profile(ProfileID("work"), "Work", ProfileColor::blue, std::nullopt,
                              {ToolKind::claudeCode}, Profile::Storage::managed);
    Profile system = Profile(ProfileID("home"), "Home", ProfileColor::green, std::nullopt,
                             {ToolKind::claudeCode}, Profile::Storage::system);
    std::string managedFolder = paths.supportDirectory() + "/claude-code/work";

    ClaudeCodeAdapter adapter() const { return ClaudeCodeAdapter(context); }

    void installClaude(const std::string& behaviour) {
        testing::writeFile(bin + "/claude",
                           "#!/bin/sh\n"
                           "for a in \"$@\"; do printf 'ARG:%s\\n' \"$a\"; done > '" + record + "'\n"
                           "env | sed 's/^/ENV:/' >> '" + record + "'\n" +
                               behaviour + "\n",
                           0755);
    }

    testing::FakeToolReport recorded() const {
        auto report = testing::parseFakeToolReport(testing::readFile(record));
        // The shell's own bookkeeping, not what the adapter passed.
        for (const char* name : {"PWD", "OLDPWD", "SHLVL", "_"}) report.environment.erase(name);
        return report;
    }

    Environment expectedEnvironment(bool withConfigDir) const {
        Environment expected{{"HOME", home}, {"PATH", bin + ":" + testing::systemPath()}, {"USER", "ana"},
                             {"LANG", "C.UTF-8"}, {"https_proxy", "http://proxy:3128"}};
        if (withConfigDir) expected["CLAUDE_CONFIG_DIR"] = managedFolder;
        return expected;
    }
};

TEST_F(ClaudeCodeAdapterTest, SignedInStatusRunsTheExactCommandWithAMinimalEnvironment) {
    installClaude("echo 'Checking...'; echo '{\"loggedIn\": true, \"email\": \"ana@example.com\", "
                  "\"authMethod\": \"claude.ai\"}'; exit 1");
    adapter().prepare(managed);
    EXPECT_EQ(adapter().status(managed),
              ToolStatus::signedIn({"ana@example.com", std::nullopt, std::nullopt, std::nullopt, "claude.ai"}));
    auto report = recorded();
    EXPECT_EQ(report.arguments, (std::vector<std::string>{"auth", "status"}));
    EXPECT_EQ(report.environment, expectedEnvironment(true));
}

TEST_F(ClaudeCodeAdapterTest, StatusOutcomes) {
    installClaude("echo '{\"loggedIn\": false}'");
    // No folder yet: nothing is run.
    EXPECT_EQ(adapter().status(managed), ToolStatus::notSetUp());
    EXPECT_FALSE(testing::exists(record));

    adapter().prepare(managed);
    EXPECT_EQ(adapter().status(managed), ToolStatus::needsAttention("Signed out. Sign in again."));

    installClaude("echo '{\"loggedIn\": \"yes\"}'; exit 3");
    EXPECT_EQ(adapter().status(managed),
              ToolStatus::needsAttention("Couldn't read `claude auth status` (exit 3)."));

    // Only standard output is read.
    installClaude("echo '{\"loggedIn\": true}' >&2");
    EXPECT_EQ(adapter().status(managed),
              ToolStatus::needsAttention("Couldn't read `claude auth status` (exit 0)."));

    installClaude("echo '{\"loggedIn\": true, \"orgName\": \"Acme\"}'");
    EXPECT_EQ(adapter().status(managed),
              ToolStatus::signedIn({std::nullopt, "Acme", std::nullopt, std::nullopt, std::nullopt}));

    // A folder that is a file is not set up.
    testing::removeTree(managedFolder);
    testing::writeFile(managedFolder, "");
    EXPECT_EQ(adapter().status(managed), ToolStatus::notSetUp());
}

TEST_F(ClaudeCodeAdapterTest, StatusThatHangsNeedsAttention) {
    installClaude("exec sleep 10");
    context.commandTimeout = 0.3;
    adapter().prepare(managed);
    EXPECT_EQ(adapter().status(managed), ToolStatus::needsAttention("`claude auth status` didn't answer in time."));
}

TEST_F(ClaudeCodeAdapterTest, RemoveDataSignsOutThenDeletes) {
    installClaude("exit 1");
    adapter().prepare(managed);
    testing::writeFile(managedFolder + "/.credentials.json", "{}");
    adapter().removeData(managed);
    EXPECT_FALSE(testing::exists(managedFolder));
    auto report = recorded();
    EXPECT_EQ(report.arguments, (std::vector<std::string>{"auth", "logout"}));
    EXPECT_EQ(report.environment, expectedEnvironment(true));
}

}  // namespace
}  // namespace veerline
