// The built `veerline doctor` after `veerline shell install`, in a temporary HOME with fake
// `claude` and `codex` that answer their status commands as the real tools do.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "base/paths.h"
#include "profiles/profile_document.h"
#include "support/test_support.h"

namespace veerline::testing {
namespace {

using nlohmann::json;

class CliDoctorTest : public ::testing::Test {
protected:
    TempDir root{"veerline-cli-doctor"};
    std::string home = root / "home";
    std::string support = home + "/Library/Application Support/Veerline";
    RunOptions options{{{"HOME", home}, {"TERM", "xterm"},
                        // The build folder stands for where Veerline is installed: the shim's copies come from it.
                        {"PATH", home + "/.veerline/bin:" + home + "/tools:" + PathUtil::parent(VEERLINE_CLI_BINARY) +
                                     ":/usr/bin:/bin"}},
                        home, "", std::nullopt, {}};

    void SetUp() override {
        // Claude Code prints its JSON on standard output; Codex writes its one line to standard error.
        writeFile(home + "/tools/claude", "#!/bin/sh\ncat \"$CLAUDE_CONFIG_DIR/answer.json\"\n", 0755);
        writeFile(home + "/tools/codex", "#!/bin/sh\necho 'Logged in using ChatGPT' >&2\n", 0755);
        ProfileDocument document;
        document.profiles = {Profile(ProfileID("work"), "Work", ProfileColor::blue, std::nullopt,
                                     {ToolKind::claudeCode, ToolKind::codex}),
                             Profile(ProfileID("home"), "Home", ProfileColor::green, std::nullopt, {ToolKind::claudeCode})};
        writeFile(support + "/profiles.json", encodeDocument(document));
        writeFile(support + "/claude-code/work/answer.json",
                  R"({"loggedIn": true, "authMethod": "claude.ai", "email": "Ana@Example.com", "orgId": "o-1",)"
                  R"( "orgName": "Acme", "subscriptionType": "max"})");
        writeFile(support + "/claude-code/home/answer.json", R"({"loggedIn": true, "email": "ana@example.com", "orgId": "o-1"})");
        makeDirs(support + "/codex/work");
        RunResult installed = run(VEERLINE_CLI_BINARY, {"shell", "install", "--yes"}, options);
        ASSERT_EQ(installed.exitCode, 0) << installed.err;
    }

    RunResult doctor(const std::vector<std::string>& args) const { return run(home + "/.veerline/bin/veerline", args, options); }
    // Everything the program writes to a terminal it runs in; it must exit 0.
    std::string inTerminal(const std::string& command, bool noColour) {
        if (noColour) options.environment["NO_COLOR"] = "1";
        RunResult result = run("/usr/bin/script", {"-qec", home + "/.veerline/bin/veerline " + command, "/dev/null"}, options);
        EXPECT_EQ(result.exitCode, 0) << result.out;
        return result.out;
    }
};

TEST_F(CliDoctorTest, JSONReportOfADeepRun) {
    RunResult result = doctor({"doctor", "--deep", "--json"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err, "");
    const json report = json::parse(result.out);
    EXPECT_EQ(result.out, report.dump(2) + "\n");
    std::vector<std::string> ids;
    for (const json& check : report) ids.push_back(check.at("id"));
    EXPECT_EQ(ids, (std::vector<std::string>{"profiles", "binary.claude-code", "shim.claude-code", "binary.codex",
                                             "shim.codex", "desktop", "datadirs", "libexec", "conflicts",
                                             "status.work.claude-code", "status.home.claude-code",
                                             "account.same.claude-code", "status.work.codex"}));
    EXPECT_EQ(report[4], json::parse(R"({"id": "shim.codex", "level": "ok", "title": "`codex` goes through Veerline"})"));
    EXPECT_EQ(report[7]["level"], "ok");
    EXPECT_EQ(report[9], json::parse(R"({"detail": "Ana@Example.com · Acme · max · claude.ai", "level": "ok",
                                         "id": "status.work.claude-code", "title": "Work · Claude Code: Signed in"})"));
    EXPECT_EQ(report[12], json::parse(R"({"detail": "ChatGPT", "id": "status.work.codex", "level": "ok",
                                          "title": "Work · Codex: Signed in"})"));

    // A stale copy in libexec is a warning; a profiles file that can't be read fails the run.
    writeFile(home + "/.veerline/libexec/veerline-resolve", "#!/bin/sh\n", 0755);
    writeFile(support + "/profiles.json", "{");
    result = doctor({"doctor", "--json"});
    EXPECT_EQ(result.exitCode, 1);
    const json broken = json::parse(result.out);
    EXPECT_EQ(broken[0]["level"], "failure");
    EXPECT_EQ(broken[7]["id"].dump() + broken[7]["level"].dump() + broken[7]["fix"].dump(),
              R"("libexec""warning""Run `veerline shell install` to copy the current ones.")");
}

TEST_F(CliDoctorTest, TextReportInATerminal) {
    std::string coloured = inTerminal("doctor --deep", false);
    EXPECT_NE(coloured.find("\x1b[32m✓\x1b[0m Profiles file is readable\r\n  2 profiles, 0 folder rules\r\n"),
              std::string::npos)
        << coloured;
    EXPECT_NE(coloured.find("\r\x1b[KAsking "), std::string::npos) << coloured;
    EXPECT_NE(coloured.find("\x1b[33m!\x1b[0m Work and Home use the same Claude Code account\r\n"), std::string::npos);
    EXPECT_TRUE(coloured.ends_with("\r\n13 checks: 1 warning, 0 failures.\r\n")) << coloured;

    std::string plain = inTerminal("doctor", true);
    EXPECT_EQ(plain.find('\x1b'), std::string::npos) << plain;
    EXPECT_NE(plain.find("\r\ni Claude Desktop isn't installed\r\n"), std::string::npos) << plain;
    EXPECT_TRUE(plain.ends_with("\r\n9 checks: 0 warnings, 0 failures.\r\n")) << plain;
}

}  // namespace
}  // namespace veerline::testing
