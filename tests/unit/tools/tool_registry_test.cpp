#include "tools/tool_registry.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace veerline {
namespace {

class ToolRegistryTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    Paths paths{dir / "home", dir / "Applications"};
    ToolContext context{paths, {{"HOME", dir / "home"}, {"PATH", "/nonexistent"}}};

    static Profile profile(std::vector<ToolKind> tools, Profile::Storage storage = Profile::Storage::managed) {
        return Profile(ProfileID("work-ab12"), "Work Stuff", ProfileColor::blue, std::nullopt, std::move(tools),
                       storage);
    }
};

TEST_F(ToolRegistryTest, AdaptersComeInTheDoctorsOrder) {
    auto adapters = ToolRegistry::cliAdapters(context);
    ASSERT_EQ(adapters.size(), 2u);
    EXPECT_EQ(adapters[0]->kind(), ToolKind::claudeCode);
    EXPECT_EQ(adapters[1]->kind(), ToolKind::codex);
    EXPECT_EQ(adapters[0]->context(), context);
    EXPECT_EQ(adapters[1]->context(), context);
    EXPECT_EQ(ToolRegistry::managedVariables[0], "CLAUDE_CONFIG_DIR");
    EXPECT_EQ(ToolRegistry::managedVariables[1], "CODEX_HOME");
}

TEST_F(ToolRegistryTest, EnvironmentCoversOnlyTheProfilesTools) {
    std::string support = paths.supportDirectory();
    EXPECT_EQ(ToolRegistry::environment(profile({ToolKind::codex}), context),
              (Environment{{"VEERLINE_PROFILE", "Work Stuff"}, {"CODEX_HOME", support + "/codex/work-ab12"}}));
    EXPECT_EQ(ToolRegistry::environment(profile({ToolKind::claudeDesktop, ToolKind::claudeCode, ToolKind::codex}),
                                        context),
              (Environment{{"VEERLINE_PROFILE", "Work Stuff"},
                           {"CLAUDE_CONFIG_DIR", support + "/claude-code/work-ab12"},
                           {"CODEX_HOME", support + "/codex/work-ab12"}}));
    EXPECT_EQ(ToolRegistry::environment(profile({ToolKind::chatGPTApp}), context),
              (Environment{{"VEERLINE_PROFILE", "Work Stuff"}}));
}

TEST_F(ToolRegistryTest, SystemProfileAndNoProfile) {
    EXPECT_EQ(ToolRegistry::environment(profile({ToolKind::claudeCode, ToolKind::codex}, Profile::Storage::system),
                                        context),
              (Environment{{"VEERLINE_PROFILE", "Work Stuff"}}));
    EXPECT_EQ(ToolRegistry::environment(std::optional<Profile>(), context), Environment{});
}

}  // namespace
}  // namespace veerline
