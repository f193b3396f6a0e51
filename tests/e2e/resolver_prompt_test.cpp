// Runs `veerline-resolve --prompt` in real folders of a temporary HOME with a hand-written
// profiles file.

#include <gtest/gtest.h>

#include <cstdio>

#include "support/test_support.h"

namespace veerline::testing {
namespace {

class ResolverPromptTest : public ::testing::Test {
protected:
    TempDir root{"veerline-prompt"};
    std::string home = root / "home";

    void SetUp() override {
        writeFile(home + "/Library/Application Support/Veerline/profiles.json", R"({"cliDefault": "home",
  "profiles": [{"badge": "W", "color": "blue", "id": "work", "name": "Work", "tools": ["claude-code", "codex"]},
               {"id": "side", "name": "Side Project"}, {"id": "home", "name": "Home", "storage": "system"}],
  "rules": [{"path": "~/work/**", "profileID": "work"}, {"path": "~/work/oss", "profileID": "side"}],
  "version": 1})", 0600);
        makeDirs(home + "/work/oss/lib");
        makeDirs(home + "/music");
    }

    // Standard output of a prompt run, which must succeed quietly.
    std::string promptIn(const std::string& cwd, const std::string& pwd = "") const {
        RunOptions options;
        options.environment = {{"HOME", home}, {"PATH", systemPath()}};
        if (!pwd.empty()) options.environment["PWD"] = pwd;
        options.cwd = cwd;
        RunResult result = run(VEERLINE_RESOLVE_BINARY, {"--prompt"}, options);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        return result.out;
    }
};

TEST_F(ResolverPromptTest, PrintsTheProfileOfTheWorkingFolder) {
    EXPECT_EQ(promptIn(home + "/work"), "Work\n");
    EXPECT_EQ(promptIn(home + "/work/oss/lib"), "Side Project\n");
    EXPECT_EQ(promptIn(home + "/music"), "Home\n");
    writeFile(home + "/work/oss/lib/.veerline", "# this checkout is mine\nhome\n");
    EXPECT_EQ(promptIn(home + "/work/oss/lib"), "Home\n");
    // A broken dotfile falls back quietly: warnings are not shown.
    writeFile(home + "/music/.veerline", "Nobody\n");
    EXPECT_EQ(promptIn(home + "/music"), "Home\n");

    // The logical working folder: the dotfile is only on the way up from the link, and a stale PWD
    // naming another folder is not believed.
    std::remove((home + "/music/.veerline").c_str());
    makeSymlink(home + "/music", root / "links/music");
    writeFile(root / "links/.veerline", "Work\n");
    EXPECT_EQ(promptIn(home + "/music", root / "links/music"), "Work\n");
    EXPECT_EQ(promptIn(home + "/music", home + "/work"), "Home\n");
}

TEST_F(ResolverPromptTest, AppPathNamingAMissingAppTurnsProfilesOff) {
    std::string appPath = home + "/.veerline/app-path";
    makeDirs(root / "Veerline.app");
    for (std::string kept : {"\n  " + root / "Veerline.app" + " \t\n", std::string("   \n"), std::string("\xFF\xFE not text")}) {
        writeFile(appPath, kept);
        EXPECT_EQ(promptIn(home + "/work"), "Work\n");
    }
    writeFile(appPath, root / "Gone.app\n");
    EXPECT_EQ(promptIn(home + "/work"), "");
}

}  // namespace
}  // namespace veerline::testing
