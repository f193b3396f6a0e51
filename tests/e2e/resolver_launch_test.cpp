// The installed shims in a temporary HOME with a real profiles file: what the real tool receives
// in folders covered by rules, dotfiles and the terminal default.

#include <unistd.h>

#include <gtest/gtest.h>

#include <sstream>

#include "support/test_support.h"
#include "tools/codex_adapter.h"

namespace veerline::testing {
namespace {

class ResolverLaunchTest : public ::testing::Test {
protected:
    TempDir root{"veerline-launch"};
    std::string home = root / "home";
    std::string shims = home + "/.veerline/bin";
    std::string tools = root / "tools";
    std::string support = home + "/Library/Application Support/Veerline";

    void SetUp() override {
        makeSymlink(VEERLINE_RESOLVE_BINARY, shims + "/claude");
        makeSymlink(VEERLINE_RESOLVE_BINARY, shims + "/codex");
        writeFakeTool(tools + "/claude");
        writeFakeTool(tools + "/codex");
        makeDirs(home + "/work/app/src");
        makeDirs(home + "/personal/notes");
        makeDirs(home + "/elsewhere");
        writeFile(home + "/personal/notes/.veerline", "# which account\nwork\n");
        writeProfiles(R"("cliDefault": "home",)");
    }

    void writeProfiles(const std::string& extra) {
        writeFile(support + "/profiles.json", R"({
  )" + extra + R"(
  "profiles": [
    {"id": "work", "name": "Work"},
    {"id": "home", "name": "Home", "tools": ["claude-code"], "storage": "system"},
    {"id": "codexy", "name": "Codexy", "tools": ["codex"]}
  ],
  "rules": [
    {"path": "~/work", "profileID": "work"},
    {"path": "~/personal", "profileID": "codexy"}
  ],
  "version": 1
}
)",
                  0600);
    }

    std::map<std::string, std::string> baseEnvironment(const std::string& cwd) const {
        return {{"HOME", home}, {"PATH", shims + ":" + tools + ":/usr/bin:/bin"}, {"PWD", cwd}};
    }

    RunResult runRaw(const std::string& tool, const std::string& cwd, std::map<std::string, std::string> extraEnv,
                     std::vector<std::string> rawEntries = {}) {
        RunOptions options;
        options.environment = baseEnvironment(cwd);
        for (auto& [name, value] : extraEnv) options.environment[name] = value;
        options.rawEntries = std::move(rawEntries);
        options.cwd = cwd;
        options.argv0 = tool;
        auto result = run(shims + "/" + tool, {"--flag"}, options);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.err, "");
        return result;
    }

    FakeToolReport runTool(const std::string& tool, const std::string& cwd,
                           std::map<std::string, std::string> extraEnv = {}) {
        return parseFakeToolReport(runRaw(tool, cwd, std::move(extraEnv)).out);
    }
};

TEST_F(ResolverLaunchTest, FolderRuleSetsManagedClaudeProfile) {
    auto report = runTool("claude", home + "/work/app/src");
    EXPECT_EQ(report.argv0, tools + "/claude");
    EXPECT_EQ(report.arguments, std::vector<std::string>{"--flag"});
    EXPECT_EQ(report.environment["CLAUDE_CONFIG_DIR"], support + "/claude-code/work");
    EXPECT_EQ(report.environment["VEERLINE_PROFILE"], "Work");
    EXPECT_EQ(report.environment["VEERLINE_MANAGED_VARS"], "CLAUDE_CONFIG_DIR");
    EXPECT_EQ(report.environment["VEERLINE_SHIM_DEPTH"], "1");
    EXPECT_EQ(report.environment.count("CODEX_HOME"), 0u);
    EXPECT_EQ(fileMode(support + "/claude-code/work"), 0700u);
}

TEST_F(ResolverLaunchTest, CodexGetsItsHomeAndStarterConfig) {
    auto report = runTool("codex", home + "/work");
    EXPECT_EQ(report.environment["CODEX_HOME"], support + "/codex/work");
    EXPECT_EQ(report.environment["VEERLINE_PROFILE"], "Work");
    EXPECT_EQ(readFile(support + "/codex/work/config.toml"), CodexAdapter::managedConfig());
}

TEST_F(ResolverLaunchTest, NestedShimKeepsBookkeepingRight) {
    // The real claude starts codex through the shim again, as a tool running a sub-tool would.
    writeFile(tools + "/claude", "#!/bin/sh\nexec codex \"$@\"\n", 0755);
    auto report = runTool("claude", home + "/work");
    EXPECT_EQ(report.argv0, tools + "/codex");
    EXPECT_EQ(report.environment["CLAUDE_CONFIG_DIR"], support + "/claude-code/work");
    EXPECT_EQ(report.environment["CODEX_HOME"], support + "/codex/work");
    EXPECT_EQ(report.environment["VEERLINE_MANAGED_VARS"], "CLAUDE_CONFIG_DIR,CODEX_HOME");
    EXPECT_EQ(report.environment["VEERLINE_SHIM_DEPTH"], "2");
}

TEST_F(ResolverLaunchTest, DisableAndUnreadableProfilesPassTheEnvironmentThrough) {
    auto disabled = runTool("claude", home + "/work", {{"VEERLINE_DISABLE", "1"}, {"VEERLINE_PROFILE", "Kept"}});
    EXPECT_EQ(disabled.environment.count("CLAUDE_CONFIG_DIR"), 0u);
    EXPECT_EQ(disabled.environment["VEERLINE_PROFILE"], "Kept");
    EXPECT_EQ(disabled.environment["VEERLINE_DISABLE"], "1");
    EXPECT_EQ(disabled.environment["VEERLINE_SHIM_DEPTH"], "1");

    writeFile(support + "/profiles.json", "{ not json", 0600);
    auto corrupt = runTool("claude", home + "/work");
    EXPECT_EQ(corrupt.environment.count("CLAUDE_CONFIG_DIR"), 0u);
    EXPECT_EQ(corrupt.environment.count("VEERLINE_PROFILE"), 0u);
}

TEST_F(ResolverLaunchTest, EverythingThePlanDoesNotChangeReachesTheTool) {
    // A variable the bookkeeping names is weighed like the tool's own; others pass untouched.
    auto report = runTool("claude", home + "/work",
                          {{"VEERLINE_MANAGED_VARS", "CLAUDE_CONFIG_DIR,EXTRA_TOKEN"},
                           {"EXTRA_TOKEN", "x"},
                           {"UNRELATED", "kept"}});
    auto expected = baseEnvironment(home + "/work");
    expected.insert({{"CLAUDE_CONFIG_DIR", support + "/claude-code/work"},
                     {"VEERLINE_MANAGED_VARS", "CLAUDE_CONFIG_DIR,EXTRA_TOKEN"},
                     {"VEERLINE_PROFILE", "Work"},
                     {"VEERLINE_SHIM_DEPTH", "1"},
                     {"EXTRA_TOKEN", "x"},
                     {"UNRELATED", "kept"}});
    EXPECT_EQ(report.environment, expected);

    // Repeated names keep their first definition only, as getenv reads them; entries that are
    // not "NAME=value" are left out.
    auto raw = runRaw("claude", home + "/work", {},
                      {"DUP=first", "DUP=second", "NOEQUALS", "VEERLINE_PROFILE=Old", "VEERLINE_PROFILE=Older"});
    auto lines = [&](const std::string& prefix) {
        std::vector<std::string> found;
        std::istringstream text(raw.out);
        for (std::string line; std::getline(text, line);) {
            if (line.starts_with(prefix)) found.push_back(line);
        }
        return found;
    };
    EXPECT_EQ(lines("ENV:DUP"), std::vector<std::string>{"ENV:DUP=first"});
    EXPECT_EQ(lines("ENV:NOEQUALS"), std::vector<std::string>{});
    EXPECT_EQ(lines("ENV:VEERLINE_PROFILE"), std::vector<std::string>{"ENV:VEERLINE_PROFILE=Work"});
}

}  // namespace
}  // namespace veerline::testing
