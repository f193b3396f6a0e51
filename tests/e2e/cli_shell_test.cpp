// The built `veerline` installing and removing the shell integration in a temporary HOME, its
// prompt snippets, and how it reports command lines it can't parse.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "support/test_support.h"

namespace veerline::testing {
namespace {

using nlohmann::json;

class CliShellTest : public ::testing::Test {
protected:
    TempDir root{"veerline-cli-shell"};
    std::string home = root / "home";

    void SetUp() override { makeDirs(home); }

    RunResult cli(const std::vector<std::string>& args) const {
        RunOptions options;
        options.environment = {{"HOME", home}, {"PATH", "/usr/bin:/bin"}};
        options.cwd = home;
        return run(VEERLINE_CLI_BINARY, args, options);
    }

    json status() const {
        RunResult result = cli({"shell", "status", "--json"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return json::parse(result.out);
    }
};

TEST_F(CliShellTest, InstallAsksFirstAndRefusesWithoutATerminal) {
    writeFile(home + "/.bashrc", "export A=1");

    RunResult refused = cli({"shell", "install"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err, "veerline: Not changing anything without your confirmation, and there's no terminal to ask "
                           "on. Run `veerline shell install --yes` to go ahead.\n");
    EXPECT_NE(refused.out.find("--- ~/.zshrc (new file)\n+++ ~/.zshrc\n"), std::string::npos) << refused.out;
    EXPECT_NE(refused.out.find("-export A=1\n\\ No newline at end of file\n+export A=1\n+# >>> veerline >>>\n"),
              std::string::npos)
        << refused.out;

    RunResult dryRun = cli({"shell", "install", "--dry-run"});
    EXPECT_EQ(dryRun.exitCode, 0) << dryRun.err;
    EXPECT_TRUE(dryRun.out.ends_with("Nothing was written (--dry-run).\n")) << dryRun.out;

    EXPECT_EQ(readFile(home + "/.bashrc"), "export A=1");
    EXPECT_FALSE(exists(home + "/.zshrc"));
    EXPECT_FALSE(exists(home + "/.veerline"));
}

TEST_F(CliShellTest, InstallThenUninstallRestoresTheStartUpFiles) {
    const std::string bashrc = "# mine\nexport A=1";
    writeFile(home + "/.bashrc", bashrc);
    EXPECT_EQ(status(), json::parse(R"({"isInstalled": false, "binariesInstalled": false, "blocks": [],
                                        "appPath": null, "missingBlocks": []})"));

    RunResult installed = cli({"shell", "install", "--yes"});
    ASSERT_EQ(installed.exitCode, 0) << installed.err;
    EXPECT_TRUE(installed.out.ends_with("Installed. Open a new terminal so that `claude` and `codex` go through "
                                        "Veerline.\n"));

    const std::string libexec = home + "/.veerline/libexec";
    EXPECT_EQ(readFile(libexec + "/veerline-resolve"), readFile(VEERLINE_RESOLVE_BINARY));
    EXPECT_EQ(readFile(libexec + "/veerline"), readFile(VEERLINE_CLI_BINARY));
    EXPECT_EQ(fileMode(libexec + "/veerline") & 0777, 0755u);
    for (const char* name : {"claude", "codex", "veerline"}) {
        std::vector<char> target(256);
        ssize_t length = ::readlink((home + "/.veerline/bin/" + name).c_str(), target.data(), target.size());
        ASSERT_GT(length, 0) << name;
        EXPECT_EQ(std::string(target.data(), static_cast<std::size_t>(length)),
                  std::string("../libexec/") + (std::string(name) == "veerline" ? "veerline" : "veerline-resolve"));
    }
    EXPECT_TRUE(readFile(home + "/.zshrc").starts_with("# >>> veerline >>>\n"));
    EXPECT_TRUE(readFile(home + "/.bashrc").starts_with(bashrc + "\n# >>> veerline >>>\n"));

    EXPECT_EQ(status(), json::parse(R"({"isInstalled": true, "binariesInstalled": true, "appPath": null,
        "missingBlocks": [], "blocks": [
        {"path": ")" + home + R"(/.zshrc", "isLast": true}, {"path": ")" + home + R"(/.bashrc", "isLast": true}]})"));
    RunResult text = cli({"shell", "status"});
    EXPECT_EQ(text.out, "Installed.\nShims in ~/.veerline/bin: in place\n~/.zshrc: block in place\n"
                        "~/.bashrc: block in place\nThis shell's PATH doesn't start with ~/.veerline/bin yet; open a "
                        "new terminal.\n");

    // The installed copy can run the same commands (it finds the resolver beside itself).
    RunOptions inHome;
    inHome.environment = {{"HOME", home}, {"PATH", "/usr/bin:/bin"}};
    inHome.cwd = home;
    RunResult again = run(home + "/.veerline/bin/veerline", {"shell", "install", "--yes"}, inHome);
    ASSERT_EQ(again.exitCode, 0) << again.err;
    EXPECT_NE(again.out.find("Your shell start-up files already hold Veerline's block.\n"), std::string::npos);

    writeFile(home + "/.zshrc", readFile(home + "/.zshrc") + "export PATH=/opt/bin:$PATH\n");
    EXPECT_EQ(status()["blocks"][0]["isLast"], false);
    EXPECT_NE(cli({"shell", "status"}).out.find("~/.zshrc: block in place, but lines after it may put other folders "
                                                "before the shims\n"),
              std::string::npos);

    RunResult removed = cli({"shell", "uninstall", "--yes"});
    ASSERT_EQ(removed.exitCode, 0) << removed.err;
    EXPECT_EQ(readFile(home + "/.bashrc"), bashrc);
    EXPECT_EQ(readFile(home + "/.zshrc"), "export PATH=/opt/bin:$PATH\n") << "the user's own line stays";
    EXPECT_FALSE(exists(home + "/.veerline"));
    EXPECT_EQ(status()["isInstalled"], false);

    EXPECT_EQ(cli({"shell", "uninstall"}).exitCode, 1) << "still asks first without a terminal";
}

TEST_F(CliShellTest, VersionHelpAndUsageErrors) {
    RunResult version = cli({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out, "veerline 0.1.0\n");

    RunResult help = cli({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("Usage: veerline"), std::string::npos);

    RunResult bare = cli({});
    EXPECT_EQ(bare.exitCode, 2);
    EXPECT_NE(bare.err.find("Usage: veerline"), std::string::npos);
    RunResult group = cli({"rule"});
    EXPECT_EQ(group.exitCode, 2);
    EXPECT_NE(group.err.find("Usage: veerline rule"), std::string::npos) << group.err;

    for (auto args : std::vector<std::vector<std::string>>{{"bogus"}, {"profile", "list", "--bogus"}, {"profile", "add"},
                                                            {"rule", "add", "~/x"}}) {
        RunResult result = cli(args);
        EXPECT_EQ(result.exitCode, 2) << args[0];
        EXPECT_TRUE(result.err.starts_with("veerline: ")) << result.err;
        EXPECT_TRUE(result.err.ends_with(" --help` for usage.\n")) << result.err;
    }
    EXPECT_FALSE(exists(home + "/Library")) << "nothing is created by commands that didn't run";
}

}  // namespace
}  // namespace veerline::testing
