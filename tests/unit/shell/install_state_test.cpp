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

TEST(InstallStateTest, EncodesWithSortedKeysAndFinalLineFeed) {
    InstallState state;
    state.installedAt = "2026-11-16T14:52:56Z";
    state.files.push_back({"/home/u/.zshrc", true, "/home/u/.veerline/backups/zshrc.20261116-145256", true,
                           std::string(64, 'a')});
    state.files.push_back({"/home/u/.bashrc", false, std::nullopt, false, std::string(64, 'b')});
    EXPECT_EQ(state.encoded("~/.veerline/install.json"),
              "{\n"
              "  \"files\": [\n"
              "    {\n"
              "      \"addedNewline\": true,\n"
              "      \"backupPath\": \"/home/u/.veerline/backups/zshrc.20261116-145256\",\n"
              "      \"existedBefore\": true,\n"
              "      \"installedSHA256\": \"" + std::string(64, 'a') + "\",\n"
              "      \"path\": \"/home/u/.zshrc\"\n"
              "    },\n"
              "    {\n"
              "      \"addedNewline\": false,\n"
              "      \"existedBefore\": false,\n"
              "      \"installedSHA256\": \"" + std::string(64, 'b') + "\",\n"
              "      \"path\": \"/home/u/.bashrc\"\n"
              "    }\n"
              "  ],\n"
              "  \"installedAt\": \"2026-11-16T14:52:56Z\",\n"
              "  \"version\": 1\n"
              "}\n");
    EXPECT_EQ(InstallState::decoded(state.encoded("x")), state);
    EXPECT_EQ(InstallState{}.encoded("x"), "{\n  \"files\": [],\n  \"version\": 1\n}\n");

    InstallState bad;
    bad.files.push_back({"/home/u/caf\xE9", false, std::nullopt, false, ""});
    try {
        bad.encoded("~/.veerline/install.json");
        ADD_FAILURE() << "no error";
    } catch (const VeerlineError& error) {
        EXPECT_EQ(std::string(error.what()).rfind("Couldn't write ~/.veerline/install.json: ", 0), 0u);
    }
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

TEST_F(InstallRecordTest, PlanUninstall) {
    testing::writeFile(zshrc, "export A=1");
    testing::writeFile(home + "/.bashrc", "b\n");
    testing::writeFile(home + "/.bash_profile", "p\n");
    installShellFiles();

    // ~/.zshrc untouched: the backup returns. ~/.bashrc edited: only the block goes.
    std::string bashrc = testing::readFile(home + "/.bashrc") + "echo later\n";
    testing::writeFile(home + "/.bashrc", bashrc);
    // A recorded file that is gone is not planned.
    ::unlink((home + "/.bash_profile").c_str());

    auto plan = shell.planUninstall();
    ASSERT_EQ(plan.size(), 2u);
    EXPECT_EQ(plan[0], (ShellIntegration::FileChange{home + "/.bashrc", true, bashrc, "b\necho later\n"}));
    EXPECT_EQ(plan[1].path, zshrc);
    EXPECT_EQ(plan[1].after, "export A=1");

    // A file whose block the user already removed plans no change.
    testing::writeFile(home + "/.bashrc", "b\n");
    plan = shell.planUninstall();
    EXPECT_FALSE(plan[0].changes());
}

TEST_F(InstallRecordTest, PlanUninstallWithoutRecordOrBackup) {
    testing::writeFile(zshrc, "export A=1");
    installShellFiles();
    auto state = shell.loadState();
    ASSERT_TRUE(state);

    // The backup is gone: the block is removed and the added line feed dropped again.
    ::unlink(state->files[0].backupPath->c_str());
    EXPECT_EQ(shell.planUninstall()[0].after, "export A=1");

    // Without the record, uninstall can only remove the block.
    ::unlink(shell.stateFile().c_str());
    EXPECT_EQ(shell.planUninstall()[0].after, "export A=1\n");
}

TEST_F(InstallRecordTest, CreatedFileWithUserLinesStays) {
    installShellFiles();
    testing::writeFile(zshrc, testing::readFile(zshrc) + "alias x=y\n");
    shell.applyUninstall(shell.planUninstall());
    EXPECT_EQ(testing::readFile(zshrc), "alias x=y\n");
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

}  // namespace
}  // namespace veerline
