// `veerline login` with the tools' own arguments and with an API key, against fake tools that
// answer as the real ones do, and where usage errors send the user.

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace veerline::testing {
namespace {

TEST(CliLoginTest, ToolArgumentsKeysFromStandardInputAndUsageErrors) {
    TempDir root{"veerline-cli-login"};
    std::string home = root / "home", tools = root / "tools", key = "sk-proj-abcdefghij12345";
    makeDirs(home);
    for (const char* name : {"claude", "codex"}) writeFakeTool(tools + "/" + name);
    auto cli = [&](const std::vector<std::string>& args, const std::string& input = "") {
        return run(VEERLINE_CLI_BINARY, args,
                   {{{"HOME", home}, {"PATH", tools + ":/usr/bin:/bin"}}, home, input, std::nullopt, {}});
    };
    std::string id = cli({"profile", "add", "Work", "--tools", "claude,codex"}).out;
    std::string codexHome = home + "/Library/Application Support/Veerline/codex/" + id.substr(0, id.find('\n'));
    std::string codexLogin = "env CODEX_HOME='" + codexHome + "' " + tools + "/codex login";

    // Arguments after `--` go to the sign-in command.
    EXPECT_EQ(cli({"login", "Work", "codex", "--print", "--", "--device-auth"}).out, codexLogin + " --device-auth\n");
    RunResult claude = cli({"login", "Work", "claude", "--", "--console", "--email", "a b@example.com"});
    ASSERT_EQ(claude.exitCode, 0) << claude.err;
    EXPECT_EQ(parseFakeToolReport(claude.out).arguments,
              (std::vector<std::string>{"auth", "login", "--console", "--email", "a b@example.com"}));

    // A Codex that can't reach a keyring says so; the key is neither shown nor kept.
    writeFile(codexHome + "/config.toml", "cli_auth_credentials_store = \"keyring\"\n");
    RunResult failed = cli({"login", "Work", "codex", "--api-key"}, key);
    EXPECT_EQ(failed.exitCode, 1);
    EXPECT_NE(failed.err.find("Error logging in: failed to write OAuth tokens to keyring"), std::string::npos) << failed.err;
    EXPECT_EQ((failed.out + failed.err).find(key), std::string::npos);
    EXPECT_FALSE(exists(codexHome + "/auth.json"));

    // A profile set up by an earlier version, whose starter only works with a keyring, signs in all the same.
    writeFile(codexHome + "/config.toml",
              "# Written by Veerline for this profile. Keeps this profile's Codex login in the\n"
              "# macOS Keychain instead of a plaintext auth.json. Add your own settings below.\n"
              "cli_auth_credentials_store = \"keyring\"\n");
    EXPECT_EQ(cli({"login", "Work", "codex", "--api-key", "--print"}).out, codexLogin + " --with-api-key\n");
    RunResult signIn = cli({"login", "Work", "codex", "--api-key"}, key + "\n");
    ASSERT_EQ(signIn.exitCode, 0) << signIn.err;
    EXPECT_NE(signIn.err.find("API key saved."), std::string::npos) << signIn.err;
    EXPECT_EQ((signIn.out + signIn.err).find(key), std::string::npos) << "the key is never shown";
    EXPECT_NE(readFile(codexHome + "/auth.json").find("\"OPENAI_API_KEY\": \"" + key + "\""), std::string::npos);
    EXPECT_NE(readFile(codexHome + "/config.toml").find("= \"auto\""), std::string::npos);

    auto usage = [](const std::string& command) { return "Run `veerline " + command + " --help` for usage.\n"; };
    const std::string afterDashes = "Options for the other program go after `--`: veerline ";
    const std::vector<std::pair<std::vector<std::string>, std::string>> usageErrors = {
        {{"login", "Work", "codex", "--api-key"}, "veerline: No secret was given on standard input.\n" + usage("login")},
        {{"login", "Work"}, "veerline: tool is required\n" + usage("login")},
        {{"login", "Work", "cursor"}, usage("login")},
        {{"profile", "set", "Work", "--color", "red"}, usage("profile set")},
        {{"run", "Work", "claude", "--version"}, afterDashes + "run Work -- claude --version\n" + usage("run")},
        {{"login", "Work", "codex", "--print", "--device-auth"},
         afterDashes + "login Work codex --print -- --device-auth\n" + usage("login")}};
    for (const auto& [args, ending] : usageErrors) {
        RunResult result = cli(args);
        EXPECT_EQ(result.exitCode, 2) << args.back();
        EXPECT_TRUE(result.err.ends_with(ending)) << result.err;
    }
}

}  // namespace
}  // namespace veerline::testing
