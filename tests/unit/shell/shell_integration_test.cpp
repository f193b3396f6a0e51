// ShellIntegration on a real temporary HOME: the managed block, the start-up files it targets,
// atomic writes, the install record, and laying out and taking away ~/.veerline.

#include "shell/shell_integration.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include <gtest/gtest.h>

#include "support/failure.h"
#include "support/folder_entries.h"
#include "support/test_support.h"

namespace veerline::testing {
namespace {

namespace fs = std::filesystem;
using FileRecord = InstallState::FileRecord;
using Names = std::vector<std::string>;
using Changes = std::vector<ShellIntegration::FileChange>;
const std::string notRegular = "It isn't a regular file, nor a symbolic link to one. Nothing was changed.";

// The message of the io error an operation throws.
template <typename Operation>
std::string errorOf(Operation operation) {
    VeerlineError error = failureOf(operation);
    EXPECT_EQ(error.kind(), VeerlineError::Kind::io);
    return error.what();
}

class ShellIntegrationTest : public ::testing::Test {
protected:
    TempDir root{"veerline-shell"};
    std::string home = root / "home";
    std::string zshrc = home + "/.zshrc";
    std::string resolver = root / "build/veerline-resolve";
    std::string cli = root / "build/veerline";
    ShellIntegration shell{Paths(home, "/Applications"), {}};

    void SetUp() override {
        makeDirs(home);
        writeFile(resolver, "#!/bin/sh\necho resolver\n", 0755);
        writeFile(cli, "#!/bin/sh\necho cli\n", 0755);
    }

    Changes installResolverOnly() {
        return shell.install(resolver, std::nullopt, std::nullopt, std::nullopt);
    }
};

TEST(ShellBlockTest, RemovingBlockRecognisesOnlyWholeMarkerLinesAndBlockIsLastOnlyBeforeComments) {
    const std::vector<std::pair<std::string, std::string>> removals = {
        {"a\n  # >>> veerline >>>\nx\n\t# <<< veerline <<< \nb\n", "a\nb\n"},
        // Other horizontal spaces count as indentation too.
        {"a\n\u00A0# >>> veerline >>>\u3000\nx\n# <<< veerline <<<\n", "a\n"},
        // A begin marker with no end takes everything after it, final line feed included.
        {"a\n# >>> veerline >>>\nb\n", "a"}, {"", ""}};
    for (const auto& [text, expected] : removals) EXPECT_EQ(ShellIntegration::removingBlock(text), expected) << text;
    // Not markers: other words on the line, a carriage return, a line break other than a line feed;
    // and an end marker before any begin marker stays.
    for (const char* text : {"a\n# >>> veerline >>> now\nx\n# <<< veerline <<<\n",
                             "a\n# >>> veerline >>>\r\nx\n# <<< veerline <<<\n",
                             "a\n\u2028# >>> veerline >>>\nx\n# <<< veerline <<<\n", "# <<< veerline <<<\na\n"}) {
        EXPECT_EQ(ShellIntegration::removingBlock(text), text);
    }
    const std::string& block = ShellIntegration::block();
    const std::vector<std::pair<std::string, bool>> lasts = {
        {"export A=1\n", false}, {block, true}, {block + "\n  \n\t# later comment\n   # another\n\n", true},
        {"# <<< veerline <<<", true}, {block + "\r\n", true}, {block + "export PATH=/opt/bin:$PATH\n", false},
        {block + "\n# c\n  alias x=y\n", false},
        // Text after the marker on its own line counts; the last end marker decides, wherever it stands.
        {"# <<< veerline <<< echo\n", false}, {"echo # <<< veerline <<<\n# fine\n", true}};
    for (const auto& [text, last] : lasts) EXPECT_EQ(ShellIntegration::blockIsLast(text), last) << text;
}

TEST(InstallStateTest, DecodingIsLenientAboutExtrasAndStrictAboutTypes) {
    EXPECT_EQ(InstallState::decoded(R"({"version": 7, "extra": [1], "files": [{"path": "/p", "existedBefore": false,
                  "addedNewline": true, "installedSHA256": "h", "backupPath": null, "other": 1}]})"),
              (InstallState{7, std::nullopt, {FileRecord{"/p", false, std::nullopt, true, "h"}}}));
    EXPECT_EQ(InstallState::decoded(R"({"version": 2.0, "files": []})")->version, 2);

    for (const char* broken : {"", "{", "[]", "not json", R"({"files": []})", R"({"version": 1})",
                               R"({"version": "1", "files": []})", R"({"version": 1.5, "files": []})",
                               R"({"version": 1, "files": {}})", R"({"version": 1, "files": [1]})",
                               R"({"version": 1, "installedAt": 5, "files": []})",
                               R"({"version": 1, "files": [{"path": "/p", "existedBefore": false,
                                   "addedNewline": true}]})",
                               R"({"version": 1, "files": [{"path": "/p", "existedBefore": 0, "addedNewline": true,
                                   "installedSHA256": "h"}]})"}) {
        EXPECT_EQ(InstallState::decoded(broken), std::nullopt) << broken;
    }
}

TEST_F(ShellIntegrationTest, TargetFilesAndZdotdir) {
    EXPECT_EQ(shell.targetFiles(), Names{zshrc});
    writeFile(home + "/.bash_profile", "");
    EXPECT_EQ(shell.targetFiles(), (Names{zshrc, home + "/.bash_profile"}));
    // A dangling link is the user's too.
    makeSymlink(root / "missing", home + "/.bashrc");
    EXPECT_EQ(shell.targetFiles(), (Names{zshrc, home + "/.bashrc", home + "/.bash_profile"}));

    Paths paths(home, "/Applications");
    EXPECT_EQ(ShellIntegration(paths, {{"ZDOTDIR", "/Users/x/.config//zsh/"}}).targetFiles().front(),
              "/Users/x/.config/zsh/.zshrc");
    // HOME itself, a relative folder and an empty text all leave ~/.zshrc in place.
    for (const std::string& ignored : {home + "/./", std::string("config/zsh"), std::string()}) {
        ShellIntegration other(paths, {{"ZDOTDIR", ignored}});
        EXPECT_EQ(other.zdotdir(), std::nullopt) << ignored;
        EXPECT_EQ(other.targetFiles().front(), zshrc) << ignored;
    }
}

TEST_F(ShellIntegrationTest, FileOperationsAreAtomicKeepModesAndLinksAndLeaveNoTemporaryFiles) {
    const std::string target = root / "dotfiles/bashrc";
    writeFile(target, "old\n", 0640);
    makeSymlink(target, home + "/.bashrc");
    shell.write("new\n", home + "/.bashrc");
    EXPECT_EQ(readFile(target), "new\n");
    EXPECT_EQ(fileMode(target), 0640u);
    EXPECT_TRUE(fs::is_symlink(home + "/.bashrc"));
    EXPECT_EQ(entriesOf(root / "dotfiles"), Names{"bashrc"});

    const std::string fresh = home + "/new-file";
    shell.write("fresh", fresh);
    EXPECT_EQ(readFile(fresh), "fresh");
    EXPECT_EQ(fileMode(fresh), 0644u);
    // Set-group and sticky bits are kept too.
    ::chmod(fresh.c_str(), 03750);
    shell.write("again", fresh);
    EXPECT_EQ(fileMode(fresh), 03750u);

    // Renaming a file over a folder that holds something fails for every user, root included.
    writeFile(zshrc + "/inside", "keep");
    EXPECT_EQ(errorOf([&] { shell.write("x", zshrc); }), "Couldn't write ~/.zshrc: " + notRegular);
    EXPECT_EQ(readFile(zshrc + "/inside"), "keep");
    EXPECT_EQ(errorOf([&] { shell.write("x", home + "/missing/file"); }),
              "Couldn't write ~/missing/file: No such file or directory");
    removeTree(zshrc);
    writeFile(zshrc, "caf\xE9\n");
    EXPECT_EQ(errorOf([&] { shell.planInstall(); }),
              "Couldn't read ~/.zshrc: The file \u201C.zshrc\u201D couldn't be opened using text encoding "
              "Unicode (UTF-8).");

    const std::string source = root / "source";
    const std::string tool = home + "/tool";
    writeFile(source, "#!/bin/sh\n", 0600);
    shell.copyAtomically(source, tool);
    EXPECT_EQ(fileMode(tool), 0755u);
    // What a killed copy left is swept, and an existing copy overwritten.
    writeFile(home + "/.tool.2147483647.0.tmp", "stale");
    writeFile(source, "v2", 0600);
    shell.copyAtomically(source, tool);
    EXPECT_EQ(readFile(tool), "v2");
    EXPECT_EQ(errorOf([&] { shell.copyAtomically(root / "nope", home + "/other"); }),
              "Couldn't install ~/other: No such file or directory");
    EXPECT_EQ(entriesOf(home), (Names{".bashrc", ".zshrc", "new-file", "tool"}));
}

TEST_F(ShellIntegrationTest, InstallRecordBacksUpOnceAndSurvivesAFailedWrite) {
    shell.createDirectory(shell.backups());
    writeFile(zshrc, "export A=1");
    shell.recordInstall(shell.planInstall());
    EXPECT_EQ(readFile(zshrc), "export A=1\n" + ShellIntegration::block());

    auto state = shell.loadState();
    ASSERT_TRUE(state && state->installedAt && state->files.size() == 1 && state->files[0].backupPath);
    const std::string backup = *state->files[0].backupPath;
    const FileRecord record{zshrc, true, backup, true, ShellIntegration::sha256(readFile(zshrc))};
    EXPECT_EQ(*state, (InstallState{1, state->installedAt, {record}}));
    EXPECT_TRUE(std::regex_match(*state->installedAt, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")));
    EXPECT_TRUE(std::regex_match(backup, std::regex(R"(.*/\.veerline/backups/zshrc\.\d{8}-\d{6})")));
    EXPECT_EQ(readFile(backup), "export A=1");
    const std::string saved = readFile(shell.stateFile());
    EXPECT_EQ(saved.back(), '\n');

    // ~/.bashrc links to a folder that holds something: renaming over it fails, root or not.
    writeFile(root / "dir/inside", "");
    makeSymlink(root / "dir", home + "/.bashrc");
    const Changes plan = {
        {zshrc, true, readFile(zshrc), "b\n" + ShellIntegration::block()},
        {home + "/.bashrc", false, "", ShellIntegration::block()}};
    EXPECT_EQ(errorOf([&] { shell.recordInstall(plan); }), "Couldn't write ~/.bashrc: " + notRegular);
    EXPECT_EQ(readFile(zshrc), plan[0].after);
    EXPECT_EQ(readFile(shell.stateFile()), saved);
    EXPECT_FALSE(exists(root / "..dir.veerline-tmp." + std::to_string(::getpid())));
}

TEST_F(ShellIntegrationTest, InstallLaysOutTheFolderRepairsRefreshesAndUninstallTakesItAway) {
    writeFile(shell.appPathFile(), "/Applications/Old.app\n");
    const std::string bashrc = home + "/.bashrc";
    const std::string mine = "alias ll='ls -l'\n";
    writeFile(bashrc, mine);
    const std::string& block = ShellIntegration::block();
    EXPECT_EQ(installResolverOnly(), (Changes{{zshrc, false, "", block}, {bashrc, true, mine, mine + block}}));
    EXPECT_EQ(readFile(bashrc), mine + block);
    EXPECT_EQ(entriesOf(shell.root()), (Names{"backups", "bin", "install.json", "libexec"}));
    EXPECT_EQ(entriesOf(shell.libexec()), Names{"veerline-resolve"});
    EXPECT_EQ(entriesOf(home + "/.veerline/bin"), (Names{"claude", "codex"}));
    EXPECT_EQ(readFile(zshrc), block);
    // Only the file that was there has a backup.
    EXPECT_EQ(entriesOf(shell.backups()).size(), 1u);
    const std::vector<ShellIntegration::Status::Block> blocks = {{zshrc, true}, {bashrc, true}};
    EXPECT_EQ(shell.status(), (ShellIntegration::Status{true, blocks, std::nullopt, {}}));

    const std::string claude = home + "/.veerline/bin/claude";
    ::unlink(claude.c_str());
    writeFile(claude, "not a link", 0755);
    installResolverOnly();
    EXPECT_EQ(fs::read_symlink(claude).string(), "../libexec/veerline-resolve");

    ::unlink((shell.libexec() + "/veerline-resolve").c_str());
    EXPECT_EQ(shell.status(), (ShellIntegration::Status{false, blocks, std::nullopt, {}}));
    // An empty app-path file gives an empty path, not none.
    writeFile(shell.appPathFile(), "");
    EXPECT_EQ(shell.status().appPath, "");

    EXPECT_EQ(shell.uninstall(), (Changes{{bashrc, true, mine + block, mine}, {zshrc, true, block, ""}}));
    EXPECT_EQ(readFile(bashrc), mine);
    EXPECT_FALSE(exists(zshrc) || exists(shell.root()));
    EXPECT_EQ(shell.status(), ShellIntegration::Status{});

    // Nothing installed: nothing is refreshed or recorded.
    EXPECT_FALSE(shell.refreshBinariesIfStale(resolver, cli, std::nullopt));
    shell.recordAppLocation("/Applications/Veerline.app");
    EXPECT_FALSE(exists(shell.root()));

    installResolverOnly();
    EXPECT_FALSE(shell.refreshBinariesIfStale(resolver, std::nullopt, std::nullopt));
    shell.recordAppLocation("/opt/veerline");
    EXPECT_FALSE(exists(shell.appPathFile()));
    shell.recordAppLocation("/Applications/Veerline.app");
    EXPECT_EQ(readFile(shell.appPathFile()), "/Applications/Veerline.app\n");
    // The same path, written differently on disk, is left as it is.
    writeFile(shell.appPathFile(), "  /Applications/Veerline.app\n\n");
    shell.recordAppLocation("/Applications/Veerline.app");
    EXPECT_EQ(readFile(shell.appPathFile()), "  /Applications/Veerline.app\n\n");

    writeFile(resolver, "#!/bin/sh\necho newer\n", 0755);
    EXPECT_TRUE(shell.refreshBinariesIfStale(resolver, cli, root / "no-launcher"));
    EXPECT_EQ(readFile(shell.libexec() + "/veerline-resolve"), "#!/bin/sh\necho newer\n");
    // The command-line tool is installed, its link isn't made.
    EXPECT_EQ(readFile(shell.libexec() + "/veerline"), readFile(cli));
    EXPECT_FALSE(exists(home + "/.veerline/bin/veerline"));
    EXPECT_FALSE(shell.refreshBinariesIfStale(resolver, cli, std::nullopt));

    const std::string launcher = root / "build/veerline-launcher";
    const Names all = {"veerline", "veerline-launcher", "veerline-resolve"};
    writeFile(launcher, "#!/bin/sh\n", 0755);
    shell.install(resolver, cli, launcher, "/Applications/Veerline.app");
    EXPECT_EQ(entriesOf(shell.libexec()), all);
    EXPECT_EQ(fs::read_symlink(home + "/.veerline/bin/veerline").string(), "../libexec/veerline");
    EXPECT_EQ(readFile(shell.appPathFile()), "/Applications/Veerline.app\n");
    EXPECT_EQ(shell.status().appPath, "/Applications/Veerline.app");
    // A launcher that isn't there is skipped; what an earlier install made stays.
    shell.install(resolver, std::nullopt, root / "missing-launcher", std::nullopt);
    EXPECT_EQ(entriesOf(shell.libexec()), all);
    EXPECT_FALSE(exists(shell.appPathFile()));

    // A source that isn't executable is skipped.
    writeFile(resolver, "changed", 0644);
    EXPECT_FALSE(shell.refreshBinariesIfStale(resolver, std::nullopt, std::nullopt));
}

// Exceeding the file-size limit fails the write for every user, root included.
TEST_F(ShellIntegrationTest, UnwritableShellFileFailsAndKeepsTheOldFile) {
    const std::string original(200, '#');
    writeFile(zshrc, original + "\n");
    const std::string reportFile = root / "report";
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{300, 300};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        writeFile(reportFile, errorOf([&] { installResolverOnly(); }));
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(readFile(reportFile), "Couldn't write ~/.zshrc: File too large");
    EXPECT_EQ(readFile(zshrc), original + "\n");
    EXPECT_EQ(entriesOf(home), (Names{".veerline", ".zshrc"}));
    EXPECT_FALSE(exists(shell.stateFile()));

    // Nothing was lost: a later install completes and uninstall restores the file.
    installResolverOnly();
    shell.uninstall();
    EXPECT_EQ(readFile(zshrc), original + "\n");
}

}  // namespace
}  // namespace veerline::testing
