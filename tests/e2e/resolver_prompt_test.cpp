// Runs `veerline-resolve --prompt` in real folders of a temporary HOME with a hand-written
// profiles file.

#include <gtest/gtest.h>

#include <cstdio>

#include "support/test_support.h"

namespace veerline::testing {
namespace {

const char* const kProfiles = R"({
  "cliDefault" : "home",
  "profiles" : [
    {
      "badge" : "W",
      "color" : "blue",
      "id" : "work",
      "name" : "Work",
      "storage" : "managed",
      "tools" : [ "claude-code", "codex" ]
    },
    { "id" : "side", "name" : "Side Project" },
    { "id" : "home", "name" : "Home", "storage" : "system" }
  ],
  "rules" : [
    { "path" : "~/work/**", "profileID" : "work" },
    { "path" : "~/work/oss", "profileID" : "side" }
  ],
  "version" : 1
}
)";

class ResolverPromptTest : public ::testing::Test {
protected:
    TempDir root{"veerline-prompt"};
    std::string home = root / "home";
    std::string profilesFile = home + "/Library/Application Support/Veerline/profiles.json";

    void SetUp() override {
        writeFile(profilesFile, kProfiles, 0600);
        makeDirs(home + "/work/oss/lib");
        makeDirs(home + "/music");
    }

    std::map<std::string, std::string> baseEnv() const { return {{"HOME", home}, {"PATH", systemPath()}}; }

    RunResult prompt(const std::string& cwd, std::map<std::string, std::string> env,
                     std::vector<std::string> args = {"--prompt"}) const {
        RunOptions options;
        options.environment = std::move(env);
        options.cwd = cwd;
        return run(VEERLINE_RESOLVE_BINARY, args, options);
    }

    // Standard output of a prompt run, which must succeed quietly.
    std::string promptIn(const std::string& cwd, std::map<std::string, std::string> env) const {
        RunResult result = prompt(cwd, std::move(env));
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        return result.out;
    }
    std::string promptIn(const std::string& cwd) const { return promptIn(cwd, baseEnv()); }
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
}

TEST_F(ResolverPromptTest, PrintsNothingWhereNoProfileApplies) {
    writeFile(profilesFile, R"({"version": 1, "profiles": [{"id": "work", "name": "Work"}],
        "rules": [{"path": "~/work", "profileID": "work"}], "cliDefault": null})");
    EXPECT_EQ(promptIn(home + "/music"), "");
    EXPECT_EQ(promptIn(root.path()), "");
    EXPECT_EQ(promptIn(home + "/work/oss"), "Work\n");

    std::remove(profilesFile.c_str());
    EXPECT_EQ(promptIn(home + "/work"), "");
}

TEST_F(ResolverPromptTest, UsesTheLogicalWorkingFolderThroughSymbolicLinks) {
    // The dotfile is only on the way up from the link, not from the real folder.
    makeSymlink(home + "/music", root / "links/music");
    writeFile(root / "links/.veerline", "Work\n");
    auto env = baseEnv();
    env["PWD"] = root / "links/music";
    EXPECT_EQ(promptIn(home + "/music", env), "Work\n");

    env["PWD"] = home + "/work";  // stale: names another folder
    EXPECT_EQ(promptIn(home + "/music", env), "Home\n");
}

TEST_F(ResolverPromptTest, DisableSwitchOnlyForExactlyOne) {
    auto env = baseEnv();
    env["VEERLINE_DISABLE"] = "1";
    EXPECT_EQ(promptIn(home + "/work", env), "");
    for (const char* other : {"0", "true", "", " 1"}) {
        env["VEERLINE_DISABLE"] = other;
        EXPECT_EQ(promptIn(home + "/work", env), "Work\n") << "VEERLINE_DISABLE=" << other;
    }
}

TEST_F(ResolverPromptTest, AppPathNamingAMissingAppTurnsProfilesOff) {
    std::string appPath = home + "/.veerline/app-path";
    std::string app = root / "Veerline.app";
    makeDirs(app);
    writeFile(appPath, "\n  " + app + " \t\n");
    EXPECT_EQ(promptIn(home + "/work"), "Work\n");

    writeFile(appPath, "   \n");
    EXPECT_EQ(promptIn(home + "/work"), "Work\n");
    writeFile(appPath, "\xFF\xFE not text");
    EXPECT_EQ(promptIn(home + "/work"), "Work\n");

    writeFile(appPath, root / "Gone.app\n");
    EXPECT_EQ(promptIn(home + "/work"), "");
}

TEST_F(ResolverPromptTest, UnloadableProfilesFilePrintsNothing) {
    writeFile(profilesFile, R"({"version": 2, "profiles": [{"id": "work", "name": "Work"}],
        "rules": [{"path": "~/work", "profileID": "work"}]})");
    EXPECT_EQ(promptIn(home + "/work"), "");

    writeFile(profilesFile, R"({"version": 1, "profiles": [{"id": "work", "name": "Work", "color": "red"}],
        "rules": []})");
    EXPECT_EQ(promptIn(home + "/work"), "");

    writeFile(profilesFile, "not json");
    EXPECT_EQ(promptIn(home + "/work"), "");
}

TEST_F(ResolverPromptTest, ArgumentsAfterPromptAreIgnored) {
    RunResult result = prompt(home + "/work", baseEnv(), {"--prompt", "--version", "extra words"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "Work\n");
    EXPECT_EQ(result.err, "");
}

}  // namespace
}  // namespace veerline::testing
