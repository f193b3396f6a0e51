#include "shell/install_state.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <regex>

#include "base/error.h"
#include "shell/shell_integration.h"
#include "support/test_support.h"

namespace veerline {
namespace {

using testing::TempDir;
using FileRecord = InstallState::FileRecord;

class InstallRecordTest : public ::testing::Test {
protected:
    TempDir root{"veerline-record"};
    std::string home = root / "home";
    std::string zshrc = home + "/.zshrc";
    ShellIntegration shell{Paths(home, "/Applications"), {}};

    void SetUp() override {
        testing::makeDirs(home);
        shell.createDirectory(shell.backups());
    }

    void installShellFiles() { shell.recordInstall(shell.planInstall()); }
};

TEST_F(InstallRecordTest, FirstInstallBacksUpAndRecords) {
    testing::writeFile(zshrc, "export A=1");
    installShellFiles();
    EXPECT_EQ(testing::readFile(zshrc), "export A=1\n" + ShellIntegration::block());

    auto state = shell.loadState();
    ASSERT_TRUE(state);
    EXPECT_EQ(state->version, 1);
    ASSERT_TRUE(state->installedAt);
    EXPECT_TRUE(std::regex_match(*state->installedAt, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")));
    ASSERT_EQ(state->files.size(), 1u);
    const FileRecord& record = state->files[0];
    EXPECT_EQ(record, (FileRecord{zshrc, true, record.backupPath, true, ShellIntegration::sha256(testing::readFile(zshrc))}));
    ASSERT_TRUE(record.backupPath);
    EXPECT_TRUE(record.backupPath->starts_with(shell.backups() + "/zshrc.")) << *record.backupPath;
    EXPECT_TRUE(std::regex_search(*record.backupPath, std::regex(R"(/zshrc\.\d{8}-\d{6}$)"))) << *record.backupPath;
    EXPECT_EQ(testing::readFile(*record.backupPath), "export A=1");
    EXPECT_EQ(testing::readFile(shell.stateFile()).back(), '\n');
}

TEST_F(InstallRecordTest, FailedShellFileWriteKeepsThePreviousRecord) {
    testing::writeFile(zshrc, "a\n");
    installShellFiles();
    std::string saved = testing::readFile(shell.stateFile());

    // ~/.bashrc links to a folder that holds something: renaming over it fails, root or not.
    testing::writeFile(root / "dir/inside", "");
    testing::makeSymlink(root / "dir", home + "/.bashrc");
    std::vector<ShellIntegration::FileChange> plan = {
        {zshrc, true, "a\n" + ShellIntegration::block(), "a\nb\n" + ShellIntegration::block()},
        {home + "/.bashrc", false, "", ShellIntegration::block()},
    };
    try {
        shell.recordInstall(plan);
        ADD_FAILURE() << "no error";
    } catch (const VeerlineError& error) {
        EXPECT_STREQ(error.what(),
                     "Couldn't write ~/.bashrc: It isn't a regular file, nor a symbolic link to one. Nothing was "
                     "changed.");
    }
    EXPECT_EQ(testing::readFile(zshrc), plan[0].after);
    EXPECT_EQ(testing::readFile(shell.stateFile()), saved);
    EXPECT_FALSE(testing::exists(root / "..dir.veerline-tmp." + std::to_string(::getpid())));
}

TEST(InstallStateTest, DecodingIsLenientAboutExtrasAndStrictAboutTypes) {
    auto state = InstallState::decoded(
        R"({"version": 7, "extra": [1], "files": [{"path": "/p", "existedBefore": false,
            "addedNewline": true, "installedSHA256": "h", "backupPath": null, "other": 1}]})");
    ASSERT_TRUE(state);
    EXPECT_EQ(state->version, 7);
    EXPECT_EQ(state->installedAt, std::nullopt);
    ASSERT_EQ(state->files.size(), 1u);
    EXPECT_EQ(state->files[0], (FileRecord{"/p", false, std::nullopt, true, "h"}));
    EXPECT_EQ(InstallState::decoded(R"({"version": 2.0, "files": []})")->version, 2);

    for (const char* broken : {"", "{", "[]", "not json", R"({"files": []})", R"({"version": 1})",
                               R"({"version": "1", "files": []})", R"({"version": 1.5, "files": []})",
                               R"({"version": 1, "files": {}})", R"({"version": 1, "files": [1]})",
                               R"({"version": 1, "installedAt": 5, "files": []})",
                               R"({"version": 1, "files": [{"path": "/p", "existedBefore": false,
                                   "addedNewline": true}]})",
                               R"({"version": 1, "files": [{"path": "/p", "existedBefore": 0,
                                   "addedNewline": true, "installedSHA256": "h"}]})"}) {
        EXPECT_EQ(InstallState::decoded(broken), std::nullopt) << broken;
    }
}

}  // namespace
}  // namespace veerline
