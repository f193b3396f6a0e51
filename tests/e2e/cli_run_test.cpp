// The built `veerline` handing a profile's environment on: `env` for a shell, `run` for a
// command, `login` for a tool's own sign-in, with fake tools that report what they received.

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace veerline::testing {
namespace {

class CliRunTest : public ::testing::Test {
protected:
    TempDir root{"veerline-cli-run"};
    std::string home = root / "home";
    std::string tools = root / "tools";
    std::string support = home + "/Library/Application Support/Veerline";
    std::string work;
    std::string personal;

    void SetUp() override {
        makeDirs(home);
        makeDirs(tools);
        work = add({"Work", "--tools", "claude,codex"});
        personal = add({"Bob's Home", "--tools", "codex", "--storage", "system"});
    }

    std::map<std::string, std::string> baseEnv() const {
        return {{"HOME", home}, {"PATH", tools + ":/usr/bin:/bin"}};
    }

    RunResult cli(const std::vector<std::string>& args, const std::map<std::string, std::string>& extra = {},
                  const std::optional<std::string>& cwd = std::nullopt) const {
        RunOptions options;
        options.environment = baseEnv();
        for (const auto& [name, value] : extra) options.environment[name] = value;
        options.cwd = cwd.value_or(home);
        return run(VEERLINE_CLI_BINARY, args, options);
    }

    std::string add(std::vector<std::string> args) const {
        args.insert(args.begin(), {"profile", "add"});
        RunResult result = cli(args);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return result.out.substr(0, result.out.find('\n'));
    }

    std::string claudeData(const std::string& id) const { return support + "/claude-code/" + id; }
    std::string codexData(const std::string& id) const { return support + "/codex/" + id; }
};

TEST_F(CliRunTest, EnvPrintsQuotedExportsThatAShellReadsBack) {
    RunResult env = cli({"env", "work"});
    ASSERT_EQ(env.exitCode, 0) << env.err;
    EXPECT_EQ(env.out, "export CLAUDE_CONFIG_DIR='" + claudeData(work) + "'\n" +
                           "export CODEX_HOME='" + codexData(work) + "'\n" +
                           "export VEERLINE_PROFILE=Work\n");
    EXPECT_TRUE(exists(claudeData(work))) << "data folders are ready for the variables that name them";
    EXPECT_TRUE(exists(codexData(work) + "/config.toml"));

    RunResult system = cli({"env", personal});
    EXPECT_EQ(system.out, "export VEERLINE_PROFILE='Bob'\\''s Home'\n");

    RunOptions inHome;
    inHome.environment = baseEnv();
    inHome.cwd = home;
    RunResult shell = run("/bin/sh", {"-c", "eval \"$(\"$0\" env \"Bob's home\")\" && printf '%s|' \"$VEERLINE_PROFILE\"",
                                      VEERLINE_CLI_BINARY},
                          inHome);
    EXPECT_EQ(shell.out, "Bob's Home|") << shell.err;
}

TEST_F(CliRunTest, RunHandsTheProfileToTheCommand) {
    writeFakeTool(tools + "/report");
    RunResult result = cli({"run", "Work", "--", "report", "a b", "", "--flag"},
                           {{"FOO", "bar"}, {"CLAUDE_CONFIG_DIR", "/old"}, {"VEERLINE_MANAGED_VARS", "CLAUDE_CONFIG_DIR"}});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    FakeToolReport report = parseFakeToolReport(result.out);
    EXPECT_EQ(report.argv0, "report");
    EXPECT_EQ(report.arguments, (std::vector<std::string>{"a b", "", "--flag"}));
    EXPECT_EQ(report.environment["CLAUDE_CONFIG_DIR"], claudeData(work));
    EXPECT_EQ(report.environment["CODEX_HOME"], codexData(work));
    EXPECT_EQ(report.environment["VEERLINE_PROFILE"], "Work");
    EXPECT_EQ(report.environment["VEERLINE_DISABLE"], "1");
    EXPECT_EQ(report.environment["FOO"], "bar");
    EXPECT_EQ(report.environment.count("VEERLINE_MANAGED_VARS"), 0u);

    // A system profile: a variable an earlier shim set is dropped, one the user set stays.
    RunResult system = cli({"run", "Bob's Home", "--", "report"},
                           {{"CODEX_HOME", "/shim-set"}, {"CLAUDE_CONFIG_DIR", "/mine"}, {"VEERLINE_MANAGED_VARS", "CODEX_HOME"}});
    ASSERT_EQ(system.exitCode, 0) << system.err;
    FakeToolReport systemReport = parseFakeToolReport(system.out);
    EXPECT_EQ(systemReport.environment.count("CODEX_HOME"), 0u);
    EXPECT_EQ(systemReport.environment["CLAUDE_CONFIG_DIR"], "/mine");
    EXPECT_EQ(systemReport.environment["VEERLINE_PROFILE"], "Bob's Home");

    EXPECT_EQ(cli({"run", "Work", "--", "sh", "-c", "exit 7"}).exitCode, 7);
    RunResult missing = cli({"run", "Work", "--", "no-such-tool"});
    EXPECT_EQ(missing.exitCode, 127);
    EXPECT_EQ(missing.err, "veerline: Couldn't run \u201Cno-such-tool\u201D: No such file or directory\n");
    EXPECT_EQ(cli({"run", "Work"}).exitCode, 2);
}

TEST_F(CliRunTest, RunKeepsItsProfileThroughAShimInAnotherProfilesFolder) {
    std::string shims = home + "/.veerline/bin";
    makeSymlink(VEERLINE_RESOLVE_BINARY, shims + "/claude");
    writeFakeTool(tools + "/claude");
    std::string other = add({"Other"});
    makeDirs(home + "/other");
    ASSERT_EQ(cli({"rule", "add", "~/other", "Other"}).exitCode, 0);

    auto env = baseEnv();
    env["PATH"] = shims + ":" + env["PATH"];
    RunResult viaShim = cli({"run", "work", "--", "claude"}, env, home + "/other");
    ASSERT_EQ(viaShim.exitCode, 0) << viaShim.err;
    FakeToolReport report = parseFakeToolReport(viaShim.out);
    EXPECT_EQ(report.argv0, tools + "/claude") << "the shim found the real tool";
    EXPECT_EQ(report.environment["VEERLINE_SHIM_DEPTH"], "1");
    EXPECT_EQ(report.environment["CLAUDE_CONFIG_DIR"], claudeData(work));

    RunResult plain = cli({"run", "other", "--", "claude"}, env, home + "/other");
    EXPECT_EQ(parseFakeToolReport(plain.out).environment["CLAUDE_CONFIG_DIR"], claudeData(other));

    // A profile that sets nothing for claude must not let the folder's profile in either.
    RunResult system = cli({"run", personal, "--", "claude"}, env, home + "/other");
    ASSERT_EQ(system.exitCode, 0) << system.err;
    EXPECT_EQ(parseFakeToolReport(system.out).environment.count("CLAUDE_CONFIG_DIR"), 0u);
}

TEST_F(CliRunTest, LoginRunsOrPrintsTheToolsSignInCommand) {
    writeFakeTool(tools + "/claude");
    writeFakeTool(tools + "/codex");

    RunResult printed = cli({"login", "Work", "claude", "--print"});
    ASSERT_EQ(printed.exitCode, 0) << printed.err;
    EXPECT_EQ(printed.out, "env -u CLAUDE_CODE_OAUTH_TOKEN -u ANTHROPIC_API_KEY -u ANTHROPIC_AUTH_TOKEN "
                           "CLAUDE_CONFIG_DIR='" + claudeData(work) + "' " + tools + "/claude auth login\n");
    EXPECT_EQ(cli({"login", "Work", "Codex", "--print"}).out,
              "env CODEX_HOME='" + codexData(work) + "' " + tools + "/codex login\n");
    EXPECT_TRUE(exists(codexData(work) + "/config.toml"));
    EXPECT_EQ(cli({"login", personal, "codex", "--print"}).out, "env -u CODEX_HOME " + tools + "/codex login\n");

    RunResult signIn = cli({"login", "work", "code"}, {{"ANTHROPIC_API_KEY", "sk-x"}, {"KEEP", "1"}});
    ASSERT_EQ(signIn.exitCode, 0) << signIn.err;
    FakeToolReport report = parseFakeToolReport(signIn.out);
    EXPECT_EQ(report.argv0, tools + "/claude");
    EXPECT_EQ(report.arguments, (std::vector<std::string>{"auth", "login"}));
    EXPECT_EQ(report.environment["CLAUDE_CONFIG_DIR"], claudeData(work));
    EXPECT_EQ(report.environment.count("ANTHROPIC_API_KEY"), 0u);
    EXPECT_EQ(report.environment["KEEP"], "1");
    EXPECT_TRUE(signIn.err.starts_with("Signing in to Claude Code for \u201CWork\u201D: env -u ")) << signIn.err;

    RunResult app = cli({"login", "Work", "desktop"});
    EXPECT_EQ(app.exitCode, 1);
    EXPECT_EQ(app.err, "veerline: Claude Desktop is an app: sign in inside the app, not in the terminal.\n");
    RunResult unused = cli({"login", personal, "claude"});
    EXPECT_EQ(unused.exitCode, 1);
    EXPECT_EQ(unused.err, "veerline: \u201CBob's Home\u201D doesn't use Claude Code. Add it with `veerline profile set "
                          "'Bob'\\''s Home' --tools ...` first.\n");
    EXPECT_EQ(cli({"login", "Work", "cursor"}).exitCode, 2);

    RunResult notInstalled = cli({"login", "Work", "claude"}, {{"PATH", "/usr/bin:/bin"}});
    EXPECT_EQ(notInstalled.exitCode, 1);
    EXPECT_EQ(notInstalled.err, "veerline: Claude Code isn't installed: there's no `claude` on your PATH.\n");
}

}  // namespace
}  // namespace veerline::testing
