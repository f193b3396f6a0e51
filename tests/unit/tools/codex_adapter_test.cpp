#include "tools/codex_adapter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "base/error.h"
#include "support/folder_entries.h"
#include "support/test_support.h"

namespace veerline {
namespace {

using LoginState = CodexAdapter::LoginState;

TEST(CodexParseTest, FirstDecidingLineGivesTheState) {
    const std::vector<std::pair<std::string, LoginState>> cases = {
        {"Logged in using ChatGPT\n", LoginState::signedIn("ChatGPT")},
        {"Logged in using an API key - sk-proj-***ABCD", LoginState::signedIn("API key")},
        {"WARNING: something\n   \tLogged in using ChatGPT  \n", LoginState::signedIn("ChatGPT")},
        {"Logged in using  - key", LoginState::signedIn("")},
        // Trimming takes the blank that the phrase needs.
        {"Logged in using ", LoginState::unknown()},
        // Every Unicode line break separates lines.
        {"banner\xE2\x80\xA8Logged in using ChatGPT", LoginState::signedIn("ChatGPT")},
        {"banner\r\nLogged in using X\xC2\x85more", LoginState::signedIn("X")},
        {"Not logged in\nLogged in using ChatGPT", LoginState::signedOut()},
        {"Logged in using ChatGPT\nNot logged in", LoginState::signedIn("ChatGPT")},
        {"\n\n  \n", LoginState::unknown()},
        {"Error: something broke", LoginState::unknown()},
        {"You are Logged in using ChatGPT", LoginState::unknown()}};
    for (const auto& [text, state] : cases) EXPECT_EQ(CodexAdapter::parseLoginStatus(text), state) << text;
}

class CodexAdapterTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    std::string home = dir / "home";
    std::string bin = dir / "bin";
    std::string applications = dir / "Applications";
    std::string record = dir / "record";
    Paths paths{home, applications};
    Environment callerEnvironment{{"HOME", home}, {"PATH", bin + ":" + testing::systemPath()}, {"LOGNAME", "ana"},
                                  {"NO_PROXY", ""}, {"OPENAI_API_KEY", "must not leak"},
                                  {"CODEX_HOME", "/somewhere/else"}, {"RANDOM_THING", "x"}};
    ToolContext context{paths, callerEnvironment, 5.0};

    Profile managed = Profile(ProfileID("work"), "Work", ProfileColor::blue, std::nullopt, {ToolKind::codex},
                              Profile::Storage::managed);
    Profile system = Profile(ProfileID("home"), "Home", ProfileColor::green, std::nullopt, {ToolKind::codex},
                             Profile::Storage::system);
    std::string managedFolder = paths.supportDirectory() + "/codex/work";

    CodexAdapter adapter() const { return CodexAdapter(context); }

    static std::string recorderScript(const std::string& recordPath, const std::string& behaviour) {
        return "#!/bin/sh\n"
               "for a in \"$@\"; do printf 'ARG:%s\\n' \"$a\"; done > '" + recordPath + "'\n"
               "env | sed 's/^/ENV:/' >> '" + recordPath + "'\n" + behaviour + "\n";
    }

    void installCodex(const std::string& behaviour) {
        testing::writeFile(bin + "/codex", recorderScript(record, behaviour), 0755);
    }

    testing::FakeToolReport recorded() const {
        auto report = testing::parseFakeToolReport(testing::readFile(record));
        for (const char* name : {"PWD", "OLDPWD", "SHLVL", "_"}) report.environment.erase(name);
        return report;
    }

    static std::string innerExecutable(const std::string& bundle) {
        return bundle + "/Contents/Resources/codex-cli/bin/codex";
    }
};

TEST_F(CodexAdapterTest, BundledCopyIsUsedWhenNothingIsOnThePath) {
    EXPECT_FALSE(adapter().isInstalled());
    EXPECT_EQ(adapter().status(managed), ToolStatus::notInstalled());

    // Not executable: skipped.
    std::string inHome = innerExecutable(home + "/Applications/Codex.app");
    testing::writeFile(inHome, "#!/bin/sh\n", 0644);
    EXPECT_EQ(CodexAdapter::bundledCodex(paths), std::nullopt);
    ::chmod(inHome.c_str(), 0755);
    EXPECT_EQ(CodexAdapter::bundledCodex(paths), inHome);

    std::string hinted = dir / "Elsewhere/Codex.app";
    testing::writeFile(innerExecutable(hinted), recorderScript(record, "echo 'Logged in using ChatGPT'"), 0755);
    testing::writeFile(CodexAdapter::bundledHintFile(paths), hinted + "\n");
    EXPECT_EQ(adapter().binaryPath(), innerExecutable(hinted));
    EXPECT_TRUE(adapter().usesBundledCodex());

    adapter().prepare(managed);
    EXPECT_EQ(adapter().status(managed).kind, ToolStatus::Kind::signedIn);
    auto command = adapter().setUp(managed);
    ASSERT_TRUE(command);
    EXPECT_EQ(command->executable, innerExecutable(hinted));

    installCodex("");
    EXPECT_EQ(adapter().binaryPath(), bin + "/codex");
    EXPECT_FALSE(adapter().usesBundledCodex());
}

TEST_F(CodexAdapterTest, StatusRunsTheExactCommandWithAMinimalEnvironment) {
    installCodex("echo 'Logged in using an API key - sk-***1234'");
    adapter().prepare(managed);
    AccountInfo account;
    account.method = "API key";
    EXPECT_EQ(adapter().status(managed), ToolStatus::signedIn(account));
    auto report = recorded();
    EXPECT_EQ(report.arguments, (std::vector<std::string>{"login", "status"}));
    EXPECT_EQ(report.environment, (Environment{{"HOME", home},
                                               {"PATH", bin + ":" + testing::systemPath()},
                                               {"LOGNAME", "ana"},
                                               {"NO_PROXY", ""},
                                               {"CODEX_HOME", managedFolder}}));
}

TEST_F(CodexAdapterTest, StatusOutcomes) {
    installCodex("echo 'Logged in using ChatGPT'");
    EXPECT_EQ(adapter().status(managed), ToolStatus::notSetUp());
    EXPECT_FALSE(testing::exists(record));

    adapter().prepare(managed);
    // Read from standard error too.
    installCodex("echo 'Logged in using ChatGPT' >&2; exit 0");
    AccountInfo chatGPT;
    chatGPT.method = "ChatGPT";
    EXPECT_EQ(adapter().status(managed), ToolStatus::signedIn(chatGPT));

    installCodex("echo 'Not logged in'; exit 1");
    EXPECT_EQ(adapter().status(managed), ToolStatus::needsAttention("Signed out. Sign in again."));
    EXPECT_EQ(adapter().status(system), ToolStatus::notSetUp());
    EXPECT_EQ(recorded().environment.count("CODEX_HOME"), 0u);

    installCodex("echo 'error: unexpected argument' >&2; exit 2");
    EXPECT_EQ(adapter().status(managed),
              ToolStatus::needsAttention("Couldn't read `codex login status` (exit 2): error: unexpected argument"));
}

TEST_F(CodexAdapterTest, PrepareWritesTheStarterConfigOnce) {
    adapter().prepare(managed);
    EXPECT_EQ(testing::fileMode(managedFolder), 0700u);
    EXPECT_EQ(testing::readFile(managedFolder + "/config.toml"), CodexAdapter::managedConfig());

    std::string edited = std::string(CodexAdapter::managedConfig()) + "model = \"o3\"\n";
    testing::writeFile(managedFolder + "/config.toml", edited);
    adapter().prepare(managed);
    EXPECT_EQ(testing::readFile(managedFolder + "/config.toml"), edited);

    // No temporary files are left beside it.
    testing::removeTree(managedFolder);
    adapter().prepare(managed);
    EXPECT_EQ(testing::entriesOf(managedFolder), std::vector<std::string>{"config.toml"});
}

TEST_F(CodexAdapterTest, RemoveDataSignsOutThenDeletes) {
    installCodex("exit 1");
    adapter().prepare(managed);
    adapter().removeData(managed);
    EXPECT_FALSE(testing::exists(managedFolder));
    auto report = recorded();
    EXPECT_EQ(report.arguments, std::vector<std::string>{"logout"});
    EXPECT_EQ(report.environment.at("CODEX_HOME"), managedFolder);
}

}  // namespace
}  // namespace veerline
