// The built `veerline` handing a profile's environment on: `env` for a shell, `run` for a
// command, `login` for a tool's own sign-in, with fake tools that report what they received.

#include "e2e/temp_home.h"

namespace veerline::testing {
namespace {

using CliRunTest = TempHomeTest;

std::string outcome(const RunResult& result) { return std::to_string(result.exitCode) + " " + result.err; }

TEST_F(CliRunTest, EnvRunAndLoginHandTheProfileOn) {
    const std::string claudeWork = support + "/claude-code/work", codexWork = support + "/codex/work";
    RunResult env = cli({"env", "work"});
    EXPECT_EQ(env.out, "export CLAUDE_CONFIG_DIR='" + claudeWork + "'\nexport CODEX_HOME='" + codexWork +
                           "'\nexport VEERLINE_PROFILE=Work\n") << env.err;
    // The data folders are ready for the variables that name them.
    EXPECT_TRUE(exists(claudeWork) && exists(codexWork + "/config.toml"));
    EXPECT_EQ(cli({"env", "home"}).out, "export VEERLINE_PROFILE='Bob'\\''s Home'\n");
    RunResult shell = run("/bin/sh", {"-c", R"sh(eval "$("$0" env "Bob's home")" && printf '%s|' "$VEERLINE_PROFILE")sh",
                                      VEERLINE_CLI_BINARY}, in(home));
    EXPECT_EQ(shell.out, "Bob's Home|") << shell.err;

    writeFakeTool(tools + "/report");
    RunResult ran = cli({"run", "Work", "--", "report", "a b", "", "--flag"},
                        {{"FOO", "bar"}, {"CLAUDE_CONFIG_DIR", "/old"}, {"VEERLINE_MANAGED_VARS", "CLAUDE_CONFIG_DIR"}});
    FakeToolReport received = parseFakeToolReport(ran.out);
    EXPECT_EQ(received.argv0, "report") << ran.err;
    EXPECT_EQ(received.arguments, (std::vector<std::string>{"a b", "", "--flag"}));
    EXPECT_EQ(received.environment, in(home, {{"CLAUDE_CONFIG_DIR", claudeWork}, {"CODEX_HOME", codexWork}, {"FOO", "bar"},
                                              {"VEERLINE_PROFILE", "Work"}, {"VEERLINE_DISABLE", "1"}}).environment);
    // A system profile: a variable an earlier shim set is dropped, one the user set stays.
    ran = cli({"run", "Bob's Home", "--", "report"},
              {{"CODEX_HOME", "/shim-set"}, {"CLAUDE_CONFIG_DIR", "/mine"}, {"VEERLINE_MANAGED_VARS", "CODEX_HOME"}});
    EXPECT_EQ(parseFakeToolReport(ran.out).environment,
              in(home, {{"CLAUDE_CONFIG_DIR", "/mine"}, {"VEERLINE_PROFILE", "Bob's Home"}, {"VEERLINE_DISABLE", "1"}}).environment);
    EXPECT_EQ(cli({"run", "Work", "--", "sh", "-c", "exit 7"}).exitCode, 7);
    EXPECT_EQ(cli({"run", "Work"}).exitCode, 2);

    // A shim started inside keeps the profile `run` gave, in another profile's folder too; one that
    // sets nothing for claude lets no folder's profile in either.
    for (const auto& [profile, folder] : std::vector<std::pair<std::string, std::string>>{
             {"work", claudeWork}, {"side", support + "/claude-code/side"}, {"home", ""}}) {
        RunResult viaShim = cli({"run", profile, "--", "claude"}, {}, home + "/work/oss");
        received = parseFakeToolReport(viaShim.out);
        EXPECT_EQ(received.argv0 + " " + received.environment["VEERLINE_SHIM_DEPTH"], tools + "/claude 1") << viaShim.err;
        EXPECT_EQ(received.environment["CLAUDE_CONFIG_DIR"], folder) << profile;
    }

    RunResult printed = cli({"login", "Work", "claude", "--print"});
    EXPECT_EQ(printed.out, "env -u CLAUDE_CODE_OAUTH_TOKEN -u ANTHROPIC_API_KEY -u ANTHROPIC_AUTH_TOKEN CLAUDE_CONFIG_DIR='" +
                               claudeWork + "' " + tools + "/claude auth login\n") << printed.err;
    EXPECT_EQ(cli({"login", "Side project", "Codex", "--print"}).out,
              "env CODEX_HOME='" + support + "/codex/side' " + tools + "/codex login\n");
    EXPECT_TRUE(exists(support + "/codex/side/config.toml"));
    EXPECT_EQ(cli({"login", "home", "codex", "--print"}).out, "env -u CODEX_HOME " + tools + "/codex login\n");
    RunResult signIn = cli({"login", "work", "code"}, {{"ANTHROPIC_API_KEY", "sk-x"}, {"KEEP", "1"}});
    received = parseFakeToolReport(signIn.out);
    EXPECT_EQ(received.argv0, tools + "/claude");
    EXPECT_EQ(received.arguments, (std::vector<std::string>{"auth", "login"}));
    EXPECT_EQ(received.environment, in(home, {{"CLAUDE_CONFIG_DIR", claudeWork}, {"KEEP", "1"}}).environment);
    EXPECT_TRUE(signIn.err.starts_with("Signing in to Claude Code for \u201CWork\u201D: env -u ")) << signIn.err;

    for (const auto& [args, path, expected] : std::vector<std::tuple<std::vector<std::string>, std::string, std::string>>{
             {{"run", "Work", "--", "no-such-tool"}, "", "127 veerline: Couldn't run \u201Cno-such-tool\u201D: No such file or directory\n"},
             {{"login", "Work", "desktop"}, "", "1 veerline: Claude Desktop is an app: sign in inside the app, not in the terminal.\n"},
             {{"login", "home", "claude"}, "", "1 veerline: \u201CBob's Home\u201D doesn't use Claude Code. Add it with `veerline profile set "
                                               "'Bob'\\''s Home' --tools ...` first.\n"},
             {{"login", "Work", "claude"}, "/usr/bin:/bin", "1 veerline: Claude Code isn't installed: there's no `claude` on your PATH.\n"}}) {
        EXPECT_EQ(outcome(cli(args, path.empty() ? Variables{} : Variables{{"PATH", path}})), expected);
    }
}

}  // namespace
}  // namespace veerline::testing
