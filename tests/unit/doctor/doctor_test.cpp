#include "doctor/doctor.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/platform.h"
#include "profiles/profile_store.h"
#include "shell/shell_integration.h"
#include "support/test_support.h"

namespace veerline {

void PrintTo(const DoctorCheck& check, std::ostream* out) {
    *out << check.toJSON().dump();
}

namespace {

using Level = DoctorCheck::Level;
using nlohmann::json;

// A temporary home, a folder of real tools on PATH, and a doctor over both.
class DoctorTest : public ::testing::Test {
protected:
    testing::TempDir root{"veerline-doctor"};
    std::string home = root / "home";
    std::string tools = root / "tools";
    Paths paths{home, root / "Applications"};
    Environment environment{{"HOME", home}, {"PATH", tools}};
    ProfileDocument document;

    void SetUp() override { testing::makeDirs(tools); }

    static Profile profile(const std::string& id, const std::string& name, std::vector<ToolKind> tools) {
        return Profile(ProfileID(id), name, ProfileColor::blue, std::nullopt, std::move(tools));
    }

    std::vector<DoctorCheck> run(bool deep = false) const {
        return Doctor(ToolContext{paths, environment}, [this] { return document; }).run(deep);
    }

    static std::vector<DoctorCheck> withID(const std::vector<DoctorCheck>& checks, const std::string& id) {
        std::vector<DoctorCheck> found;
        for (const auto& check : checks) {
            if (check.id == id) found.push_back(check);
        }
        return found;
    }

    std::optional<DoctorCheck> only(const std::string& id, bool deep = false) const {
        auto found = withID(run(deep), id);
        EXPECT_LE(found.size(), 1u) << id;
        return found.empty() ? std::nullopt : std::optional(found[0]);
    }
};

TEST_F(DoctorTest, AMissingProfilesFileIsEmptyAndACorruptOneFailsWithoutStoppingTheRun) {
    auto fromStore = [&] {
        return Doctor(ToolContext{paths, environment}, [store = ProfileStore(paths)] { return store.load(); }).run(false);
    };
    auto missing = fromStore();
    EXPECT_EQ(missing[0], DoctorCheck("profiles", Level::ok, "Profiles file is readable", "0 profiles, 0 folder rules"));

    testing::writeFile(paths.profilesFile(), "{ not json");
    auto corrupt = fromStore();
    ASSERT_EQ(corrupt[0].id, "profiles");
    EXPECT_EQ(corrupt[0].level, Level::failure);
    EXPECT_EQ(corrupt[0].title, "Profiles file can't be read");
    EXPECT_TRUE(corrupt[0].detail->starts_with("Couldn't read " + paths.profilesFile() + ": "))
        << *corrupt[0].detail;
    EXPECT_EQ(corrupt[0].fix, "Restore ~/Library/Application Support/Veerline/profiles.json from a backup, or delete "
                              "it to start over.");
    EXPECT_EQ(corrupt[1].id, "binary.claude-code");

    document.profiles = {profile("a", "A", {ToolKind::claudeCode})};
    document.rules = {{"/", ProfileID("a")}};
    EXPECT_EQ(only("profiles")->detail, "1 profile, 1 folder rule");
}

TEST_F(DoctorTest, BinariesFoundMissingOrInsideTheDesktopApp) {
    EXPECT_EQ(only("binary.claude-code"), DoctorCheck("binary.claude-code", Level::info, "Claude Code isn't installed",
                                                      "No `claude` on PATH outside ~/.veerline/bin."));
    document.profiles = {profile("a", "A", {ToolKind::codex})};
    EXPECT_EQ(only("binary.codex"),
              DoctorCheck("binary.codex", Level::warning, "Codex isn't installed",
                          "No `codex` on PATH outside ~/.veerline/bin.",
                          "Install Codex, or turn it off for your profiles."));

    std::string bundled = paths.applicationsDirectory + "/ChatGPT.app/Contents/Resources/codex-cli/bin/codex";
    testing::writeFile(bundled, "#!/bin/sh\n", 0755);
    EXPECT_EQ(only("binary.codex"), DoctorCheck("binary.codex", Level::ok, "Codex found", bundled));

    testing::writeFile(tools + "/claude", "#!/bin/sh\n", 0755);
    EXPECT_EQ(only("binary.claude-code"), DoctorCheck("binary.claude-code", Level::ok, "Claude Code found", tools + "/claude"));
}

TEST_F(DoctorTest, ShimReachedFirstOrSkipped) {
    const std::string fix = "Move the Veerline block to the end of your shell file (`veerline shell install` does "
                            "this), then open a new terminal.";
    EXPECT_EQ(only("shim.claude-code")->title, "Shell integration for `claude` isn't installed");

    testing::writeFile(paths.shimDirectory() + "/claude", "#!/bin/sh\n", 0755);
    testing::writeFile(tools + "/claude", "#!/bin/sh\n", 0755);
    testing::makeSymlink(paths.shimDirectory(), home + "/shims-link");
    const struct {
        std::string path;
        std::optional<DoctorCheck> expected;
    } cases[] = {
        {paths.shimDirectory() + "/:" + tools, DoctorCheck("shim.claude-code", Level::ok, "`claude` goes through Veerline")},
        {home + "/shims-link:" + tools, DoctorCheck("shim.claude-code", Level::ok, "`claude` goes through Veerline")},
        {tools + ":" + paths.shimDirectory(),
         DoctorCheck("shim.claude-code", Level::warning, "`claude` skips Veerline in this shell",
                     "PATH finds " + tools + "/claude before ~/.veerline/bin.", fix)},
        {root / "empty",
         DoctorCheck("shim.claude-code", Level::warning, "`claude` skips Veerline in this shell",
                     "PATH finds nothing before ~/.veerline/bin.", fix)},
    };
    for (const auto& entry : cases) {
        environment["PATH"] = entry.path;
        EXPECT_EQ(only("shim.claude-code"), entry.expected) << entry.path;
    }
}

TEST_F(DoctorTest, EnvironmentVariablesSetByTheUserOrByTheShim) {
    EXPECT_TRUE(withID(run(), "env.CLAUDE_CONFIG_DIR").empty());
    environment["CLAUDE_CONFIG_DIR"] = home + "/.claude-work";
    EXPECT_EQ(only("env.CLAUDE_CONFIG_DIR"),
              DoctorCheck("env.CLAUDE_CONFIG_DIR", Level::warning, "You export CLAUDE_CONFIG_DIR yourself",
                          "CLAUDE_CONFIG_DIR=~/.claude-work. Veerline leaves it alone, so folder rules won't change it.",
                          "Remove the `export CLAUDE_CONFIG_DIR=…` line from your shell file if you want Veerline to "
                          "choose."));
    environment["VEERLINE_MANAGED_VARS"] = "CODEX_HOME,CLAUDE_CONFIG_DIR";
    EXPECT_EQ(only("env.CLAUDE_CONFIG_DIR"), DoctorCheck("env.CLAUDE_CONFIG_DIR", Level::info,
                                                         "CLAUDE_CONFIG_DIR was set by Veerline",
                                                         "Profile ? is active in this shell."));
    environment["VEERLINE_PROFILE"] = "Work";
    EXPECT_EQ(only("env.CLAUDE_CONFIG_DIR")->detail, "Profile Work is active in this shell.");

    environment["ANTHROPIC_API_KEY"] = "sk-1";
    environment["CODEX_API_KEY"] = "sk-2";
    auto checks = run();
    auto key = std::find_if(checks.begin(), checks.end(), [](const auto& c) { return c.id == "env.ANTHROPIC_API_KEY"; });
    ASSERT_NE(key, checks.end());
    EXPECT_EQ(*key, DoctorCheck("env.ANTHROPIC_API_KEY", Level::warning, "ANTHROPIC_API_KEY is set in your environment",
                                "It overrides profile logins, so usage goes to whatever account that key belongs to.",
                                "Remove `export ANTHROPIC_API_KEY=…` from your shell file unless you mean to use it "
                                "everywhere."));
    EXPECT_EQ(std::next(key)->id, "env.CODEX_API_KEY");
}

TEST_F(DoctorTest, RulesBlocksSwitchersAndAliases) {
    testing::makeDirs(home + "/work");
    document.profiles = {profile("w", "Work", {ToolKind::claudeCode})};
    document.rules = {{"~/work/**", ProfileID("w")}, {"~/gone", ProfileID("w")}, {"/nowhere it's", ProfileID("x")}};
    auto rules = withID(run(), "rule.missing");
    ASSERT_EQ(rules.size(), 2u);
    EXPECT_EQ(rules[0], DoctorCheck("rule.missing", Level::warning, "A folder rule points at a missing folder",
                                    "~/gone → Work. Was it moved or renamed?",
                                    "Update or remove the rule: `veerline rule remove '~/gone'`."));
    EXPECT_EQ(rules[1].detail, "/nowhere it's → ?. Was it moved or renamed?");
    EXPECT_EQ(rules[1].fix, "Update or remove the rule: `veerline rule remove '/nowhere it'\\''s'`.");

    testing::writeFile(home + "/.zshrc", ShellIntegration::block() + "# fine\n");
    testing::writeFile(home + "/.bashrc", ShellIntegration::block() + "export PATH=/opt/bin:$PATH\n");
    EXPECT_EQ(only("shell.block"),
              DoctorCheck("shell.block", Level::warning, "Something in ~/.bashrc comes after the Veerline block",
                          "Lines after it can put another `claude` or `codex` ahead of the shim in new terminals.",
                          "Run `veerline shell install --yes` to move the block to the end."));

    EXPECT_EQ(only("conflicts")->level, Level::ok);
    testing::writeFile(tools + "/ccswitch", "#!/bin/sh\n", 0755);
    testing::writeFile(tools + "/cswap", "not executable");
    EXPECT_EQ(only("conflicts"), DoctorCheck("conflicts", Level::warning, "Other account-switching tools are installed",
                                             tools + "/ccswitch",
                                             "Use one switcher at a time. Uninstall the others, or stop using them "
                                             "for Claude and Codex."));

    EXPECT_EQ(only("aliases"), std::nullopt);
    testing::writeFile(home + "/.zshrc", "  alias claude='claude --x'\n# alias codex=x\n\tcodex () { :; }\nclaudette=1\n");
    testing::writeFile(home + "/.profile", "function claude {\n}\n");
    EXPECT_EQ(only("aliases"), DoctorCheck("aliases", Level::warning, "A shell alias or function bypasses Veerline",
                                           "~/.zshrc:1 (claude), ~/.zshrc:3 (codex), ~/.profile:1 (claude)",
                                           "Remove or rename the alias so `claude` and `codex` reach the Veerline shim."));
}

TEST_F(DoctorTest, DesktopAndDataFolders) {
    document.profiles = {profile("w", "Work", {ToolKind::claudeDesktop, ToolKind::claudeCode})};
    if (!platform::hasApplicationBundles()) {
        EXPECT_EQ(only("desktop"), DoctorCheck("desktop", Level::info, "Claude Desktop isn't installed",
                                               "There is no Linux version; Veerline manages the command-line tools here."));
    }
    Doctor withApp(ToolContext{paths, environment}, [this] { return document; }, DesktopInstall(home + "/C.app", ""));
    EXPECT_EQ(withID(withApp.run(false), "desktop")[0].detail, "~/C.app, version ");

    EXPECT_EQ(only("datadirs"), DoctorCheck("datadirs", Level::ok, "Data folders are writable"));
    if (::geteuid() == 0) GTEST_SKIP() << "root writes everywhere";
    std::string locked = paths.dataDirectory(ToolKind::claudeCode, ProfileID("w"));
    testing::makeDirs(locked, 0500);
    EXPECT_EQ(only("datadirs"),
              DoctorCheck("datadirs", Level::failure, "Some data folders aren't writable",
                          "~/Library/Application Support/Veerline/claude-code/w",
                          "Fix ownership with `sudo chown -R $USER '~/Library/Application Support/Veerline'`."));
    ::chmod(locked.c_str(), 0700);
}

TEST_F(DoctorTest, DeepRunsReportEverySignInInOrderAndSharedAccounts) {
    // Each profile's answer lies in its data folder; the first answers last.
    testing::writeFile(tools + "/claude",
                       "#!/bin/sh\n[ -f \"$CLAUDE_CONFIG_DIR/slow\" ] && sleep 0.3\ncat \"$CLAUDE_CONFIG_DIR/answer\"\n",
                       0755);
    document.profiles = {profile("a", "Ann", {ToolKind::claudeCode}), profile("b", "Bob", {ToolKind::claudeCode}),
                         profile("c", "Cy", {ToolKind::claudeCode}), profile("d", "Di", {ToolKind::claudeCode}),
                         profile("e", "Ed", {ToolKind::codex})};
    const std::map<std::string, std::string> answers = {
        {"a", R"({"loggedIn": true, "email": "Ann@Example.com", "authMethod": "claude.ai", "subscriptionType": "max"})"},
        {"b", "garbage"},
        {"c", R"({"loggedIn": true, "email": "ann@example.com"})"},
        {"d", R"({"loggedIn": true, "email": "ann@example.com", "orgId": "other"})"}};
    for (const auto& [id, answer] : answers) {
        testing::writeFile(paths.dataDirectory(ToolKind::claudeCode, ProfileID(id)) + "/answer", answer);
    }
    testing::writeFile(paths.dataDirectory(ToolKind::claudeCode, ProfileID("a")) + "/slow", "");
    environment["PATH"] = tools + ":/usr/bin:/bin";

    auto shallow = run(false);
    EXPECT_TRUE(std::none_of(shallow.begin(), shallow.end(), [](const auto& c) {
        return c.id.starts_with("status.") || c.id.starts_with("account.same.");
    }));

    auto deep = run(true);
    std::vector<DoctorCheck> tail(deep.end() - 6, deep.end());
    EXPECT_EQ(std::vector(deep.begin(), deep.end() - 6), shallow);
    EXPECT_EQ(tail, (std::vector<DoctorCheck>{
                        {"status.a.claude-code", Level::ok, "Ann · Claude Code: Signed in", "Ann@Example.com · max · claude.ai"},
                        {"status.b.claude-code", Level::warning, "Bob · Claude Code: Needs attention",
                         "Couldn't read `claude auth status` (exit 0).", "Sign in again: `veerline login Bob claude-code`."},
                        {"status.c.claude-code", Level::ok, "Cy · Claude Code: Signed in", "ann@example.com"},
                        {"status.d.claude-code", Level::ok, "Di · Claude Code: Signed in", "ann@example.com"},
                        {"account.same.claude-code", Level::warning, "Ann and Cy use the same Claude Code account",
                         "Profiles are meant to keep separate accounts apart.",
                         "Sign one of them in to a different account, or merge the profiles."},
                        {"status.e.codex", Level::info, "Ed · Codex: Not installed"}}));
}

TEST(DoctorRecordTest, LevelsOrderAndRecordsRoundTripThroughJSON) {
    EXPECT_TRUE(Level::ok < Level::info && Level::info < Level::warning && Level::warning < Level::failure);
    EXPECT_EQ(DoctorCheck::levelFromRawValue("error"), std::nullopt);
    for (const DoctorCheck& check : {DoctorCheck("a", Level::warning, "T"), DoctorCheck("b.c", Level::failure, "T", "d", "f"),
                                     DoctorCheck("d", Level::info, "T", std::nullopt, "")}) {
        EXPECT_EQ(DoctorCheck::fromJSON(check.toJSON()), check);
    }
    EXPECT_EQ(DoctorCheck("a", Level::ok, "T").toJSON(), json::parse(R"({"id": "a", "level": "ok", "title": "T"})"));
    for (const char* bad : {R"({"id": "a", "level": "error", "title": "T"})", R"({"id": "a", "title": "T"})",
                            R"({"id": "a", "level": "ok", "title": "T", "fix": 1})", "[]"}) {
        EXPECT_EQ(DoctorCheck::fromJSON(json::parse(bad)), std::nullopt) << bad;
    }

    for (const DesktopInstall& app : {DesktopInstall("/A.app"), DesktopInstall("/A.app", "")}) {
        EXPECT_EQ(DesktopInstall::fromJSON(app.toJSON()), app);
    }
    EXPECT_EQ(DesktopInstall("/A.app").toJSON(), json::parse(R"({"path": "/A.app"})"));
    EXPECT_EQ(DesktopInstall::fromJSON(json::parse(R"({"path": "/A.app", "x": 1})")), DesktopInstall("/A.app"));
    EXPECT_EQ(DesktopInstall::fromJSON(json::parse(R"({"version": "1"})")), std::nullopt);
    EXPECT_EQ(DesktopInstall::detect(Paths("/nonexistent", "/nonexistent")), std::nullopt);
}

}  // namespace
}  // namespace veerline
