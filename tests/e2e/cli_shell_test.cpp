// The built `veerline shell` commands in a temporary HOME: install, status and uninstall as a user
// runs them, then homes that are not what Veerline wrote (links into other folders, pipes where
// files should be, a crafted install record, left-overs of killed runs) and kills at random
// moments. Canary files outside the temporary HOME prove that nothing there is touched. Then what
// Veerline hands to shells, run in real bash, zsh, dash and fish: the managed block, the prompt
// snippets (also checked by shellcheck) and `veerline completion`, where Tab offers commands,
// options, profile names and tools.

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <random>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "build_info.h"
#include "shell/shell_integration.h"
#include "support/folder_entries.h"

namespace veerline::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Args = std::vector<std::string>;

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class CliShellTest : public ::testing::Test {
protected:
    // Spaces and glob characters in the home folder must not confuse the block.
    TempDir root{"veerline-cli-shell"};
    std::string home = root / "h o*me[1]";
    std::string outside = root / "outside";
    std::string runtime = root / "run";
    std::string bin = root / "bin";
    RunOptions options{{{"HOME", home}, {"PATH", bin + ":/usr/bin:/bin"}, {"SHELL", "/bin/bash"},
                        {"XDG_RUNTIME_DIR", runtime}, {"TMPDIR", runtime}, {"TERM", "dumb"}},
                       home, "", std::nullopt, {}};

    void SetUp() override {
        makeDirs(home);
        makeDirs(runtime, 0700);
        makeSymlink(VEERLINE_CLI_BINARY, bin + "/veerline");
        for (const char* file : {"keep", "folder/veerline-resolve", "folder/claude"})
            writeFile(outside + "/" + file, "canary\n");
        ASSERT_EQ(::mkfifo((outside + "/fifo").c_str(), 0600), 0);
    }

    void freshHome(const std::string& zshrc = "# mine\n") {
        removeTree(home);
        writeFile(home + "/.zshrc", zshrc);
    }

    // Bounded by `timeout`: a command that waits on a pipe is killed and shows as exit 124.
    RunResult cli(const Args& args, const std::string& program = VEERLINE_CLI_BINARY, Args timeout = {"60"}) const {
        timeout.push_back(program);
        timeout.insert(timeout.end(), args.begin(), args.end());
        return run("/usr/bin/timeout", timeout, options);
    }

    json status() const {
        RunResult result = cli({"shell", "status", "--json"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return json::parse(result.out);
    }

    // Runs command[0] with the rest as its arguments.
    RunResult shell(Args command) const {
        const std::string program = command[0];
        command.erase(command.begin());
        return cli(command, program);
    }

    // A file in the temporary folder for a shell to source.
    std::string script(const std::string& name, const std::string& text) const {
        writeFile(root / name, text);
        return root / name;
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
    EXPECT_EQ(readFile(home + "/.veerline/libexec/veerline-resolve"), readFile(VEERLINE_RESOLVE_BINARY));
    for (const std::string name : {"claude", "codex", "veerline"}) {
        EXPECT_EQ(fs::read_symlink(home + "/.veerline/bin/" + name).string(),
                  "../libexec/" + (name == "veerline" ? name : "veerline-resolve"));
    }
    EXPECT_EQ(status(), json::parse(R"({"isInstalled": true, "binariesInstalled": true, "appPath": null,
        "missingBlocks": [], "blocks": [
        {"path": ")" + home + R"(/.zshrc", "isLast": true}, {"path": ")" + home + R"(/.bashrc", "isLast": true}]})"));
    EXPECT_EQ(cli({"shell", "status"}).out,
              "Installed.\nShims in ~/.veerline/bin: in place\n~/.zshrc: block in place\n~/.bashrc: block in place\n"
              "This shell's PATH doesn't start with ~/.veerline/bin yet; open a new terminal.\n");

    // An interactive bash reads the block; the installed copy runs the same commands (it finds the
    // resolver beside itself).
    RunResult bash = shell({"/bin/bash", "-i", "-c", "command -v claude"});
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
    EXPECT_EQ(cli({"shell", "uninstall"}).exitCode, 1) << "still asks first without a terminal";
}

// Uninstall takes out Veerline's lines and nothing else, also after the user edited the file and
// installed again; the file comes back byte for byte only when it holds nothing new.
TEST_F(CliShellTest, UninstallKeepsWhatTheUserAddedAcrossInstallsInRealBashAndZsh) {
    const std::string alias = "alias ll='ls -l'\n";
    const std::string zshSnippet = *ShellIntegration::promptSnippet("zsh") + "\n";
    const std::string bashSnippet = *ShellIntegration::promptSnippet("bash") + "\n";
    struct Row {
        std::string name;
        std::string file;                   // below home; its shell reads it in real terminals
        std::optional<std::string> before;  // nothing: the install creates the file
        std::function<std::string(const std::string&)> edit;
        bool installAgain;
        std::string after;
        std::string defined;                // what the shell knows after uninstall, when anything
    };
    auto append = [](std::string text) { return [text](const std::string& file) { return file + text; }; };
    const std::vector<Row> rows = {
        {"alias appended, then installed again", ".zshrc", "# mine\n", append(alias), true, "# mine\n" + alias,
         "ll="},
        {"prompt snippet appended, then installed again", ".zshrc", std::nullopt, append(zshSnippet), true,
         zshSnippet, "_veerline_update"},
        {"alias put above the block, then installed again", ".bashrc", "export A=1",
         [&](const std::string& file) { return alias + file; }, true, alias + "export A=1\n", "ll="},
        {"prompt snippet appended to a file without a final line feed", ".bashrc", "export A=1",
         append(bashSnippet), false, "export A=1\n" + bashSnippet, "_veerline_update"},
        {"nothing added, installed twice", ".bashrc", "export A=1", append(""), true, "export A=1", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        removeTree(home);
        makeDirs(home);
        if (row.before) writeFile(home + "/" + row.file, *row.before);
        const std::string path = home + "/" + row.file;
        const bool zsh = row.file == ".zshrc";
        const std::string probe = std::string("command -v claude; alias ll; ") +
                                  (zsh ? "whence -w _veerline_update" : "declare -F _veerline_update") + "; true";
        const Args interactive = {zsh ? "/bin/zsh" : "/bin/bash", "-i", "-c", probe};

        ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
        writeFile(path, row.edit(readFile(path)));
        if (row.installAgain) {
            ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
        }
        EXPECT_TRUE(shell(interactive).out.starts_with(home + "/.veerline/bin/claude\n"));

        RunResult uninstalled = cli({"shell", "uninstall", "--yes"});
        ASSERT_EQ(uninstalled.exitCode, 0) << uninstalled.err;
        EXPECT_EQ(readFile(path), row.after);
        RunResult after = shell(interactive);
        EXPECT_FALSE(has(after.out, "/.veerline/")) << after.out;
        EXPECT_TRUE(has(after.out, row.defined)) << after.out << after.err;
        EXPECT_TRUE(cli({"shell", "status"}).out.starts_with("Not installed.")) << "right after uninstall";
    }
}

// What `shell status` and the doctor's shim check say, and what they tell the user to do, as the
// setup moves from nothing installed to a terminal that predates the install.
TEST_F(CliShellTest, StatusAndDoctorAdviseWhatFitsTheSetup) {
    writeFile(home + "/.bashrc", "# mine\n");
    auto shimFix = [&] {
        json checks = json::parse(cli({"doctor", "--json"}).out);
        for (const json& check : checks) {
            if (check["id"] == "shim.claude-code") return check.value("fix", std::string());
        }
        return std::string("no shim check");
    };
    EXPECT_TRUE(cli({"shell", "status"}).out.starts_with("Not installed.")) << "nothing was ever installed";
    EXPECT_EQ(shimFix(), "Run `veerline shell install`.") << "the command only: there's no app setting here";

    ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
    EXPECT_EQ(shimFix(), "Open a new terminal: this one started before the shell integration was installed, or "
                         "changed PATH since.")
        << "this terminal's PATH predates the install; the block is last";
    writeFile(home + "/.bashrc", readFile(home + "/.bashrc") + "export PATH=/opt/bin:$PATH\n");
    EXPECT_TRUE(shimFix().starts_with("Move the Veerline block to the end of your shell file"));
}

TEST_F(CliShellTest, VersionHelpAndUsageErrors) {
    // An empty text: a usage error, told on standard error and pointing to --help.
    const std::vector<std::tuple<Args, int, std::string>> cases = {
        {{"--version"}, 0, "veerline " VEERLINE_VERSION " (commit " VEERLINE_COMMIT ")\n"}, {{"--help"}, 0, "Usage: veerline"}, {{}, 2, "Usage: veerline"},
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

    // A command named first is parsed with only its own group of commands built: each one listed
    // must still be found that way.
    std::istringstream listed(cli({"--help"}).out);
    int commands = 0;
    bool inList = false;
    for (std::string line; std::getline(listed, line);) {
        if (line == "Subcommands:") inList = true;
        if (!inList || !line.starts_with("  ")) continue;
        const std::string word = line.substr(2, line.find(' ', 2) - 2);
        RunResult help = cli({word, "--help"});
        EXPECT_EQ(help.exitCode, 0) << word;
        EXPECT_TRUE(has(help.out, "Usage: veerline " + word + " ")) << word << ": " << help.out << help.err;
        ++commands;
    }
    EXPECT_EQ(commands, 16);
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

TEST_F(CliShellTest, LinksPipesAndCraftedRecordsInAHomeNeitherHangNorReachOutsideIt) {
    auto before = treeOf(outside);
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
                EXPECT_TRUE(has(result.err, "~/" + item + ": ") && has(result.err, "isn't a regular file")) << result.err;
            }
        }
        EXPECT_EQ(treeOf(outside), before);
        if (item != ".zshrc") {
            EXPECT_EQ(ShellIntegration::removingBlock(readFile(home + "/.zshrc")), "# mine\n");
        }
    }

    // Crafted or lost records and unclosed blocks lose no lines.
    freshHome();
    ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
    writeFile(outside + "/victim", "victim\n");
    before = treeOf(outside);
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
    EXPECT_EQ(treeOf(outside), before);

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
                if (has(name, "tmp.") || name.starts_with("veerline-diff-")) found.push_back(entry.path());
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
        EXPECT_FALSE(exists(profiles) && json::parse(readFile(profiles), nullptr, false).is_discarded());
    }

    // One more command of each kind sweeps what the killed ones left.
    ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
    ASSERT_EQ(cli({"profile", "add", "Last"}).exitCode, 0);
    EXPECT_EQ(leftOvers(), Args{});
}

TEST_F(CliShellTest, BlockAndPromptSnippetsWorkInRealShellsAndShellcheckAcceptsThem) {
    const std::string block = script("block.sh", ShellIntegration::block());
    const std::string test =
        "PATH=$2; . \"$1\"; printf 'once=%s\\n' \"$PATH\"; printf 'left=%s%s\\n' \"${_vl+_vl}\" \"${_vlp+_vlp}\"; "
        ". \"$1\"; printf 'twice=%s\\n' \"$PATH\"";
    const std::string s = home + "/.veerline/bin";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/usr/bin:/bin", s + ":/usr/bin:/bin"},      {s + ":/usr/bin:/bin", s + ":/usr/bin:/bin"},
        {"/usr/bin:" + s + ":/bin", s + ":/usr/bin:/bin"},
        {s + ":/usr/bin:" + s + ":" + s + ":/bin:" + s, s + ":/usr/bin:/bin"},
        {s, s}, {s + ":" + s, s}, {"", s}, {"/usr/bin::/bin", s + ":/usr/bin::/bin"},
        // Look-alikes of the shim folder stay where they are.
        {s + "2:/x" + s + ":" + s + "/:/usr/bin", s + ":" + s + "2:/x" + s + ":" + s + "/:/usr/bin"},
    };
    for (const Args& interpreter :
         {Args{"/bin/bash", "--norc", "--noprofile"}, Args{"/bin/zsh", "-f"}, Args{"/bin/dash"}}) {
        for (const auto& [path, expected] : cases) {
            SCOPED_TRACE(interpreter[0] + " with PATH " + path);
            // PATH is set inside the shell: zsh replaces an empty PATH it inherits with its own default.
            Args command = interpreter;
            command.insert(command.end(), {"-c", test, "sh", block, path});
            RunResult result = shell(command);
            ASSERT_EQ(result.exitCode, 0) << result.err;
            EXPECT_EQ(result.out, "once=" + expected + "\nleft=\ntwice=" + expected + "\n");
            EXPECT_EQ(result.err, "");
        }
    }

    // The prompt snippets show the profile even with percent signs. A stand-in resolver names the
    // profile after the working folder's last component.
    writeFile(home + "/.veerline/libexec/veerline-resolve", "#!/bin/sh\n[ \"$1\" = --prompt ] && basename \"$PWD\"\n",
              0755);
    const std::string folder = "R&D 100%";
    makeDirs(home + "/" + folder);
    const std::vector<std::tuple<Args, std::string, std::string>> prompts = {
        {{"/bin/bash", "--norc", "--noprofile", "-c",
          "PS1='$ '; PROMPT_COMMAND='echo earlier'; . \"$1\"; cd \"$2\"; eval \"$PROMPT_COMMAND\"; "
          "printf '%s|%s\\n' \"$VEERLINE_PROFILE\" \"${PS1@P}\""},
         "bash", "earlier\n" + folder + "|[" + folder + "] $ \n"},
        {{"/bin/zsh", "-f", "-c",
          "RPROMPT='%%'; . \"$1\"; printf '%s\\n' \"$VEERLINE_PROFILE\"; cd \"$2\"; "
          "printf '%s|' \"$VEERLINE_PROFILE\"; print -rP -- \"$RPROMPT\""},
         "zsh", "h o*me[1]\n" + folder + "|[" + folder + "]%\n"}};
    for (auto [command, name, expected] : prompts) {
        const std::string snippet = script("snippet." + name, *ShellIntegration::promptSnippet(name));
        command.insert(command.end(), {name, snippet, folder});
        RunResult result = shell(command);
        ASSERT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.out, expected);
    }

    const std::string shellcheck = "/usr/bin/shellcheck";
    if (::access(shellcheck.c_str(), X_OK) != 0) GTEST_SKIP() << "shellcheck is not installed";
    const std::string snippet = script("snippet.bash", *ShellIntegration::promptSnippet("bash") + "\n");
    // SC2155: the snippet ignores the resolver's exit status on purpose; a failed look-up just
    // shows no profile.
    for (const Args& check : {Args{shellcheck, "-s", "sh", block}, Args{shellcheck, "-s", "bash", block},
                              Args{shellcheck, "-s", "dash", block},
                              Args{shellcheck, "-s", "bash", "-e", "SC2155", snippet}}) {
        RunResult result = shell(check);
        EXPECT_EQ(result.exitCode, 0) << check[2] << ":\n" << result.out << result.err;
    }
}

TEST_F(CliShellTest, CompletionOffersCommandsOptionsProfilesAndTools) {
    for (const char* name : {"Work", "Bob's Home"}) ASSERT_EQ(cli({"profile", "add", name}).exitCode, 0);
    RunResult bash = shell({"/bin/bash", "--norc", "--noprofile", "-c", R"(
        source <(veerline completion bash) && complete -p veerline
        tab() { COMP_WORDS=("$@"); COMP_CWORD=$(( $# - 1 )); _veerline; printf '<%s>' "${COMPREPLY[@]}"; echo; }
        tab veerline lo; tab veerline login B; tab veerline profile set --co; tab veerline login Work ''
        tab veerline completion z; tab veerline rule add '')"});
    EXPECT_EQ(bash.out, "complete -F _veerline veerline\n<login>\n<Bob\\'s\\ Home>\n<--color>\n<claude><codex>\n<zsh>\n<>\n")
        << bash.err;

    writeFile(home + "/zdot/.zshrc", R"(
        autoload -Uz compinit && compinit -u -d "$ZDOTDIR/.zcompdump"
        source <(veerline completion zsh)
        record() { print -r -- "$BUFFER" >> "$ZDOTDIR/lines"; BUFFER= }
        zle -N record && bindkey '^X' record)");
    // Types each line in an interactive zsh, presses Tab, then ^X, which writes what the line has become.
    RunResult zsh = shell({"/bin/zsh", "-f", "-c", R"(
        zmodload zsh/zpty && export ZDOTDIR=$HOME/zdot && zpty z 'zsh -i'
        for line in 'veerline lo' 'veerline login Wo' 'veerline profile remove Bo' 'veerline login Work co'; do
            zpty -w -n z "$line"$'\t\x18'
        done
        for i in {1..600}; do [[ -f $ZDOTDIR/lines && $(wc -l < $ZDOTDIR/lines) -ge 4 ]] && break; sleep 0.05; done
        zpty -d z; cat $ZDOTDIR/lines)"});
    EXPECT_EQ(zsh.out, "veerline login \nveerline login Work \nveerline profile remove Bob\\'s\\ Home \n"
                       "veerline login Work codex \n")
        << zsh.err;

    if (::access("/usr/bin/fish", X_OK) != 0) GTEST_SKIP() << "fish isn't installed";
    RunResult fish = shell({"/usr/bin/fish", "--no-config", "-c", R"(
        veerline completion fish | source
        complete -C 'veerline pro'; complete -C 'veerline env '; complete -C 'veerline profile add X --tools codex,cha')"});
    EXPECT_EQ(fish.out, "profile\tList, add, rename, change and remove profiles\n"
                        "prompt\tPrint a snippet that shows the profile in your prompt\n"
                        "Bob's Home\nWork\ncodex,chatgpt-app\n")
        << fish.err;
}

}  // namespace
}  // namespace veerline::testing
