#include "shell/shell_integration.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "base/error.h"
#include "support/failure.h"
#include "support/folder_entries.h"
#include "support/test_support.h"

namespace veerline {
namespace {

using testing::entriesOf;
using testing::TempDir;

// The message of the io error an operation throws.
template <typename Operation>
std::string errorOf(Operation operation) {
    VeerlineError error = testing::failureOf(operation);
    EXPECT_EQ(error.kind(), VeerlineError::Kind::io);
    return error.what();
}

class ShellIntegrationTest : public ::testing::Test {
protected:
    TempDir root{"veerline-shell"};
    std::string home = root / "home";
    ShellIntegration shell{Paths(home, "/Applications"), {}};

    void SetUp() override { testing::makeDirs(home); }
};

TEST(ShellBlockTest, RemovingBlockRecognisesOnlyWholeMarkerLines) {
    EXPECT_EQ(ShellIntegration::removingBlock("a\n  # >>> veerline >>>\nx\n\t# <<< veerline <<< \nb\n"), "a\nb\n");
    // Other horizontal spaces count as indentation too.
    EXPECT_EQ(ShellIntegration::removingBlock("a\n\u00A0# >>> veerline >>>\u3000\nx\n# <<< veerline <<<\n"), "a\n");
    // Not markers: other words on the line, a carriage return, a line break other than a line feed.
    for (const char* text : {"a\n# >>> veerline >>> now\nx\n# <<< veerline <<<\n",
                             "a\n# >>> veerline >>>\r\nx\n# <<< veerline <<<\n",
                             "a\n\u2028# >>> veerline >>>\nx\n# <<< veerline <<<\n"}) {
        EXPECT_EQ(ShellIntegration::removingBlock(text), text);
    }
    // An end marker before any begin marker stays.
    EXPECT_EQ(ShellIntegration::removingBlock("# <<< veerline <<<\na\n"), "# <<< veerline <<<\na\n");
    // A begin marker with no end takes everything after it, final line feed included.
    EXPECT_EQ(ShellIntegration::removingBlock("a\n# >>> veerline >>>\nb\n"), "a");
    EXPECT_EQ(ShellIntegration::removingBlock(""), "");
}

TEST(ShellBlockTest, BlockIsLast) {
    const std::string& block = ShellIntegration::block();
    EXPECT_FALSE(ShellIntegration::blockIsLast("export A=1\n"));
    EXPECT_TRUE(ShellIntegration::blockIsLast(block));
    EXPECT_TRUE(ShellIntegration::blockIsLast(block + "\n  \n\t# later comment\n   # another\n\n"));
    EXPECT_TRUE(ShellIntegration::blockIsLast("# <<< veerline <<<"));
    EXPECT_TRUE(ShellIntegration::blockIsLast(block + "\r\n"));
    EXPECT_FALSE(ShellIntegration::blockIsLast(block + "export PATH=/opt/bin:$PATH\n"));
    EXPECT_FALSE(ShellIntegration::blockIsLast(block + "\n# c\n  alias x=y\n"));
    // Text after the marker on its own line counts.
    EXPECT_FALSE(ShellIntegration::blockIsLast("# <<< veerline <<< echo\n"));
    // The last end marker decides, wherever it stands.
    EXPECT_TRUE(ShellIntegration::blockIsLast("echo # <<< veerline <<<\n# fine\n"));
}

TEST_F(ShellIntegrationTest, TargetFilesAndZdotdir) {
    EXPECT_EQ(shell.targetFiles(), std::vector<std::string>{home + "/.zshrc"});
    testing::writeFile(home + "/.bash_profile", "");
    EXPECT_EQ(shell.targetFiles(), (std::vector<std::string>{home + "/.zshrc", home + "/.bash_profile"}));
    testing::writeFile(home + "/.bashrc", "");
    EXPECT_EQ(shell.targetFiles(),
              (std::vector<std::string>{home + "/.zshrc", home + "/.bashrc", home + "/.bash_profile"}));
    // A dangling link is the user's too.
    ::unlink((home + "/.bashrc").c_str());
    testing::makeSymlink(root / "missing", home + "/.bashrc");
    EXPECT_EQ(shell.targetFiles(),
              (std::vector<std::string>{home + "/.zshrc", home + "/.bashrc", home + "/.bash_profile"}));

    Paths paths(home, "/Applications");
    EXPECT_EQ(ShellIntegration(paths, {{"ZDOTDIR", "/Users/x/.config//zsh/"}}).targetFiles().front(),
              "/Users/x/.config/zsh/.zshrc");
    ShellIntegration same(paths, {{"ZDOTDIR", home + "/./"}});
    EXPECT_EQ(same.zdotdir(), std::nullopt);
    EXPECT_EQ(same.targetFiles().front(), home + "/.zshrc");
    for (const char* ignored : {"config/zsh", ""}) {
        EXPECT_EQ(ShellIntegration(paths, {{"ZDOTDIR", ignored}}).zdotdir(), std::nullopt) << ignored;
    }
}

TEST_F(ShellIntegrationTest, WriteIsAtomicAndKeepsModeAndLinks) {
    std::string target = root / "dotfiles/bashrc";
    testing::writeFile(target, "old\n", 0640);
    testing::makeSymlink(target, home + "/.bashrc");
    shell.write("new\n", home + "/.bashrc");
    EXPECT_EQ(testing::readFile(target), "new\n");
    EXPECT_EQ(testing::fileMode(target), 0640u);
    struct stat info {};
    ASSERT_EQ(::lstat((home + "/.bashrc").c_str(), &info), 0);
    EXPECT_TRUE(S_ISLNK(info.st_mode));
    EXPECT_EQ(entriesOf(root / "dotfiles"), std::vector<std::string>{"bashrc"});

    shell.write("fresh", home + "/new-file");
    EXPECT_EQ(testing::readFile(home + "/new-file"), "fresh");
    EXPECT_EQ(testing::fileMode(home + "/new-file"), 0644u);
    // Set-group and sticky bits are kept too.
    ::chmod((home + "/new-file").c_str(), 03750);
    shell.write("again", home + "/new-file");
    EXPECT_EQ(testing::fileMode(home + "/new-file"), 03750u);
}

TEST_F(ShellIntegrationTest, PlanInstallFailsOnUnreadableFiles) {
    testing::makeDirs(home + "/.zshrc");
    EXPECT_EQ(errorOf([&] { shell.planInstall(); }),
              "Couldn't write ~/.zshrc: It isn't a regular file, nor a symbolic link to one. Nothing was changed.");
    ::rmdir((home + "/.zshrc").c_str());
    testing::writeFile(home + "/.zshrc", "caf\xE9\n");
    EXPECT_EQ(errorOf([&] { shell.planInstall(); }),
              "Couldn't read ~/.zshrc: The file \u201C.zshrc\u201D couldn't be opened using text encoding "
              "Unicode (UTF-8).");
}

TEST_F(ShellIntegrationTest, WriteFailureLeavesNoTemporaryFile) {
    // Renaming a file over a folder that holds something fails for every user, root included.
    testing::writeFile(home + "/.zshrc/inside", "keep");
    EXPECT_EQ(errorOf([&] { shell.write("x", home + "/.zshrc"); }),
              "Couldn't write ~/.zshrc: It isn't a regular file, nor a symbolic link to one. Nothing was changed.");
    EXPECT_EQ(entriesOf(home), std::vector<std::string>{".zshrc"});
    EXPECT_EQ(testing::readFile(home + "/.zshrc/inside"), "keep");
    EXPECT_EQ(errorOf([&] { shell.write("x", home + "/missing/file"); }),
              "Couldn't write ~/missing/file: No such file or directory");
}

TEST_F(ShellIntegrationTest, CopyAtomically) {
    std::string source = root / "source";
    testing::writeFile(source, "#!/bin/sh\n", 0600);
    shell.copyAtomically(source, home + "/tool");
    EXPECT_EQ(testing::readFile(home + "/tool"), "#!/bin/sh\n");
    EXPECT_EQ(testing::fileMode(home + "/tool"), 0755u);
    // A stale temporary file of this process is replaced, and an existing copy overwritten.
    testing::writeFile(home + "/tool.tmp." + std::to_string(::getpid()), "stale");
    testing::writeFile(source, "v2", 0600);
    shell.copyAtomically(source, home + "/tool");
    EXPECT_EQ(testing::readFile(home + "/tool"), "v2");
    EXPECT_EQ(entriesOf(home), std::vector<std::string>{"tool"});

    EXPECT_EQ(errorOf([&] { shell.copyAtomically(root / "nope", home + "/other"); }),
              "Couldn't install ~/other: No such file or directory");
    EXPECT_EQ(entriesOf(home), std::vector<std::string>{"tool"});
}

}  // namespace
}  // namespace veerline
