#include "resolution/shim_plan.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace veerline {
namespace {

using testing::TempDir;

class ShimPlanTest : public ::testing::Test {
protected:
    TempDir dir;
    Paths paths{dir / "home", "/Applications"};
    std::string project = dir / "home/work/project";
    std::string elsewhere = dir / "home/other";
    ProfileDocument document;
    Profile work{ProfileID("work"), "Work"};
    Profile personal{ProfileID("personal"), "Personal", ProfileColor::green, std::nullopt,
                     {toolkind::allCases.begin(), toolkind::allCases.end()}, Profile::Storage::system};
    Profile codexOnly{ProfileID("codex-only"), "Codex only", ProfileColor::blue, std::nullopt,
                      {ToolKind::codex}};

    void SetUp() override {
        testing::makeDirs(project);
        testing::makeDirs(elsewhere);
        testing::makeDirs(dir / "home/sys");
        testing::makeDirs(dir / "home/codex-only");
        document.profiles = {work, personal, codexOnly};
        document.rules = {{"~/work", work.id}, {"~/sys", personal.id}, {"~/codex-only", codexOnly.id}};
    }

    std::string claudeFolder() const { return paths.dataDirectory(ToolKind::claudeCode, work.id); }

    ShimPlan::Changes plan(const std::string& tool, const Environment& environment, const std::string& cwd) {
        return ShimPlan::changes(tool, environment, cwd, document, paths);
    }
};

TEST_F(ShimPlanTest, UserExportedVariableWinsAndDropsInheritedProfile) {
    Environment environment{{"CLAUDE_CONFIG_DIR", "/mine"}, {"VEERLINE_PROFILE", "Old"}};
    auto changes = plan("claude", environment, project);
    EXPECT_TRUE(changes.set.empty());
    EXPECT_EQ(changes.unset, std::vector<std::string>{"VEERLINE_PROFILE"});
    EXPECT_FALSE(changes.profile.has_value());
    EXPECT_FALSE(changes.prepare.has_value());
    EXPECT_EQ(changes.applied(environment), (Environment{{"CLAUDE_CONFIG_DIR", "/mine"}}));
}

TEST_F(ShimPlanTest, InheritedManagedVariablesRemovedWhereNoProfileApplies) {
    Environment environment{{"CLAUDE_CONFIG_DIR", "/old"},
                            {"VEERLINE_PROFILE", "Work"},
                            {"VEERLINE_MANAGED_VARS", "CLAUDE_CONFIG_DIR"},
                            {"KEEP", "1"}};
    for (const std::string& cwd : {elsewhere, dir / "home/codex-only"}) {
        auto changes = plan("claude", environment, cwd);
        EXPECT_TRUE(changes.set.empty()) << cwd;
        EXPECT_EQ(changes.unset, (std::vector<std::string>{"CLAUDE_CONFIG_DIR", "VEERLINE_MANAGED_VARS",
                                                           "VEERLINE_PROFILE"}))
            << cwd;
        EXPECT_EQ(changes.applied(environment), (Environment{{"KEEP", "1"}})) << cwd;
    }
}

TEST_F(ShimPlanTest, PrepareCreatesMissingDataFoldersOnly) {
    auto claude = plan("claude", {}, project);
    ShimPlan::prepare(claude, "claude", paths, {});
    EXPECT_TRUE(PathUtil::isDirectory(claudeFolder()));

    // Codex is prepared again while its folder lacks config.toml.
    std::string codexFolder = paths.dataDirectory(ToolKind::codex, work.id);
    testing::makeDirs(codexFolder);
    auto codex = plan("codex", {}, project);
    ShimPlan::prepare(codex, "codex", paths, {});
    EXPECT_TRUE(PathUtil::isRegularFile(codexFolder + "/config.toml"));

    // An existing config.toml is left alone.
    testing::writeFile(codexFolder + "/config.toml", "# mine\n");
    ShimPlan::prepare(codex, "codex", paths, {});
    EXPECT_EQ(testing::readFile(codexFolder + "/config.toml"), "# mine\n");
}

}  // namespace
}  // namespace veerline
