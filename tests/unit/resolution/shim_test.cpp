// The shim's two decisions: which real tool to start, and how its environment changes.

#include <gtest/gtest.h>

#include "resolution/binary_locator.h"
#include "resolution/shim_plan.h"
#include "support/test_support.h"

namespace veerline::testing {
namespace {

TEST(ShimTest, FindsTheFirstExecutableOnAbsolutePathEntriesOutsideTheShimFolder) {
    TempDir dir;
    const std::string shims = dir / "home/.veerline/bin", real = dir / "real";
    writeFile(shims + "/claude", "#!/bin/sh\n", 0755);
    writeFile(real + "/claude", "#!/bin/sh\n", 0755);
    writeFile(dir / "plain/claude", "x", 0644);
    makeDirs(dir / "folder/claude");
    EXPECT_EQ(BinaryLocator("real:.:" + dir / "plain" + ":" + dir / "folder" + "::" + real, {}).find("claude"), real + "/claude");
    EXPECT_EQ(BinaryLocator("", {}).find("claude"), std::nullopt);
    EXPECT_EQ(BinaryLocator(real, {}).find("codex"), std::nullopt);
    Paths paths(dir / "home", "/Applications");
    EXPECT_EQ(BinaryLocator({{"PATH", shims + ":" + real}}, paths).find("claude"), real + "/claude");
    EXPECT_EQ(BinaryLocator({}, paths).searchPath, "/usr/bin:/bin:/usr/sbin:/sbin");
}

TEST(ShimTest, PlansTheProfilesVariablesAndDropsWhatAnEarlierShimLeft) {
    TempDir dir;
    Paths paths(dir / "home", "/Applications");
    makeDirs(dir / "home/work");
    ProfileDocument document;
    document.profiles = {Profile{ProfileID("work"), "Work"}};
    document.rules = {{"~/work", ProfileID("work")}};
    const std::string folder = paths.dataDirectory(ToolKind::claudeCode, ProfileID("work"));
    const struct {
        std::string folder;
        Environment given, expected;
    } cases[] = {
        {"work", {{"KEEP", "1"}},
         {{"KEEP", "1"}, {"CLAUDE_CONFIG_DIR", folder}, {"VEERLINE_MANAGED_VARS", "CLAUDE_CONFIG_DIR"}, {"VEERLINE_PROFILE", "Work"}}},
        {"work", {{"CLAUDE_CONFIG_DIR", "/mine"}, {"VEERLINE_PROFILE", "Old"}}, {{"CLAUDE_CONFIG_DIR", "/mine"}}},
        {"", {{"CLAUDE_CONFIG_DIR", "/old"}, {"VEERLINE_PROFILE", "Work"}, {"VEERLINE_MANAGED_VARS", "CLAUDE_CONFIG_DIR"}, {"KEEP", "1"}},
         {{"KEEP", "1"}}},
    };
    for (const auto& [where, given, expected] : cases) {
        EXPECT_EQ(ShimPlan::changes("claude", given, dir / "home/" + where, document, paths).applied(given), expected) << where;
    }
    // A profile whose id can't name a folder of its own is passed over like no profile at all.
    const Environment inherited = cases[2].given;
    for (const std::string id : {"work", "../work", ""}) {
        ProfileDocument crafted = document;
        crafted.profiles = {Profile{ProfileID(id), "Work"}, Profile{ProfileID("work"), "Twin"}};
        crafted.rules[0].profileID = ProfileID(id);
        auto changes = ShimPlan::changes("claude", inherited, dir / "home/work", crafted, paths);
        EXPECT_EQ(changes.applied(inherited), (Environment{{"KEEP", "1"}})) << id;
        EXPECT_FALSE(changes.prepare) << id;
    }

    // Preparing creates what is missing only: Codex's folder again while it lacks config.toml.
    const std::string codex = paths.dataDirectory(ToolKind::codex, ProfileID("work"));
    makeDirs(codex);
    auto prepare = [&](const std::string& tool) {
        ShimPlan::prepare(ShimPlan::changes(tool, {}, dir / "home/work", document, paths), tool, paths, {});
    };
    prepare("claude");
    prepare("codex");
    EXPECT_TRUE(PathUtil::isDirectory(folder) && PathUtil::isRegularFile(codex + "/config.toml"));
    writeFile(codex + "/config.toml", "# mine\n");
    prepare("codex");
    EXPECT_EQ(readFile(codex + "/config.toml"), "# mine\n");
}

}  // namespace
}  // namespace veerline::testing
