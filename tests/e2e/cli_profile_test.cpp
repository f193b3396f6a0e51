// The built `veerline` in a temporary HOME: profiles, folder rules, the terminal default and
// `which`, including the failures that must leave the profiles file untouched.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <regex>

#include "support/test_support.h"

namespace veerline::testing {
namespace {

using nlohmann::json;

class CliProfileTest : public ::testing::Test {
protected:
    TempDir root{"veerline-cli-profile"};
    std::string home = root / "home";
    std::string support = home + "/Library/Application Support/Veerline";
    std::string profilesFile = support + "/profiles.json";

    void SetUp() override { makeDirs(home); }

    RunResult cli(const std::vector<std::string>& args, const std::optional<std::string>& cwd = std::nullopt,
                  const std::map<std::string, std::string>& extra = {}) const {
        RunOptions options;
        options.environment = {{"HOME", home}, {"PATH", "/usr/bin:/bin"}};
        for (const auto& [name, value] : extra) options.environment[name] = value;
        options.cwd = cwd.value_or(home);
        return run(VEERLINE_CLI_BINARY, args, options);
    }

    std::string addProfile(const std::vector<std::string>& args) const {
        std::vector<std::string> full = {"profile", "add"};
        full.insert(full.end(), args.begin(), args.end());
        RunResult result = cli(full);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_TRUE(result.out.ends_with("\n"));
        return result.out.substr(0, result.out.size() - 1);
    }

    json stored() const { return json::parse(readFile(profilesFile)); }

    // Runs a command that must fail with `message` and leave the profiles file as it was.
    void expectFailure(const std::vector<std::string>& args, int exitCode, const std::string& message) const {
        std::string before = exists(profilesFile) ? readFile(profilesFile) : "";
        RunResult result = cli(args);
        EXPECT_EQ(result.exitCode, exitCode) << args[0] << " " << (args.size() > 1 ? args[1] : "");
        EXPECT_TRUE(result.err.starts_with("veerline: " + message + "\n")) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(exists(profilesFile) ? readFile(profilesFile) : "", before);
    }
};

TEST_F(CliProfileTest, AddAndListInTheFilesOwnFormat) {
    EXPECT_EQ(cli({"profile", "list"}).out, "No profiles yet. Add one with `veerline profile add NAME`.\n");
    EXPECT_EQ(cli({"profile", "list", "--json"}).out, "[]\n");

    std::string work = addProfile({"Work"});
    EXPECT_TRUE(std::regex_match(work, std::regex("work-[a-km-np-z2-9]{4}"))) << work;
    std::string personal =
        addProfile({"Personal Stuff", "--color", "pink", "--badge", "ME", "--tools", "Claude, codex", "--storage", "system"});
    EXPECT_TRUE(personal.starts_with("personal-stuff-")) << personal;
    addProfile({"Third"});

    RunResult listed = cli({"profile", "list", "--json"});
    ASSERT_EQ(listed.exitCode, 0) << listed.err;
    json profiles = json::parse(listed.out);
    EXPECT_EQ(profiles, stored()["profiles"]);
    ASSERT_EQ(profiles.size(), 3u);
    EXPECT_EQ(profiles[0], json::parse(R"({"badge": "W", "color": "blue", "id": ")" + work +
                                       R"(", "name": "Work", "storage": "managed",
                                          "tools": ["claude-desktop", "chatgpt-app", "claude-code", "codex"]})"));
    EXPECT_EQ(profiles[1], json::parse(R"({"badge": "ME", "color": "pink", "id": ")" + personal +
                                       R"(", "name": "Personal Stuff", "storage": "system",
                                          "tools": ["claude-code", "codex"]})"));
    // New profiles take the first colour nobody wears yet.
    EXPECT_EQ(profiles[2]["color"], "green");
    // Sorted keys and plain layout, like the file itself.
    EXPECT_TRUE(listed.out.starts_with("[\n  {\n    \"badge\": \"W\",\n    \"color\": \"blue\",\n")) << listed.out;

    RunResult table = cli({"profile", "list"});
    ASSERT_EQ(table.exitCode, 0);
    EXPECT_EQ(table.out.find('\x1b'), std::string::npos) << "no colour when not on a terminal";
    EXPECT_NE(table.out.find("Personal Stuff  " + personal + "  ME     pink   claude-code, codex  system"),
              std::string::npos)
        << table.out;
}

TEST_F(CliProfileTest, InvalidChangesFailWithTheLibrarysMessageAndLeaveTheFile) {
    std::string work = addProfile({"Work"});
    addProfile({"Home", "--storage", "system"});

    expectFailure({"profile", "add", " work "}, 1, "There's already a profile called \u201Cwork\u201D.");
    expectFailure({"profile", "add", "   "}, 1, "Profile names can't be empty.");
    expectFailure({"profile", "add", std::string(41, 'x')}, 1,
                  "\u201C" + std::string(41, 'x') + "\u201D is too long. Use 40 characters or fewer.");
    expectFailure({"profile", "add", "Other", "--storage", "system"}, 1,
                  "Only one profile can use the tools' default setup.");
    expectFailure({"profile", "rename", "Home", "WORK"}, 1, "There's already a profile called \u201CWORK\u201D.");
    for (auto args : std::vector<std::vector<std::string>>{{"profile", "rename", "Nobody", "X"},
                                                            {"profile", "set", "Nobody", "--color", "pink"},
                                                            {"profile", "remove", "Nobody"},
                                                            {"rule", "add", "/tmp", "Nobody"},
                                                            {"default", "Nobody"},
                                                            {"env", "Nobody"}}) {
        expectFailure(args, 1, "There's no profile called \u201CNobody\u201D. Run `veerline profile list` to see them.");
    }

    // Mistyped values are usage errors, caught before the file is touched.
    expectFailure({"profile", "add", "X", "--color", "red"}, 2,
                  "\u201Cred\u201D isn't a colour. Use blue, green, orange, purple, pink or graphite.");
    expectFailure({"profile", "set", "Work", "--tools", "claude,cursor"}, 2,
                  "\u201Ccursor\u201D isn't a tool. Use claude-code, codex, claude-desktop or chatgpt-app (or the short "
                  "words claude, code, desktop, chatgpt, codex-app).");
    expectFailure({"profile", "set", "Work", "--storage", "cloud"}, 2,
                  "\u201Ccloud\u201D isn't a storage kind. Use managed (a data folder of the profile's own) or system "
                  "(the tools' default setup).");
    expectFailure({"profile", "set", work}, 2, "Nothing to change. Give --color, --badge, --tools or --storage.");
}

TEST_F(CliProfileTest, DamagedOrNewerProfilesFileIsReportedAndNeverRewritten) {
    for (const std::string& content : {std::string("{\"version\": 1, \"profiles\": ["), std::string("")}) {
        writeFile(profilesFile, content, 0600);
        for (auto args : std::vector<std::vector<std::string>>{
                 {"profile", "list"}, {"profile", "add", "Work"}, {"rule", "list", "--json"}, {"which"}, {"default", "--clear"}}) {
            RunResult result = cli(args);
            EXPECT_EQ(result.exitCode, 1) << args[0];
            EXPECT_TRUE(result.err.starts_with("veerline: Couldn't read " + profilesFile + ": ")) << result.err;
            EXPECT_EQ(result.out, "");
            EXPECT_EQ(readFile(profilesFile), content);
        }
    }

    std::string newer = R"({"version": 2, "profiles": "later", "rules": []})";
    writeFile(profilesFile, newer, 0600);
    for (auto args : std::vector<std::vector<std::string>>{{"profile", "add", "Work"}, {"rule", "remove", "~/x"}}) {
        expectFailure(args, 1, "Your profiles were saved by a newer version of Veerline (format 2). Update Veerline to change them.");
    }
}

TEST_F(CliProfileTest, RemoveDropsRulesDefaultAndDataFolders) {
    std::string work = addProfile({"Work", "--tools", "claude,codex"});
    std::string home2 = addProfile({"Home"});
    ASSERT_EQ(cli({"rule", "add", "~/work", "Work"}).exitCode, 0);
    ASSERT_EQ(cli({"rule", "add", "/srv/work", work}).exitCode, 0);
    ASSERT_EQ(cli({"rule", "add", "~/home", "Home"}).exitCode, 0);
    ASSERT_EQ(cli({"default", "work"}).exitCode, 0);
    std::string claudeData = support + "/claude-code/" + work;
    std::string codexData = support + "/codex/" + work;
    writeFile(claudeData + "/settings.json", "{}");
    writeFile(codexData + "/config.toml", "");

    RunResult removed = cli({"profile", "remove", "WORK"});
    ASSERT_EQ(removed.exitCode, 0) << removed.err;
    EXPECT_EQ(removed.out,
              "Removed \u201CWork\u201D and its 2 folder rules.\nThere's no terminal default now.\n"
              "Deleted ~/Library/Application Support/Veerline/claude-code/" + work + "\n"
              "Deleted ~/Library/Application Support/Veerline/codex/" + work + "\n");
    EXPECT_FALSE(exists(claudeData));
    EXPECT_FALSE(exists(codexData));
    json document = stored();
    EXPECT_EQ(document["profiles"].size(), 1u);
    EXPECT_EQ(document["rules"], json::parse(R"([{"path": "~/home", "profileID": ")" + home2 + "\"}]"));
    EXPECT_FALSE(document.contains("cliDefault"));

    std::string kept = support + "/claude-code/" + home2;
    writeFile(kept + "/settings.json", "{}");
    ASSERT_EQ(cli({"profile", "remove", "Home", "--keep-data"}).exitCode, 0);
    EXPECT_TRUE(exists(kept + "/settings.json"));
    EXPECT_EQ(stored()["profiles"], json::array());
}

TEST_F(CliProfileTest, WhichExplainsTheSource) {
    std::string work = addProfile({"Work"});
    std::string personal = addProfile({"Personal"});
    makeDirs(home + "/work/app/sub");
    ASSERT_EQ(cli({"rule", "add", "~/work", "Work"}).exitCode, 0);

    auto which = [&](const std::string& cwd, std::vector<std::string> args = {}) {
        args.insert(args.begin(), {"which", "--json"});
        RunResult result = cli(args, cwd);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return json::parse(result.out);
    };

    EXPECT_EQ(which(home + "/work/app"), json::parse(R"({"profile": "Work", "profileID": ")" + work +
                                                     R"(", "source": "folderRule", "rule": {"path": "~/work",
                                                     "profileID": ")" + work + R"("}, "dotfile": null, "warnings": []})"));
    EXPECT_EQ(cli({"which"}, home + "/work/app").out, "Work  (folder rule for ~/work)\n");

    writeFile(home + "/work/app/.veerline", "# project\n  personal  \n");
    json dotfile = which(home + "/work/app/sub");
    EXPECT_EQ(dotfile["source"], "dotfile");
    EXPECT_EQ(dotfile["dotfile"], home + "/work/app/.veerline");
    EXPECT_EQ(dotfile["profileID"], personal);
    EXPECT_EQ(dotfile["rule"], nullptr);
    EXPECT_EQ(cli({"which", "app/sub"}, home + "/work").out, "Personal  (dotfile ~/work/app/.veerline)\n")
        << "a relative folder is taken from the working folder";

    writeFile(home + "/work/app/.veerline", "Nobody\n");
    json warned = which(home, {"work/app"});
    EXPECT_EQ(warned["source"], "folderRule");
    EXPECT_EQ(warned["warnings"], json::array({home + "/work/app/.veerline names \u201CNobody\u201D, but there's no "
                                                      "profile with that name."}));
    EXPECT_EQ(cli({"which", "~/work/app"}).out,
              "Work  (folder rule for ~/work)\nWarning: " + home +
                  "/work/app/.veerline names \u201CNobody\u201D, but there's no profile with that name.\n");

    EXPECT_EQ(which(home), json::parse(R"({"profile": null, "profileID": null, "source": "none", "rule": null,
                                           "dotfile": null, "warnings": []})"));
    EXPECT_EQ(cli({"which"}).out, "No profile applies here: no folder rule, dotfile or terminal default covers it.\n");
    ASSERT_EQ(cli({"default", "personal"}).exitCode, 0);
    EXPECT_EQ(which(home)["source"], "cliDefault");
    EXPECT_EQ(cli({"which"}).out, "Personal  (terminal default)\n");
}

TEST_F(CliProfileTest, RulesAreStoredAsFullPathsWithTilde) {
    std::string work = addProfile({"Work"});
    makeDirs(home + "/code/app");
    makeDirs(root / "real/project");
    makeSymlink(root / "real/project", home + "/linked");

    ASSERT_EQ(cli({"rule", "add", "app", "work"}, home + "/code").exitCode, 0);
    ASSERT_EQ(cli({"rule", "add", "../../outside/**", "work"}, home + "/code").exitCode, 0);
    ASSERT_EQ(cli({"rule", "add", ".", "work"}, home + "/linked", {{"PWD", home + "/linked"}}).exitCode, 0)
        << "the shell's logical folder, not the symlink's target";
    RunResult added = cli({"rule", "add", "~/notes/", "work"});
    EXPECT_EQ(added.out, "Folders in ~/notes now use \u201CWork\u201D.\n");

    RunResult listed = cli({"rule", "list", "--json"});
    ASSERT_EQ(listed.exitCode, 0);
    EXPECT_EQ(json::parse(listed.out), json::parse(R"([
        {"path": "~/code/app", "profileID": ")" + work + R"("},
        {"path": ")" + root.path() + R"(/outside", "profileID": ")" + work + R"("},
        {"path": "~/linked", "profileID": ")" + work + R"("},
        {"path": "~/notes", "profileID": ")" + work + R"("}])"));
    EXPECT_EQ(json::parse(listed.out), stored()["rules"]);

    expectFailure({"rule", "add", "~/Code/App/**", "work"}, 1, "There's already a rule for ~/Code/App.");
    expectFailure({"rule", "remove", "~/nowhere"}, 1, "There's no rule for ~/nowhere. Run `veerline rule list` to see them.");

    RunResult removed = cli({"rule", "remove", "APP"}, home + "/code");
    ASSERT_EQ(removed.exitCode, 0) << removed.err;
    EXPECT_EQ(removed.out, "Removed the rule for ~/code/APP.\n");
    EXPECT_EQ(stored()["rules"].size(), 3u);

    RunResult table = cli({"rule", "list"});
    EXPECT_EQ(table.out.substr(0, table.out.find('\n')), "FOLDER" + std::string(root.path().size() + 4, ' ') + "PROFILE");
}

TEST_F(CliProfileTest, TerminalDefault) {
    addProfile({"Work"});
    EXPECT_EQ(cli({"default"}).out, "There's no terminal default. Set one with `veerline default PROFILE`.\n");
    RunResult set = cli({"default", "WORK"});
    ASSERT_EQ(set.exitCode, 0) << set.err;
    EXPECT_EQ(set.out, "The terminal default is now \u201CWork\u201D.\n");
    EXPECT_EQ(cli({"default"}).out, "Work\n");

    EXPECT_EQ(cli({"default", "Work", "--clear"}).exitCode, 2);
    EXPECT_TRUE(stored().contains("cliDefault"));

    ASSERT_EQ(cli({"default", "--clear"}).exitCode, 0);
    EXPECT_FALSE(stored().contains("cliDefault"));
}

TEST_F(CliProfileTest, RenameAndSetFindProfilesByNameOrID) {
    std::string work = addProfile({"Work Stuff"});
    addProfile({"Home", "--badge", "HQ"});

    RunResult renamed = cli({"profile", "rename", "  work STUFF ", "Job"});
    ASSERT_EQ(renamed.exitCode, 0) << renamed.err;
    EXPECT_EQ(renamed.out, "Renamed \u201CWork Stuff\u201D to \u201CJob\u201D.\n");
    ASSERT_EQ(cli({"profile", "rename", "home", "House"}).exitCode, 0);
    ASSERT_EQ(cli({"profile", "set", work, "--tools", "none", "--color", "Orange"}).exitCode, 0);

    json profiles = stored()["profiles"];
    EXPECT_EQ(profiles[0]["id"], work) << "the id survives a rename";
    EXPECT_EQ(profiles[0]["name"], "Job");
    EXPECT_EQ(profiles[0]["badge"], "J") << "a default badge follows the name";
    EXPECT_EQ(profiles[0]["tools"], json::array());
    EXPECT_EQ(profiles[0]["color"], "orange");
    EXPECT_EQ(profiles[1]["badge"], "HQ") << "a chosen badge stays";
}

}  // namespace
}  // namespace veerline::testing
