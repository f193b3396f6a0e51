#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "base/error.h"
#include "shell/shell_integration.h"
#include "support/folder_entries.h"
#include "support/test_support.h"

namespace veerline {
namespace {

using testing::entriesOf;
using testing::TempDir;

std::string linkText(const std::string& path) {
    char buffer[4096] = {};
    ssize_t length = ::readlink(path.c_str(), buffer, sizeof buffer - 1);
    return length < 0 ? std::string() : std::string(buffer, static_cast<std::size_t>(length));
}

class ShellInstallTest : public ::testing::Test {
protected:
    TempDir root{"veerline-install"};
    std::string home = root / "home";
    std::string resolver = root / "build/veerline-resolve";
    std::string cli = root / "build/veerline";
    std::string zshrc = home + "/.zshrc";
    ShellIntegration shell{Paths(home, "/Applications"), {}};

    void SetUp() override {
        testing::makeDirs(home);
        testing::writeFile(resolver, "#!/bin/sh\necho resolver\n", 0755);
        testing::writeFile(cli, "#!/bin/sh\necho cli\n", 0755);
    }

    std::vector<ShellIntegration::FileChange> installResolverOnly() {
        return shell.install(resolver, std::nullopt, std::nullopt, std::nullopt);
    }
};

TEST_F(ShellInstallTest, InstallLaysOutTheFolderAndUninstallTakesItAway) {
    testing::writeFile(shell.appPathFile(), "/Applications/Old.app\n");
    auto plan = installResolverOnly();
    ASSERT_EQ(plan.size(), 1u);
    EXPECT_EQ(plan[0], (ShellIntegration::FileChange{zshrc, false, "", ShellIntegration::block()}));

    EXPECT_EQ(entriesOf(shell.root()), (std::vector<std::string>{"backups", "bin", "install.json", "libexec"}));
    EXPECT_EQ(entriesOf(shell.libexec()), std::vector<std::string>{"veerline-resolve"});
    EXPECT_EQ(testing::readFile(shell.libexec() + "/veerline-resolve"), testing::readFile(resolver));
    EXPECT_EQ(testing::fileMode(shell.libexec() + "/veerline-resolve"), 0755u);
    EXPECT_EQ(entriesOf(home + "/.veerline/bin"), (std::vector<std::string>{"claude", "codex"}));
    for (const char* name : {"claude", "codex"}) {
        EXPECT_EQ(linkText(home + "/.veerline/bin/" + name), "../libexec/veerline-resolve");
    }
    EXPECT_EQ(testing::readFile(zshrc), ShellIntegration::block());
    EXPECT_TRUE(entriesOf(shell.backups()).empty());

    auto status = shell.status();
    EXPECT_EQ(status, (ShellIntegration::Status{true, {{zshrc, true}}, std::nullopt, {}}));
    EXPECT_TRUE(status.isInstalled());

    auto undone = shell.uninstall();
    ASSERT_EQ(undone.size(), 1u);
    EXPECT_EQ(undone[0].after, "");
    EXPECT_FALSE(testing::exists(zshrc));
    EXPECT_FALSE(testing::exists(shell.root()));
    EXPECT_EQ(shell.status(), ShellIntegration::Status{});
    EXPECT_FALSE(shell.status().isInstalled());
}

TEST_F(ShellInstallTest, SymlinkedBashrcKeepsItsLinkAndMode) {
    std::string target = root / "dotfiles/bashrc";
    testing::writeFile(target, "alias ll='ls -l'\n", 0640);
    testing::makeSymlink(target, home + "/.bashrc");
    auto plan = installResolverOnly();
    ASSERT_EQ(plan.size(), 2u);
    EXPECT_EQ(plan[1].path, home + "/.bashrc");
    EXPECT_TRUE(std::filesystem::is_symlink(home + "/.bashrc"));
    EXPECT_EQ(testing::readFile(target), "alias ll='ls -l'\n" + ShellIntegration::block());
    EXPECT_EQ(testing::fileMode(target), 0640u);
    EXPECT_EQ(shell.loadState()->files[1].path, home + "/.bashrc");

    shell.uninstall();
    EXPECT_TRUE(std::filesystem::is_symlink(home + "/.bashrc"));
    EXPECT_EQ(testing::readFile(target), "alias ll='ls -l'\n");
    EXPECT_EQ(testing::fileMode(target), 0640u);
}

TEST_F(ShellInstallTest, ShimsAreRepairedAndCheckedByStatus) {
    installResolverOnly();
    std::string claude = home + "/.veerline/bin/claude";
    ::unlink(claude.c_str());
    testing::writeFile(claude, "not a link", 0755);
    installResolverOnly();
    EXPECT_EQ(linkText(claude), "../libexec/veerline-resolve");

    ::unlink((shell.libexec() + "/veerline-resolve").c_str());
    auto status = shell.status();
    EXPECT_FALSE(status.binariesInstalled);
    EXPECT_FALSE(status.isInstalled());
    EXPECT_EQ(status.blocks.size(), 1u);

    // An empty app-path file gives an empty path, not none.
    testing::writeFile(shell.appPathFile(), "");
    EXPECT_EQ(shell.status().appPath, "");
}

// Exceeding the file-size limit fails the write for every user, root included.
TEST_F(ShellInstallTest, UnwritableShellFileFailsAndKeepsTheOldFile) {
    const std::string original(200, '#');
    testing::writeFile(zshrc, original + "\n");
    const std::string reportFile = root / "report";
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{300, 300};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        std::string message = "(no error)";
        try {
            installResolverOnly();
        } catch (const VeerlineError& error) {
            message = error.what();
        }
        testing::writeFile(reportFile, message + "\n" + std::to_string(::getpid()));
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    const std::string report = testing::readFile(reportFile);

    auto lineFeed = report.find('\n');
    ASSERT_NE(lineFeed, std::string::npos) << report;
    EXPECT_EQ(report.substr(0, lineFeed), "Couldn't write ~/.zshrc: File too large");
    std::string childPid = report.substr(lineFeed + 1);
    EXPECT_EQ(testing::readFile(zshrc), original + "\n");
    EXPECT_EQ(entriesOf(home), (std::vector<std::string>{".veerline", ".zshrc"}));
    EXPECT_FALSE(testing::exists(home + "/..zshrc.veerline-tmp." + childPid));
    EXPECT_FALSE(testing::exists(shell.stateFile()));

    // Nothing was lost: a later install completes and uninstall restores the file.
    installResolverOnly();
    shell.uninstall();
    EXPECT_EQ(testing::readFile(zshrc), original + "\n");
}

TEST_F(ShellInstallTest, OptionalExecutablesAndAppPath) {
    std::string launcher = root / "build/veerline-launcher";
    testing::writeFile(launcher, "#!/bin/sh\n", 0755);
    shell.install(resolver, cli, launcher, "/Applications/Veerline.app");
    EXPECT_EQ(entriesOf(shell.libexec()),
              (std::vector<std::string>{"veerline", "veerline-launcher", "veerline-resolve"}));
    EXPECT_EQ(linkText(home + "/.veerline/bin/veerline"), "../libexec/veerline");
    EXPECT_EQ(testing::readFile(shell.appPathFile()), "/Applications/Veerline.app\n");
    EXPECT_EQ(shell.status().appPath, "/Applications/Veerline.app");

    // A launcher that isn't there is skipped; what an earlier install made stays.
    shell.install(resolver, std::nullopt, root / "missing-launcher", std::nullopt);
    EXPECT_EQ(entriesOf(shell.libexec()),
              (std::vector<std::string>{"veerline", "veerline-launcher", "veerline-resolve"}));
    EXPECT_FALSE(testing::exists(shell.appPathFile()));

    shell.uninstall();
    EXPECT_FALSE(testing::exists(shell.root()));
}

TEST_F(ShellInstallTest, RefreshBinariesIfStale) {
    EXPECT_FALSE(shell.refreshBinariesIfStale(resolver, cli, std::nullopt));
    EXPECT_FALSE(testing::exists(shell.root()));

    installResolverOnly();
    EXPECT_FALSE(shell.refreshBinariesIfStale(resolver, std::nullopt, std::nullopt));

    testing::writeFile(resolver, "#!/bin/sh\necho newer\n", 0755);
    EXPECT_TRUE(shell.refreshBinariesIfStale(resolver, cli, root / "no-launcher"));
    EXPECT_EQ(testing::readFile(shell.libexec() + "/veerline-resolve"), "#!/bin/sh\necho newer\n");
    // The command-line tool is installed, its link isn't made.
    EXPECT_EQ(testing::readFile(shell.libexec() + "/veerline"), testing::readFile(cli));
    EXPECT_FALSE(testing::exists(home + "/.veerline/bin/veerline"));
    EXPECT_FALSE(shell.refreshBinariesIfStale(resolver, cli, std::nullopt));

    // A source that isn't executable is skipped.
    testing::writeFile(resolver, "changed", 0644);
    EXPECT_FALSE(shell.refreshBinariesIfStale(resolver, std::nullopt, std::nullopt));
}

TEST_F(ShellInstallTest, RecordAppLocation) {
    shell.recordAppLocation("/Applications/Veerline.app");
    EXPECT_FALSE(testing::exists(shell.root()));

    installResolverOnly();
    shell.recordAppLocation("/opt/veerline");
    EXPECT_FALSE(testing::exists(shell.appPathFile()));
    shell.recordAppLocation("/Applications/Veerline.app");
    EXPECT_EQ(testing::readFile(shell.appPathFile()), "/Applications/Veerline.app\n");

    // The same path, written differently on disk, is left as it is.
    testing::writeFile(shell.appPathFile(), "  /Applications/Veerline.app\n\n");
    shell.recordAppLocation("/Applications/Veerline.app");
    EXPECT_EQ(testing::readFile(shell.appPathFile()), "  /Applications/Veerline.app\n\n");
}

}  // namespace
}  // namespace veerline
