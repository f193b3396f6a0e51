// The built `veerline doctor` after `veerline shell install`, in a temporary HOME with fake
// `claude` and `codex` that answer their status commands as the real tools do.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

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
    std::map<std::string, std::string> environment{
        {"HOME", home}, {"TERM", "xterm"},
        // The build folder stands for where Veerline is installed: the shim's copies come from it.
        {"PATH", home + "/.veerline/bin:" + home + "/tools:" + PathUtil::parent(VEERLINE_CLI_BINARY) + ":/usr/bin:/bin"}};

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
        writeFile(support + "/claude-code/home/answer.json",
                  R"({"loggedIn": true, "authMethod": "claude.ai", "email": "ana@example.com", "orgId": "o-1",)"
                  R"( "orgName": null, "subscriptionType": "pro"})");
        makeDirs(support + "/codex/work");
        RunResult installed = run(VEERLINE_CLI_BINARY, {"shell", "install", "--yes"}, options());
        ASSERT_EQ(installed.exitCode, 0) << installed.err;
    }

    RunOptions options() const {
        RunOptions options;
        options.environment = environment;
        options.cwd = home;
        return options;
    }

    RunResult doctor(const std::vector<std::string>& arguments) const {
        return run(home + "/.veerline/bin/veerline", arguments, options());
    }

    // Everything the program writes to a terminal it runs in, until it exits.
    std::string inTerminal(const std::vector<std::string>& arguments, bool noColour) const {
        int terminal = -1;
        pid_t child = ::forkpty(&terminal, nullptr, nullptr, nullptr);
        if (child == 0) {
            // env -i: exactly the test's environment, nothing of this process's.
            std::vector<std::string> words{"/usr/bin/env", "-i"};
            for (const auto& [name, value] : environment) words.push_back(name + "=" + value);
            if (noColour) words.push_back("NO_COLOR=1");
            words.push_back(home + "/.veerline/bin/veerline");
            words.insert(words.end(), arguments.begin(), arguments.end());
            std::vector<char*> argv;
            for (auto& word : words) argv.push_back(word.data());
            argv.push_back(nullptr);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        std::string output;
        char buffer[4096];
        for (ssize_t got; (got = ::read(terminal, buffer, sizeof buffer)) > 0;) output.append(buffer, got);
        ::close(terminal);
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << output;
        return output;
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
    auto check = [&](const std::string& id) {
        return *std::find_if(report.begin(), report.end(), [&](const json& c) { return c["id"] == id; });
    };
    EXPECT_EQ(check("profiles"), json::parse(R"({"detail": "2 profiles, 0 folder rules", "id": "profiles",
                                                 "level": "ok", "title": "Profiles file is readable"})"));
    EXPECT_EQ(check("binary.claude-code")["detail"], "~/tools/claude");
    EXPECT_EQ(check("shim.codex"), json::parse(R"({"id": "shim.codex", "level": "ok",
                                                   "title": "`codex` goes through Veerline"})"));
    EXPECT_EQ(check("libexec")["level"], "ok");
    EXPECT_EQ(check("status.work.claude-code"),
              json::parse(R"({"detail": "Ana@Example.com · Acme · max · claude.ai", "id": "status.work.claude-code",
                              "level": "ok", "title": "Work · Claude Code: Signed in"})"));
    EXPECT_EQ(check("status.home.claude-code")["detail"], "ana@example.com · pro · claude.ai");
    EXPECT_EQ(check("account.same.claude-code")["title"], "Work and Home use the same Claude Code account");
    EXPECT_EQ(check("status.work.codex"), json::parse(R"({"detail": "ChatGPT", "id": "status.work.codex",
                                                          "level": "ok", "title": "Work · Codex: Signed in"})"));

    // A stale copy in libexec is a warning; a profiles file that can't be read fails the run.
    writeFile(home + "/.veerline/libexec/veerline-resolve", "#!/bin/sh\n", 0755);
    writeFile(support + "/profiles.json", "{");
    result = doctor({"doctor", "--json"});
    EXPECT_EQ(result.exitCode, 1);
    const json broken = json::parse(result.out);
    EXPECT_EQ(broken[0]["level"], "failure");
    auto libexec = std::find_if(broken.begin(), broken.end(), [](const json& c) { return c["id"] == "libexec"; });
    ASSERT_NE(libexec, broken.end());
    EXPECT_EQ((*libexec)["level"], "warning");
    EXPECT_EQ((*libexec)["fix"], "Run `veerline shell install` to copy the current ones.");
}

TEST_F(CliDoctorTest, TextReportInATerminal) {
    std::string coloured = inTerminal({"doctor", "--deep"}, false);
    EXPECT_NE(coloured.find("\x1b[32m✓\x1b[0m Profiles file is readable\r\n  2 profiles, 0 folder rules\r\n"),
              std::string::npos)
        << coloured;
    EXPECT_NE(coloured.find("\r\x1b[KAsking "), std::string::npos) << coloured;
    EXPECT_NE(coloured.find("\x1b[33m!\x1b[0m Work and Home use the same Claude Code account\r\n"), std::string::npos);
    EXPECT_TRUE(coloured.ends_with("\r\n13 checks: 1 warning, 0 failures.\r\n")) << coloured;

    std::string plain = inTerminal({"doctor"}, true);
    EXPECT_EQ(plain.find('\x1b'), std::string::npos) << plain;
    EXPECT_NE(plain.find("\r\ni Claude Desktop isn't installed\r\n"), std::string::npos) << plain;
    EXPECT_TRUE(plain.ends_with("\r\n9 checks: 0 warnings, 0 failures.\r\n")) << plain;
}

}  // namespace
}  // namespace veerline::testing
