// The built `veerline shell` commands in a temporary HOME: install, status and uninstall as a user
// runs them, then homes that are not what Veerline wrote (links into other folders, pipes where
// files should be, a crafted install record, left-overs of killed runs) and kills at random
// moments. Canary files outside the temporary HOME prove that nothing there is touched.

#include <sys/stat.h>

#include <filesystem>
#include <random>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "shell/shell_integration.h"
#include "support/test_support.h"

namespace veerline::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Args = std::vector<std::string>;

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Every item below `folder`, links not followed, with the contents of regular files.
std::map<std::string, std::string> snapshot(const std::string& folder) {
    std::map<std::string, std::string> items;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        const auto type = entry.symlink_status().type();
        items[entry.path()] = type == fs::file_type::regular ? readFile(entry.path()) : std::to_string(int(type));
    }
    return items;
}

class CliShellTest : public ::testing::Test {
protected:
    TempDir root{"veerline-cli-shell"};
    std::string home = root / "home";
    std::string outside = root / "outside";
    std::string runtime = root / "run";
    RunOptions options{{{"HOME", home}, {"PATH", "/usr/bin:/bin"}, {"SHELL", "/bin/bash"},
                        {"XDG_RUNTIME_DIR", runtime}, {"TMPDIR", runtime}},
                       home, "", std::nullopt, {}};

    void SetUp() override {
        makeDirs(home);
        makeDirs(runtime, 0700);
        writeFile(outside + "/keep", "canary\n");
        writeFile(outside + "/folder/veerline-resolve", "canary\n");
        writeFile(outside + "/folder/claude", "canary\n");
        ASSERT_EQ(::mkfifo((outside + "/fifo").c_str(), 0600), 0);
    }

    void freshHome(const std::string& zshrc = "# mine\n") {
        removeTree(home);
        writeFile(home + "/.zshrc", zshrc);
    }

    // Bounded by `timeout`: a command that waits on a pipe is killed and shows as exit 124.
    RunResult cli(const Args& args, const std::string& program = VEERLINE_CLI_BINARY, Args timeout = {"20"}) const {
        timeout.push_back(program);
        timeout.insert(timeout.end(), args.begin(), args.end());
        return run("/usr/bin/timeout", timeout, options);
    }

    json status() const {
        RunResult result = cli({"shell", "status", "--json"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return json::parse(result.out);
    }
};

TEST_F(CliShellTest, InstallAsksFirstAndUninstallRestoresTheStartUpFiles) {
    const std::string bashrc = "# mine\nexport A=1";
    writeFile(home + "/.bashrc", bashrc);
    EXPECT_EQ(status(), json::parse(R"({"isInstalled": false, "binariesInstalled": false, "blocks": [],
                                        "appPath": null, "missingBlocks": [")" + home + R"(/.bashrc"]})"));
    RunResult refused = cli({"shell", "install"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err, "veerline: Not changing anything without your confirmation, and there's no terminal to ask "
                           "on. Run `veerline shell install --yes` to go ahead.\n");
    EXPECT_TRUE(has(refused.out, "--- ~/.zshrc (new file)\n+++ ~/.zshrc\n")) << refused.out;
    EXPECT_TRUE(has(refused.out, "-export A=1\n\\ No newline at end of file\n+export A=1\n+# >>> veerline >>>\n"));
    RunResult dryRun = cli({"shell", "install", "--dry-run"});
    EXPECT_EQ(dryRun.exitCode, 0) << dryRun.err;
    EXPECT_TRUE(dryRun.out.ends_with("Nothing was written (--dry-run).\n")) << dryRun.out;
    EXPECT_EQ(readFile(home + "/.bashrc"), bashrc);
    EXPECT_FALSE(exists(home + "/.zshrc") || exists(home + "/.veerline"));

    RunResult installed = cli({"shell", "install", "--yes"});
    ASSERT_EQ(installed.exitCode, 0) << installed.err;
    EXPECT_TRUE(installed.out.ends_with("Installed. Open a new terminal so that `claude` and `codex` go through "
                                        "Veerline.\n"));
    const std::string libexec = home + "/.veerline/libexec";
    EXPECT_EQ(readFile(libexec + "/veerline-resolve"), readFile(VEERLINE_RESOLVE_BINARY));
    EXPECT_EQ(readFile(libexec + "/veerline"), readFile(VEERLINE_CLI_BINARY));
    EXPECT_EQ(fileMode(libexec + "/veerline") & 0777, 0755u);
    for (const std::string name : {"claude", "codex", "veerline"}) {
        EXPECT_EQ(fs::read_symlink(home + "/.veerline/bin/" + name).string(),
                  "../libexec/" + (name == "veerline" ? name : "veerline-resolve"));
    }
    EXPECT_TRUE(readFile(home + "/.zshrc").starts_with("# >>> veerline >>>\n"));
    EXPECT_TRUE(readFile(home + "/.bashrc").starts_with(bashrc + "\n# >>> veerline >>>\n"));
    EXPECT_EQ(status(), json::parse(R"({"isInstalled": true, "binariesInstalled": true, "appPath": null,
        "missingBlocks": [], "blocks": [
        {"path": ")" + home + R"(/.zshrc", "isLast": true}, {"path": ")" + home + R"(/.bashrc", "isLast": true}]})"));
    EXPECT_EQ(cli({"shell", "status"}).out,
              "Installed.\nShims in ~/.veerline/bin: in place\n~/.zshrc: block in place\n~/.bashrc: block in place\n"
              "This shell's PATH doesn't start with ~/.veerline/bin yet; open a new terminal.\n");

    // An interactive bash reads the block; the installed copy runs the same commands (it finds the
    // resolver beside itself).
    RunResult bash = run("/bin/bash", {"-i", "-c", "command -v claude"}, options);
    EXPECT_EQ(bash.out, home + "/.veerline/bin/claude\n") << bash.err;
    RunResult again = cli({"shell", "install", "--yes"}, home + "/.veerline/bin/veerline");
    ASSERT_EQ(again.exitCode, 0) << again.err;
    EXPECT_TRUE(has(again.out, "Your shell start-up files already hold Veerline's block.\n"));

    const std::string installedBashrc = readFile(home + "/.bashrc");
    writeFile(home + "/.bashrc", "# mine\n");
    RunResult partly = cli({"shell", "status"});
    EXPECT_TRUE(partly.out.starts_with("Partly installed.")) << partly.out;
    EXPECT_TRUE(has(partly.out, "~/.bashrc: no block, and your shell reads this file\n")) << partly.out;
    writeFile(home + "/.bashrc", installedBashrc);
    writeFile(home + "/.zshrc", readFile(home + "/.zshrc") + "export PATH=/opt/bin:$PATH\n");
    EXPECT_EQ(status()["blocks"][0]["isLast"], false);
    EXPECT_TRUE(has(cli({"shell", "status"}).out,
                    "~/.zshrc: block in place, but lines after it may put other folders before the shims\n"));

    ASSERT_EQ(cli({"shell", "uninstall", "--yes"}).exitCode, 0);
    EXPECT_EQ(readFile(home + "/.bashrc"), bashrc);
    EXPECT_EQ(readFile(home + "/.zshrc"), "export PATH=/opt/bin:$PATH\n") << "the user's own line stays";
    EXPECT_FALSE(exists(home + "/.veerline"));
    EXPECT_EQ(status()["isInstalled"], false);
    EXPECT_EQ(cli({"shell", "uninstall"}).exitCode, 1) << "still asks first without a terminal";
}

TEST_F(CliShellTest, VersionHelpAndUsageErrors) {
    // An empty text: a usage error, told on standard error and pointing to --help.
    const std::vector<std::tuple<Args, int, std::string>> cases = {
        {{"--version"}, 0, "veerline 0.1.0\n"}, {{"--help"}, 0, "Usage: veerline"}, {{}, 2, "Usage: veerline"},
        {{"rule"}, 2, "Usage: veerline rule"}, {{"bogus"}, 2, ""}, {{"profile", "list", "--bogus"}, 2, ""},
        {{"profile", "add"}, 2, ""}, {{"rule", "add", "~/x"}, 2, ""}};
    for (const auto& [args, exitCode, text] : cases) {
        RunResult result = cli(args);
        SCOPED_TRACE(result.out + result.err);
        EXPECT_EQ(result.exitCode, exitCode);
        EXPECT_TRUE(text.empty() ? result.err.starts_with("veerline: ") && result.err.ends_with(" --help` for usage.\n")
                                 : has(exitCode ? result.err : result.out, text));
    }
    EXPECT_FALSE(exists(home + "/Library")) << "nothing is created by commands that didn't run";
}

TEST_F(CliShellTest, LinkToNothingComesBackBackupsStayPrivateAndLeftOversAreSweptUp) {
    const std::string destination = root / "dotfiles/zshrc";
    makeSymlink(destination, home + "/.zshrc");
    writeFile(home + "/.bashrc", "export TOKEN=1\n", 0600);
    ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
    EXPECT_EQ(readFile(home + "/.zshrc"), ShellIntegration::block());
    const std::string backups = home + "/.veerline/backups";
    EXPECT_EQ(fileMode(backups) & 0777, 0700u);
    for (const auto& entry : fs::directory_iterator(backups)) {
        const std::string name = entry.path().filename();
        EXPECT_TRUE(name.starts_with("bashrc.") ? (fileMode(entry.path()) & 0777) == 0600
                                                : name.starts_with("zshrc.") && entry.is_symlink())
            << name;
    }

    // What killed runs leave; no process has this id.
    const std::string dead = "2147483647";
    writeFile(home + "/.veerline/libexec/veerline-resolve.tmp." + dead, "half");
    writeFile(home + "/..zshrc.veerline-tmp." + dead, "half");
    writeFile(runtime + "/veerline-diff-" + dead + "-Ab12Cd/a", "# mine\n");
    ASSERT_EQ(cli({"shell", "uninstall", "--yes"}).exitCode, 0);
    EXPECT_EQ(fs::read_symlink(home + "/.zshrc").string(), destination);
    EXPECT_EQ(readFile(home + "/.bashrc"), "export TOKEN=1\n");
    EXPECT_EQ(fileMode(home + "/.bashrc") & 0777, 0600u);
    EXPECT_FALSE(exists(home + "/.veerline") || exists(home + "/..zshrc.veerline-tmp." + dead));
    EXPECT_TRUE(fs::is_empty(runtime));
}

TEST_F(CliShellTest, LinksAndPipesInAHomeNeitherHangNorReachOutsideIt) {
    const auto before = snapshot(outside);
    // A link into another folder, or a pipe (no target), where a file or folder should be.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {".veerline/backups", outside + "/folder"}, {".veerline/libexec", outside + "/folder"},
        {".veerline/bin", outside + "/folder"},     {".veerline/install.json", outside + "/keep"},
        {".veerline/app-path", outside + "/keep"},  {".bashrc", outside + "/fifo"},
        {".zshrc", ""}, {".bashrc", ""}, {".veerline/install.json", ""}, {".veerline/app-path", ""}};
    for (const auto& [item, target] : cases) {
        SCOPED_TRACE(item + " -> " + target);
        freshHome();
        ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
        removeTree(home + "/" + item);
        if (target.empty()) {
            ASSERT_EQ(::mkfifo((home + "/" + item).c_str(), 0600), 0);
        } else {
            makeSymlink(target, home + "/" + item);
        }
        for (const Args& command : {Args{"shell", "install", "--yes"}, Args{"shell", "install", "--dry-run"},
                                    Args{"shell", "status"}, Args{"shell", "uninstall", "--yes"}}) {
            RunResult result = cli(command);
            EXPECT_NE(result.exitCode, 124) << command.back();
            if (command[1] == "install" && !item.starts_with(".veerline")) {
                EXPECT_EQ(result.exitCode, 1) << command.back();
                EXPECT_TRUE(has(result.err, "~/" + item + ": It isn't a regular file")) << result.err;
            }
        }
        EXPECT_EQ(snapshot(outside), before);
        const std::string zshrc = item == ".zshrc" ? "" : ShellIntegration::removingBlock(readFile(home + "/.zshrc"));
        EXPECT_EQ(zshrc, item == ".zshrc" ? "" : "# mine\n");
    }
}

TEST_F(CliShellTest, CraftedOrLostRecordsAndUnclosedBlocksLoseNoLines) {
    freshHome();
    ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
    writeFile(outside + "/victim", "victim\n");
    const auto before = snapshot(outside);
    // A file outside HOME, and backups outside the backups folder, each as the install left it.
    json crafted = {{"version", 1}, {"files", json::array()}};
    for (const std::string& path : {outside + "/victim", home + "/.zshrc", home + "/.bashrc"}) {
        crafted["files"].push_back({{"path", path}, {"existedBefore", true}, {"addedNewline", false},
                                    {"installedSHA256", ShellIntegration::sha256(readFile(path))}});
    }
    crafted["files"][0]["existedBefore"] = false;
    crafted["files"][1]["backupPath"] = outside + "/keep";
    crafted["files"][2]["backupPath"] = home + "/.veerline/backups/../../../outside/keep";
    writeFile(home + "/.veerline/install.json", crafted.dump());
    ASSERT_EQ(cli({"shell", "uninstall", "--yes"}).exitCode, 0);
    EXPECT_EQ(readFile(home + "/.zshrc"), "# mine\n");
    EXPECT_EQ(readFile(home + "/.bashrc"), "");
    EXPECT_EQ(snapshot(outside), before);

    freshHome("export A=1\n");
    ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
    fs::remove(home + "/.veerline/install.json");
    ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
    ASSERT_EQ(cli({"shell", "uninstall", "--yes"}).exitCode, 0);
    EXPECT_EQ(readFile(home + "/.zshrc"), "export A=1\n");

    freshHome("# >>> veerline >>>\nexport IMPORTANT=1\n");
    RunResult refused = cli({"shell", "install", "--yes"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err, "veerline: Couldn't add the block to ~/.zshrc: line 1 opens a block (\u201C# >>> veerline "
                           ">>>\u201D) that no \u201C# <<< veerline <<<\u201D line closes. Close or remove it, then "
                           "try again.\n");
    EXPECT_EQ(readFile(home + "/.zshrc"), "# >>> veerline >>>\nexport IMPORTANT=1\n");
    EXPECT_FALSE(exists(home + "/.bashrc") || exists(home + "/.veerline"));
}

TEST_F(CliShellTest, KillsAtRandomMomentsLeaveValidFilesAndNoLeftOvers) {
    const std::string zshrc = "# mine\nexport A=1\n", bashrc = "export B=2";
    freshHome(zshrc);
    writeFile(home + "/.bashrc", bashrc);
    const std::string profiles = home + "/Library/Application Support/Veerline/profiles.json";
    // What the commands leave behind: the shell commands' files and previews, the profile saves'.
    auto leftOvers = [&] {
        Args found;
        for (const std::string& folder : {home, runtime}) {
            for (const auto& entry : fs::recursive_directory_iterator(folder)) {
                const std::string name = entry.path().filename();
                if (has(name, ".tmp.") || has(name, "veerline-tmp") || name.starts_with("veerline-diff-")) {
                    found.push_back(entry.path());
                }
            }
        }
        return found;
    };
    const std::vector<Args> commands = {{"shell", "install", "--yes"}, {"shell", "uninstall", "--yes"},
                                        {"profile", "add", "Work"}};
    std::mt19937 random(20261123);
    for (int round = 0; round < 36; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Args command = commands[random() % commands.size()];
        if (command[0] == "profile") command.back() += std::to_string(round);
        const Args earlier = leftOvers();
        // An interrupt removes the command's own temporary files; a kill leaves them for later.
        const bool interrupt = round % 3 == 0 && command[0] == "shell";
        // Only the command is signalled: a killed `timeout` would leave it unreaped.
        const std::string delay = std::to_string((random() % 40000 + 1) / 1e6);
        cli(command, VEERLINE_CLI_BINARY, {"--foreground", "-s", interrupt ? "TERM" : "KILL", delay});
        for (const std::string& path : interrupt ? leftOvers() : Args{}) {
            EXPECT_NE(std::find(earlier.begin(), earlier.end(), path), earlier.end()) << path;
        }
        for (const auto& [name, original] : {std::pair{"/.zshrc", zshrc}, std::pair{"/.bashrc", bashrc}}) {
            const std::string text = readFile(home + name);
            EXPECT_EQ(ShellIntegration::unclosedBlockLine(text), std::nullopt) << name;
            const std::string without = ShellIntegration::removingBlock(text);
            EXPECT_TRUE(without == original || without == original + "\n") << name;
        }
        if (exists(profiles)) {
            EXPECT_FALSE(json::parse(readFile(profiles), nullptr, false).is_discarded());
        }
    }

    // One more command of each kind sweeps what the killed ones left.
    ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
    ASSERT_EQ(cli({"profile", "add", "Last"}).exitCode, 0);
    EXPECT_EQ(leftOvers(), Args{});
}

}  // namespace
}  // namespace veerline::testing
