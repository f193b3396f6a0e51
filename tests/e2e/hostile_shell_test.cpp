// The built `veerline shell` commands against homes that are not what Veerline wrote: links into
// other folders, pipes where files should be, a crafted install record, left-overs of killed
// runs, and kills at random moments. Canary files outside the temporary HOME prove that nothing
// there is touched.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "shell/shell_integration.h"
#include "support/test_support.h"

namespace veerline::testing {
namespace {

namespace fs = std::filesystem;

class HostileShellTest : public ::testing::Test {
protected:
    TempDir root{"veerline-hostile"};
    std::string home = root / "home";
    std::string outside = root / "outside";
    std::string runtime = root / "run";

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
        makeDirs(home);
        writeFile(home + "/.zshrc", zshrc);
    }

    std::map<std::string, std::string> environment() const {
        return {{"HOME", home}, {"PATH", "/usr/bin:/bin"}, {"SHELL", "/bin/bash"},
                {"XDG_RUNTIME_DIR", runtime}, {"TMPDIR", runtime}};
    }

    // Bounded: a command that waits on a pipe is killed and shows as exit 124.
    RunResult cli(const std::vector<std::string>& args) const {
        RunOptions options;
        options.environment = environment();
        options.cwd = home;
        std::vector<std::string> all = {"20", VEERLINE_CLI_BINARY};
        all.insert(all.end(), args.begin(), args.end());
        return run("/usr/bin/timeout", all, options);
    }

    // Every item below `folder`, links not followed, with the contents of regular files.
    static std::map<std::string, std::string> snapshot(const std::string& folder) {
        std::map<std::string, std::string> items;
        for (const auto& entry : fs::recursive_directory_iterator(folder)) {
            const auto type = entry.symlink_status().type();
            items[entry.path().string()] = type == fs::file_type::regular ? readFile(entry.path().string())
                                                                          : std::to_string(static_cast<int>(type));
        }
        return items;
    }
};

TEST_F(HostileShellTest, BashOnlyHomeGetsItsBlockAndStatusSaysWhenItIsMissing) {
    RunResult installed = cli({"shell", "install", "--yes"});
    ASSERT_EQ(installed.exitCode, 0) << installed.err;
    EXPECT_EQ(readFile(home + "/.bashrc"), ShellIntegration::block());

    RunOptions options;
    options.environment = environment();
    options.cwd = home;
    RunResult bash = run("/bin/bash", {"-i", "-c", "command -v claude"}, options);
    EXPECT_EQ(bash.out, home + "/.veerline/bin/claude\n") << bash.err;

    writeFile(home + "/.bashrc", "# mine\n");
    RunResult status = cli({"shell", "status"});
    EXPECT_TRUE(status.out.starts_with("Partly installed.")) << status.out;
    EXPECT_NE(status.out.find("~/.bashrc: no block, and your shell reads this file\n"), std::string::npos);
}

TEST_F(HostileShellTest, LinkToNothingComesBackAndBackupsStayPrivate) {
    const std::string destination = root / "dotfiles/zshrc";
    makeSymlink(destination, home + "/.zshrc");
    writeFile(home + "/.bashrc", "export TOKEN=1\n", 0600);

    ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
    EXPECT_EQ(readFile(home + "/.zshrc"), ShellIntegration::block());
    const std::string backups = home + "/.veerline/backups";
    EXPECT_EQ(fileMode(backups) & 0777, 0700u);
    for (const auto& entry : fs::directory_iterator(backups)) {
        std::string name = entry.path().filename().string();
        if (name.starts_with("bashrc.")) {
            EXPECT_EQ(fileMode(entry.path().string()) & 0777, 0600u);
        } else {
            EXPECT_TRUE(name.starts_with("zshrc.") && entry.is_symlink()) << name;
        }
    }

    ASSERT_EQ(cli({"shell", "uninstall", "--yes"}).exitCode, 0);
    EXPECT_EQ(fs::read_symlink(home + "/.zshrc").string(), destination);
    EXPECT_EQ(readFile(home + "/.bashrc"), "export TOKEN=1\n");
    EXPECT_EQ(fileMode(home + "/.bashrc") & 0777, 0600u);
}

TEST_F(HostileShellTest, LinksIntoOtherFoldersAreNeverWrittenOrDeletedThrough) {
    const auto before = snapshot(outside);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {".veerline/backups", outside + "/folder"},   {".veerline/libexec", outside + "/folder"},
        {".veerline/bin", outside + "/folder"},       {".veerline/install.json", outside + "/keep"},
        {".veerline/app-path", outside + "/keep"},    {".bashrc", outside + "/fifo"},
    };
    for (const auto& [item, target] : cases) {
        freshHome();
        ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0) << item;
        removeTree(home + "/" + item);
        makeSymlink(target, home + "/" + item);
        RunResult install = cli({"shell", "install", "--yes"});
        EXPECT_NE(install.exitCode, 124) << item;
        if (item == ".bashrc") {
            EXPECT_EQ(install.exitCode, 1) << target;
            EXPECT_NE(install.err.find("~/.bashrc: It isn't a regular file"), std::string::npos) << install.err;
        }
        EXPECT_NE(cli({"shell", "uninstall", "--yes"}).exitCode, 124) << item;
        EXPECT_EQ(snapshot(outside), before) << item;
        EXPECT_EQ(ShellIntegration::removingBlock(readFile(home + "/.zshrc")), "# mine\n") << item;
    }
}

TEST_F(HostileShellTest, CraftedInstallRecordIsIgnored) {
    freshHome();
    ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
    writeFile(outside + "/victim", "victim\n");
    const auto before = snapshot(outside);
    auto record = [](const std::string& path, bool existed, const std::string& backup, const std::string& hash) {
        nlohmann::json file = {{"path", path}, {"existedBefore", existed}, {"addedNewline", false},
                               {"installedSHA256", hash}};
        if (!backup.empty()) file["backupPath"] = backup;
        return file;
    };
    const std::string installed = ShellIntegration::sha256(readFile(home + "/.zshrc"));
    nlohmann::json crafted = {
        {"version", 1},
        {"files",
         {record(outside + "/victim", false, "", ShellIntegration::sha256("victim\n")),
          record(home + "/.zshrc", true, outside + "/keep", installed),
          record(home + "/.bashrc", true, home + "/.veerline/backups/../../../outside/keep",
                 ShellIntegration::sha256(readFile(home + "/.bashrc")))}}};
    writeFile(home + "/.veerline/install.json", crafted.dump());

    RunResult removed = cli({"shell", "uninstall", "--yes"});
    ASSERT_EQ(removed.exitCode, 0) << removed.err;
    EXPECT_EQ(readFile(home + "/.zshrc"), "# mine\n");
    EXPECT_EQ(readFile(home + "/.bashrc"), "");
    EXPECT_EQ(snapshot(outside), before);
}

TEST_F(HostileShellTest, PipesWhereFilesBelongNeverHang) {
    const std::vector<std::vector<std::string>> commands = {{"shell", "install", "--yes"},
                                                            {"shell", "install", "--dry-run"},
                                                            {"shell", "status"},
                                                            {"shell", "uninstall", "--yes"}};
    for (const char* item : {".zshrc", ".bashrc", ".veerline/install.json", ".veerline/app-path"}) {
        freshHome();
        ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0) << item;
        removeTree(home + "/" + item);
        ASSERT_EQ(::mkfifo((home + "/" + item).c_str(), 0600), 0);
        for (const auto& command : commands) {
            RunResult result = cli(command);
            EXPECT_NE(result.exitCode, 124) << item << " " << command[1];
            if (std::string(item).starts_with(".veerline") || command[1] != "install") continue;
            EXPECT_NE(result.err.find(std::string("~/") + item + ": It isn't a regular file"), std::string::npos)
                << item << " " << command[1] << ": " << result.err;
        }
    }
}

TEST_F(HostileShellTest, LostRecordAndUnclosedBlocksLoseNoLines) {
    freshHome("export A=1\n");
    ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
    ::unlink((home + "/.veerline/install.json").c_str());
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
    EXPECT_FALSE(exists(home + "/.bashrc"));
    EXPECT_FALSE(exists(home + "/.veerline"));
}

TEST_F(HostileShellTest, LeftOversOfKilledRunsAreSweptUp) {
    freshHome();
    ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
    // No process has this id.
    const std::string dead = "2147483647";
    writeFile(home + "/.veerline/libexec/veerline-resolve.tmp." + dead, "half");
    writeFile(home + "/..zshrc.veerline-tmp." + dead, "half");
    writeFile(runtime + "/veerline-diff-" + dead + "-Ab12Cd/a", "# mine\n");
    ASSERT_EQ(cli({"shell", "uninstall", "--yes"}).exitCode, 0);
    EXPECT_FALSE(exists(home + "/.veerline"));
    EXPECT_FALSE(exists(home + "/..zshrc.veerline-tmp." + dead));
    EXPECT_TRUE(fs::is_empty(runtime));
}

TEST_F(HostileShellTest, ZshPromptShowsAPercentSignInAName) {
    writeFile(home + "/.veerline/libexec/veerline-resolve", "#!/bin/sh\necho 'R&D 100%'\n", 0755);
    writeFile(root / "snippet.zsh", *ShellIntegration::promptSnippet("zsh"));
    RunOptions options;
    options.environment = environment();
    RunResult zsh = run("/usr/bin/zsh", {"-f", "-c", ". \"$1\"; print -rP -- \"$RPROMPT\"", "zsh", root / "snippet.zsh"},
                        options);
    ASSERT_EQ(zsh.exitCode, 0) << zsh.err;
    EXPECT_EQ(zsh.out, "[R&D 100%]\n");
}

// Starts the command without waiting for it; its output goes nowhere.
pid_t spawn(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment) {
    std::vector<std::string> entries;
    for (const auto& [name, value] : environment) entries.push_back(name + "=" + value);
    std::vector<char*> argv;
    std::vector<char*> envp;
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    for (const auto& entry : entries) envp.push_back(const_cast<char*>(entry.c_str()));
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int fd : {0, 1, 2}) posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
    pid_t pid = -1;
    posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

TEST_F(HostileShellTest, KillsAtRandomMomentsLeaveValidFilesAndNoLeftOvers) {
    const std::string zshrc = "# mine\nexport A=1\n";
    const std::string bashrc = "export B=2";
    freshHome(zshrc);
    writeFile(home + "/.bashrc", bashrc);
    const std::vector<std::vector<std::string>> commands = {
        {VEERLINE_CLI_BINARY, "shell", "install", "--yes"},
        {VEERLINE_CLI_BINARY, "shell", "uninstall", "--yes"},
        {VEERLINE_CLI_BINARY, "profile", "add", "Work"},
    };
    // What the commands leave behind: the shell commands' files and previews, the profile saves'.
    auto leftOvers = [&] {
        std::vector<std::string> found;
        for (const std::string& folder : {home + "/.veerline", runtime, home + "/Library/Application Support/Veerline"}) {
            if (!exists(folder)) continue;
            for (const auto& entry : fs::recursive_directory_iterator(folder)) {
                std::string name = entry.path().filename().string();
                if (name.find(".tmp.") != std::string::npos || name.starts_with("veerline-diff-")) {
                    found.push_back(entry.path());
                }
            }
        }
        for (const auto& entry : fs::directory_iterator(home)) {
            if (entry.path().filename().string().find("veerline-tmp") != std::string::npos) {
                found.push_back(entry.path());
            }
        }
        return found;
    };
    std::mt19937 random(20261123);
    for (int round = 0; round < 36; ++round) {
        auto command = commands[random() % commands.size()];
        if (command[1] == "profile") command.back() += std::to_string(round);
        const auto earlier = leftOvers();
        pid_t pid = spawn(command, environment());
        ASSERT_GT(pid, 0);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 40000));
        // An interrupt removes the command's own temporary files; a kill leaves them for later.
        const bool interrupt = round % 3 == 0 && command[1] == "shell";
        ::kill(pid, interrupt ? SIGTERM : SIGKILL);
        ::waitpid(pid, nullptr, 0);
        for (const std::string& path : interrupt ? leftOvers() : std::vector<std::string>{}) {
            EXPECT_NE(std::find(earlier.begin(), earlier.end(), path), earlier.end()) << path << " round " << round;
        }

        for (const auto& [name, original] : {std::pair{"/.zshrc", zshrc}, std::pair{"/.bashrc", bashrc}}) {
            std::string text = readFile(home + name);
            EXPECT_EQ(ShellIntegration::unclosedBlockLine(text), std::nullopt) << name << " round " << round;
            std::string without = ShellIntegration::removingBlock(text);
            EXPECT_TRUE(without == original || without == original + "\n") << name << " round " << round;
        }
        const std::string profiles = home + "/Library/Application Support/Veerline/profiles.json";
        if (exists(profiles)) {
            EXPECT_FALSE(nlohmann::json::parse(readFile(profiles), nullptr, false).is_discarded()) << round;
        }
    }

    // One more command of each kind sweeps what the killed ones left.
    RunResult last = cli({"shell", "install", "--yes"});
    ASSERT_EQ(last.exitCode, 0) << last.err;
    ASSERT_EQ(cli({"profile", "add", "Last"}).exitCode, 0);
    EXPECT_EQ(leftOvers(), std::vector<std::string>{});
}

}  // namespace
}  // namespace veerline::testing
