#include "doctor/doctor.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/platform.h"
#include "shell/shell_integration.h"
#include "support/test_support.h"

namespace veerline {

void PrintTo(const DoctorCheck& check, std::ostream* out) { *out << check.toJSON().dump(); }

namespace {

using Level = DoctorCheck::Level;
using Checks = std::vector<DoctorCheck>;
using nlohmann::json;

// A temporary home, a folder of real tools on PATH, and a doctor over both.
class DoctorTest : public ::testing::Test {
protected:
    testing::TempDir root{"veerline-doctor"};
    std::string home = root / "home", tools = root / "tools";
    Paths paths{home, root / "Applications"};
    Environment environment{{"HOME", home}, {"PATH", tools}};
    ProfileDocument document;
    std::optional<DesktopInstall> desktop;

    static DoctorCheck notIntegrated(const std::string& id, const std::string& command) {
        return DoctorCheck("shim." + id, Level::info, "Shell integration for `" + command + "` isn't installed",
                           "Folder rules only apply once it is.",
                           platform::shellIntegrationSetting()
                               ? "Turn on " + std::string(*platform::shellIntegrationSetting()) + ", or run `veerline shell install`."
                               : "Run `veerline shell install`.");
    }
    Checks run(bool deep = false) const { return Doctor(ToolContext{paths, environment}, [this] { return document; }, desktop).run(deep); }
    Checks withID(const std::string& id) const {
        Checks found = run();
        std::erase_if(found, [&](const DoctorCheck& check) { return check.id != id; });
        return found;
    }
};

TEST_F(DoctorTest, FromAFreshHomeToEverythingWrongAtOnce) {
    EXPECT_EQ(run(), (Checks{
        {"profiles", Level::ok, "Profiles file is readable", "0 profiles, 0 folder rules"},
        {"binary.claude-code", Level::info, "Claude Code isn't installed", "No `claude` on PATH outside ~/.veerline/bin."},
        notIntegrated("claude-code", "claude"),
        {"binary.codex", Level::info, "Codex isn't installed", "No `codex` on PATH outside ~/.veerline/bin."},
        notIntegrated("codex", "codex"),
        {"desktop", Level::info, "Claude Desktop isn't installed", platform::hasApplicationBundles() ? std::nullopt
             : std::optional<std::string>("There is no Linux version; Veerline manages the command-line tools here.")},
        {"datadirs", Level::ok, "Data folders are writable"},
        {"conflicts", Level::ok, "No other account switchers found"}}));

    // Everything that can go wrong at once.
    const std::string skips = "Move the Veerline block to the end of your shell file (`veerline shell install` does this), then open a new terminal.";
    testing::makeDirs(home + "/work");
    document.profiles = {Profile(ProfileID("w"), "Work", ProfileColor::blue, std::nullopt,
                                 {ToolKind::claudeDesktop, ToolKind::claudeCode, ToolKind::codex})};
    document.rules = {{"~/work/**", ProfileID("w")}, {"~/gone", ProfileID("w")}, {"/nowhere it's", ProfileID("x")}};
    document.cliDefault = ProfileID("gone");
    desktop = DesktopInstall(home + "/C.app", "");
    for (const std::string& tool : {tools + "/claude", paths.shimDirectory() + "/claude", tools + "/ccswitch"})
        testing::writeFile(tool, "#!/bin/sh\n", 0755);
    testing::writeFile(tools + "/cswap", "not executable");
    environment = {{"HOME", home}, {"PATH", tools + ":" + paths.shimDirectory()}, {"CLAUDE_CONFIG_DIR", home + "/.claude-work"},
                   {"CODEX_API_KEY", "sk-2"}, {"ANTHROPIC_API_KEY", "sk-1"}};
    testing::writeFile(home + "/.zshrc", ShellIntegration::block() + "# fine\n");
    testing::writeFile(home + "/.bashrc", ShellIntegration::block() + "export PATH=/opt/bin:$PATH\n");
    testing::writeFile(home + "/.zprofile", "  alias claude='claude --x'\n# alias codex=x\n\tcodex () { :; }\nclaudette=1\n");
    testing::writeFile(home + "/.profile", "function claude {\n}\n");
    auto apiKey = [](const std::string& name) {
        return DoctorCheck("env." + name, Level::warning, name + " is set in your environment",
                           "It overrides profile logins, so usage goes to whatever account that key belongs to.",
                           "Remove `export " + name + "=…` from your shell file unless you mean to use it everywhere.");
    };
    auto missing = [](const std::string& rule, const std::string& owner, const std::string& quoted) {
        return DoctorCheck("rule.missing", Level::warning, "A folder rule points at a missing folder",
                           rule + " → " + owner + ". Was it moved or renamed?", "Update or remove the rule: `veerline rule remove " + quoted + "`.");
    };
    EXPECT_EQ(run(), (Checks{
        {"profiles", Level::ok, "Profiles file is readable", "1 profile, 3 folder rules"},
        {"binary.claude-code", Level::ok, "Claude Code found", tools + "/claude"},
        {"shim.claude-code", Level::warning, "`claude` skips Veerline in this shell", "PATH finds " + tools + "/claude before ~/.veerline/bin.", skips},
        {"binary.codex", Level::warning, "Codex isn't installed", "No `codex` on PATH outside ~/.veerline/bin.",
         "Install Codex, or turn it off for your profiles."},
        notIntegrated("codex", "codex"),
        {"desktop", Level::ok, "Claude Desktop found", "~/C.app, version "},
        {"datadirs", Level::ok, "Data folders are writable"},
        {"env.CLAUDE_CONFIG_DIR", Level::warning, "You export CLAUDE_CONFIG_DIR yourself",
         "CLAUDE_CONFIG_DIR=~/.claude-work. Veerline leaves it alone, so folder rules won't change it.",
         "Remove the `export CLAUDE_CONFIG_DIR=…` line from your shell file if you want Veerline to choose."},
        apiKey("ANTHROPIC_API_KEY"), apiKey("CODEX_API_KEY"), missing("~/gone", "Work", "'~/gone'"),
        {"rule.stale", Level::warning, "A folder rule points at a profile that doesn't exist",
         "/nowhere it's → \u201Cx\u201D. The rule never applies, and changes to your profiles can't be saved while it is there.",
         R"(Remove the rule: `veerline rule remove '/nowhere it'\''s'`.)"},
        {"default.stale", Level::warning, "The terminal default points at a profile that doesn't exist",
         "It names \u201Cgone\u201D. No profile applies where no rule or dotfile does, and changes to your profiles can't be saved while it is set.",
         "Clear it with `veerline default --clear`, or choose another with `veerline default PROFILE`."},
        {"shell.block", Level::warning, "Something in ~/.bashrc comes after the Veerline block",
         "Lines after it can put another `claude` or `codex` ahead of the shim in new terminals.",
         "Run `veerline shell install --yes` to move the block to the end."},
        {"conflicts", Level::warning, "Other account-switching tools are installed", tools + "/ccswitch",
         "Use one switcher at a time. Uninstall the others, or stop using them for Claude and Codex."},
        {"aliases", Level::warning, "A shell alias or function bypasses Veerline", "~/.zprofile:1 (claude), ~/.zprofile:3 (codex), ~/.profile:1 (claude)",
         "Remove or rename the alias so `claude` and `codex` reach the Veerline shim."}}));

    // The shim is reached first straight or through a link; a PATH without `claude` skips it too.
    testing::makeSymlink(paths.shimDirectory(), home + "/shims-link");
    const DoctorCheck through("shim.claude-code", Level::ok, "`claude` goes through Veerline"),
        skipped("shim.claude-code", Level::warning, "`claude` skips Veerline in this shell", "PATH finds nothing before ~/.veerline/bin.", skips);
    for (const auto& [path, expected] :
         {std::pair{paths.shimDirectory() + "/:" + tools, through}, {home + "/shims-link:" + tools, through}, {root / "empty", skipped}}) {
        environment["PATH"] = path;
        EXPECT_EQ(withID("shim.claude-code"), Checks{expected}) << path;
    }
    // Set by the shim, the variable is only information.
    environment["VEERLINE_MANAGED_VARS"] = "CODEX_HOME,CLAUDE_CONFIG_DIR";
    EXPECT_EQ(withID("env.CLAUDE_CONFIG_DIR"),
              (Checks{{"env.CLAUDE_CONFIG_DIR", Level::info, "CLAUDE_CONFIG_DIR was set by Veerline", "Profile ? is active in this shell."}}));
    environment["VEERLINE_PROFILE"] = "Work";
    EXPECT_EQ(withID("env.CLAUDE_CONFIG_DIR")[0].detail, "Profile Work is active in this shell.");
    std::string bundled = paths.applicationsDirectory + "/ChatGPT.app/Contents/Resources/codex-cli/bin/codex";
    testing::writeFile(bundled, "#!/bin/sh\n", 0755);
    EXPECT_EQ(withID("binary.codex"), (Checks{{"binary.codex", Level::ok, "Codex found", bundled}}));

    std::string locked = paths.dataDirectory(ToolKind::claudeCode, ProfileID("w"));
    testing::makeDirs(locked, 0500);
    const Checks notWritable{{"datadirs", Level::failure, "Some data folders aren't writable",
                              "~/Library/Application Support/Veerline/claude-code/w",
                              "Fix ownership with `sudo chown -R $USER '~/Library/Application Support/Veerline'`."}};
    EXPECT_TRUE(testing::holdsUnprivileged(root.path(), [&] { return withID("datadirs") == notWritable; }));
    ::chmod(locked.c_str(), 0700);
}

TEST_F(DoctorTest, StartUpFilesThatCantBeReadQuicklyAreSkippedAndLongFindingsCounted) {
    // A FIFO would hang the alias check, a huge sparse file swamp it.
    testing::makeDirs(home);
    ASSERT_EQ(::mkfifo((home + "/.bashrc").c_str(), 0600), 0);
    testing::writeFile(home + "/.profile", "alias claude=x\n");
    ASSERT_EQ(::truncate((home + "/.profile").c_str(), off_t{1} << 30), 0);
    std::string lines, shown;
    for (int line = 1; line <= 1015; ++line) lines += "alias codex=x\n";
    for (int line = 1; line <= 10; ++line) shown += "~/.zshrc:" + std::to_string(line) + " (codex), ";
    testing::writeFile(home + "/.zshrc", lines);
    EXPECT_EQ(withID("aliases")[0].detail, shown + "and 1,005 more");
}

TEST_F(DoctorTest, DeepRunsReportEverySignInInOrderAndSharedAccounts) {
    // Each profile's answer lies in its data folder; the first answers last.
    testing::writeFile(tools + "/claude", "#!/bin/sh\n[ -f \"$CLAUDE_CONFIG_DIR/slow\" ] && sleep 0.3\ncat \"$CLAUDE_CONFIG_DIR/answer\"\n", 0755);
    for (const auto& [id, name, answer] : {
             std::array<std::string, 3>{"a", "Ann", R"({"loggedIn": true, "email": "Ann@Example.com", "authMethod": "claude.ai", "orgName": "Acme",)"
                                                    R"( "subscriptionType": "max"})"},
             {"b", "Bob", "garbage"}, {"c", "Cy", R"({"loggedIn": true, "email": "ann@example.com"})"},
             {"d", "Di", R"({"loggedIn": true, "email": "ann@example.com", "orgId": "other"})"}}) {
        document.profiles.emplace_back(ProfileID(id), name, ProfileColor::blue, std::nullopt, std::vector{ToolKind::claudeCode});
        testing::writeFile(paths.dataDirectory(ToolKind::claudeCode, ProfileID(id)) + "/answer", answer);
    }
    document.profiles.emplace_back(ProfileID("e"), "Ed", ProfileColor::blue, std::nullopt, std::vector{ToolKind::codex});
    testing::writeFile(paths.dataDirectory(ToolKind::claudeCode, ProfileID("a")) + "/slow", "");
    environment["PATH"] = tools + ":/usr/bin:/bin";

    auto shallow = run(false), deep = run(true);
    EXPECT_EQ(shallow.back().id, "conflicts");
    EXPECT_EQ(Checks(deep.begin(), deep.end() - 6), shallow);
    EXPECT_EQ(Checks(deep.end() - 6, deep.end()), (Checks{
        {"status.a.claude-code", Level::ok, "Ann · Claude Code: Signed in", "Ann@Example.com · Acme · max · claude.ai"},
        {"status.b.claude-code", Level::warning, "Bob · Claude Code: Needs attention", "Couldn't read `claude auth status` (exit 0).",
         "Sign in again: `veerline login Bob claude-code`."},
        {"status.c.claude-code", Level::ok, "Cy · Claude Code: Signed in", "ann@example.com"},
        {"status.d.claude-code", Level::ok, "Di · Claude Code: Signed in", "ann@example.com"},
        {"account.same.claude-code", Level::warning, "Ann and Cy use the same Claude Code account", "Profiles are meant to keep separate accounts apart.",
         "Sign one of them in to a different account, or merge the profiles."},
        {"status.e.codex", Level::info, "Ed · Codex: Not installed"}}));
}

TEST(DoctorRecordTest, RecordsRoundTripThroughJSON) {
    for (const DoctorCheck& check : {DoctorCheck("a", Level::warning, "T"), DoctorCheck("b.c", Level::failure, "T", "d", "f"),
                                     DoctorCheck("d", Level::info, "T", std::nullopt, "")}) EXPECT_EQ(DoctorCheck::fromJSON(check.toJSON()), check);
    EXPECT_EQ(DoctorCheck("a", Level::ok, "T").toJSON(), json::parse(R"({"id": "a", "level": "ok", "title": "T"})"));
    for (const char* bad : {R"({"id": "a", "level": "error", "title": "T"})", R"({"id": "a", "title": "T"})",
                            R"({"id": "a", "level": "ok", "title": "T", "fix": 1})", "[]"}) {
        EXPECT_EQ(DoctorCheck::fromJSON(json::parse(bad)), std::nullopt) << bad;
    }
    for (const DesktopInstall& app : {DesktopInstall("/A.app"), DesktopInstall("/A.app", "")}) EXPECT_EQ(DesktopInstall::fromJSON(app.toJSON()), app);
    EXPECT_EQ(DesktopInstall::fromJSON(json::parse(R"({"path": "/A.app", "x": 1})")), DesktopInstall("/A.app"));
    EXPECT_EQ(DesktopInstall::fromJSON(json::parse(R"({"version": "1"})")), std::nullopt);
}

}  // namespace
}  // namespace veerline
