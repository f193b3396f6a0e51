// The built `veerline` in a temporary HOME: profiles, folder rules, the terminal default and
// `which`, including the failures that must leave the profiles file untouched.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <regex>

#include "support/test_support.h"

namespace veerline::testing {
namespace {

using nlohmann::json;
using Args = std::vector<std::string>;

class CliProfileTest : public ::testing::Test {
protected:
    TempDir root{"veerline-cli-profile"};
    std::string home = root / "home";
    std::string support = home + "/Library/Application Support/Veerline";
    std::string profilesFile = support + "/profiles.json";

    void SetUp() override { makeDirs(home); }

    RunResult cli(const Args& args, const std::optional<std::string>& cwd = std::nullopt,
                  const std::map<std::string, std::string>& extra = {}) const {
        RunOptions options;
        options.environment = {{"HOME", home}, {"PATH", "/usr/bin:/bin"}};
        options.environment.insert(extra.begin(), extra.end());
        options.cwd = cwd.value_or(home);
        return run(VEERLINE_CLI_BINARY, args, options);
    }

    // The output of a command that must succeed.
    std::string ok(const Args& args, const std::optional<std::string>& cwd = std::nullopt,
                   const std::map<std::string, std::string>& extra = {}) const {
        RunResult result = cli(args, cwd, extra);
        EXPECT_EQ(result.exitCode, 0) << args[0] << ": " << result.err;
        return result.out;
    }

    // The new profile's id, which is all `profile add` prints.
    std::string addProfile(Args args) const {
        args.insert(args.begin(), {"profile", "add"});
        std::string out = ok(args);
        return out.ends_with("\n") ? out.substr(0, out.size() - 1) : "no line end: " + out;
    }

    json stored() const { return json::parse(readFile(profilesFile)); }

    // Runs a command that must fail with `message` and leave the profiles file as it was.
    void expectFailure(const Args& args, int exitCode, const std::string& message) const {
        std::string before = exists(profilesFile) ? readFile(profilesFile) : "";
        RunResult result = cli(args);
        EXPECT_EQ(result.exitCode, exitCode) << args[0] << " " << (args.size() > 1 ? args[1] : "");
        EXPECT_TRUE(result.err.starts_with("veerline: " + message + "\n")) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(exists(profilesFile) ? readFile(profilesFile) : "", before);
    }
};

TEST_F(CliProfileTest, ProfilesFromAddAndListThroughRenameAndDefaultToRemove) {
    EXPECT_EQ(ok({"profile", "list"}), "No profiles yet. Add one with `veerline profile add NAME`.\n");
    EXPECT_EQ(ok({"profile", "list", "--json"}), "[]\n");
    std::string work = addProfile({"Work"});
    EXPECT_TRUE(std::regex_match(work, std::regex("work-[a-km-np-z2-9]{4}"))) << work;
    std::string personal =
        addProfile({"Personal Stuff", "--color", "pink", "--badge", "ME", "--tools", "Claude, codex", "--storage", "system"});
    EXPECT_TRUE(personal.starts_with("personal-stuff-")) << personal;
    std::string third = addProfile({"Third"});

    std::string listed = ok({"profile", "list", "--json"});
    json profiles = json::parse(listed);
    EXPECT_EQ(profiles, stored()["profiles"]);
    ASSERT_EQ(profiles.size(), 3u);
    EXPECT_EQ(profiles[0], json::parse(R"({"badge": "W", "color": "blue", "id": ")" + work +
                                       R"(", "name": "Work", "storage": "managed",
                                          "tools": ["claude-desktop", "chatgpt-app", "claude-code", "codex"]})"));
    EXPECT_EQ(profiles[1], json::parse(R"({"badge": "ME", "color": "pink", "id": ")" + personal +
                                       R"(", "name": "Personal Stuff", "storage": "system",
                                          "tools": ["claude-code", "codex"]})"));
    EXPECT_EQ(profiles[2]["color"], "green") << "new profiles take the first colour nobody wears yet";
    // Sorted keys and plain layout, like the file itself.
    EXPECT_TRUE(listed.starts_with("[\n  {\n    \"badge\": \"W\",\n    \"color\": \"blue\",\n")) << listed;
    std::string table = ok({"profile", "list"});
    EXPECT_EQ(table.find('\x1b'), std::string::npos) << "no colour when not on a terminal";
    EXPECT_NE(table.find("Personal Stuff  " + personal + "  ME     pink   claude-code, codex  system"),
              std::string::npos) << table;

    // Profiles are found by name in any case and blanks around it, or by id.
    EXPECT_EQ(ok({"profile", "rename", "  personal STUFF ", "Job"}), "Renamed \u201CPersonal Stuff\u201D to \u201CJob\u201D.\n");
    ok({"profile", "rename", "WORK", "House"});
    ok({"profile", "set", personal, "--tools", "none", "--color", "Orange"});
    // The id survives a rename; a default badge follows the name, a chosen one stays.
    profiles[0].update({{"name", "House"}, {"badge", "H"}});
    profiles[1].update({{"name", "Job"}, {"tools", json::array()}, {"color", "orange"}});
    EXPECT_EQ(stored()["profiles"], profiles);

    EXPECT_EQ(ok({"default"}), "There's no terminal default. Set one with `veerline default PROFILE`.\n");
    EXPECT_EQ(ok({"default", "HOUSE"}), "The terminal default is now \u201CHouse\u201D.\n");
    EXPECT_EQ(ok({"default"}), "House\n");
    expectFailure({"default", "House", "--clear"}, 2, "profile excludes --clear");
    ok({"default", "--clear"});
    EXPECT_FALSE(stored().contains("cliDefault"));

    // Removing takes the profile's rules, the default and the data folders along.
    ok({"rule", "add", "~/work", "House"});
    ok({"rule", "add", "/srv/work", work});
    ok({"rule", "add", "~/third", "Third"});
    ok({"default", "house"});
    writeFile(support + "/claude-code/" + work + "/settings.json", "{}");
    writeFile(support + "/codex/" + work + "/config.toml", "");
    writeFile(support + "/claude-code/" + third + "/settings.json", "{}");
    EXPECT_EQ(ok({"profile", "remove", "HOUSE"}),
              "Removed \u201CHouse\u201D and its 2 folder rules.\nThere's no terminal default now.\n"
              "Deleted ~/Library/Application Support/Veerline/claude-code/" + work + "\n"
              "Deleted ~/Library/Application Support/Veerline/codex/" + work + "\n");
    EXPECT_FALSE(exists(support + "/claude-code/" + work) || exists(support + "/codex/" + work));
    EXPECT_EQ(stored(), json::parse(R"({"version": 1, "rules": [{"path": "~/third", "profileID": ")" + third +
                                    R"("}], "profiles": [)" + profiles[1].dump() + "," + profiles[2].dump() + "]}"));
    ok({"profile", "remove", "Third", "--keep-data"});
    EXPECT_TRUE(exists(support + "/claude-code/" + third + "/settings.json"));
    EXPECT_EQ(stored()["profiles"].size(), 1u);
}

TEST_F(CliProfileTest, RulesAreStoredAsFullPathsWithTildeAndWhichExplainsTheSource) {
    std::string work = addProfile({"Work"});
    std::string personal = addProfile({"Personal"});
    makeDirs(home + "/code/app");
    makeDirs(home + "/work/app/sub");
    makeDirs(root / "real/project");
    makeSymlink(root / "real/project", home + "/linked");

    ok({"rule", "add", "app", "work"}, home + "/code");
    ok({"rule", "add", "../../outside/**", "work"}, home + "/code");
    ok({"rule", "add", ".", "work"}, home + "/linked", {{"PWD", home + "/linked"}});  // the shell's folder, not the link's target
    EXPECT_EQ(ok({"rule", "add", "~/notes/", "work"}), "Folders in ~/notes now use \u201CWork\u201D.\n");
    json rules = json::parse(ok({"rule", "list", "--json"}));
    EXPECT_EQ(rules, json::parse(R"([
        {"path": "~/code/app", "profileID": ")" + work + R"("},
        {"path": ")" + root.path() + R"(/outside", "profileID": ")" + work + R"("},
        {"path": "~/linked", "profileID": ")" + work + R"("},
        {"path": "~/notes", "profileID": ")" + work + R"("}])"));
    EXPECT_EQ(rules, stored()["rules"]);
    expectFailure({"rule", "add", "~/Code/App/**", "work"}, 1, "There's already a rule for ~/Code/App.");
    expectFailure({"rule", "remove", "~/nowhere"}, 1, "There's no rule for ~/nowhere. Run `veerline rule list` to see them.");
    EXPECT_EQ(ok({"rule", "remove", "APP"}, home + "/code"), "Removed the rule for ~/code/APP.\n");
    EXPECT_EQ(stored()["rules"].size(), 3u);
    std::string table = ok({"rule", "list"});
    EXPECT_EQ(table.substr(0, table.find('\n')), "FOLDER" + std::string(root.path().size() + 4, ' ') + "PROFILE");

    ok({"rule", "add", "~/work", "Work"});
    auto which = [&](const std::string& cwd, Args args = {}) {
        args.insert(args.begin(), {"which", "--json"});
        return json::parse(ok(args, cwd));
    };
    EXPECT_EQ(which(home + "/work/app"), json::parse(R"({"profile": "Work", "profileID": ")" + work +
                                                     R"(", "source": "folderRule", "rule": {"path": "~/work",
                                                     "profileID": ")" + work + R"("}, "dotfile": null, "warnings": []})"));
    EXPECT_EQ(ok({"which"}, home + "/work/app"), "Work  (folder rule for ~/work)\n");

    writeFile(home + "/work/app/.veerline", "# project\n  personal  \n");
    EXPECT_EQ(which(home + "/work/app/sub"), json::parse(R"({"profile": "Personal", "profileID": ")" + personal +
                                                         R"(", "source": "dotfile", "rule": null, "dotfile": ")" + home +
                                                         R"(/work/app/.veerline", "warnings": []})"));
    EXPECT_EQ(ok({"which", "app/sub"}, home + "/work"), "Personal  (dotfile ~/work/app/.veerline)\n")
        << "a relative folder is taken from the working folder";

    writeFile(home + "/work/app/.veerline", "Nobody\n");
    const std::string warning = home + "/work/app/.veerline names \u201CNobody\u201D, but there's no profile with that name.";
    json warned = which(home, {"work/app"});
    EXPECT_EQ(warned["source"], "folderRule");
    EXPECT_EQ(warned["warnings"], json::array({warning}));
    EXPECT_EQ(ok({"which", "~/work/app"}), "Work  (folder rule for ~/work)\nWarning: " + warning + "\n");

    EXPECT_EQ(which(home), json::parse(R"({"profile": null, "profileID": null, "source": "none", "rule": null,
                                           "dotfile": null, "warnings": []})"));
    EXPECT_EQ(ok({"which"}), "No profile applies here: no folder rule, dotfile or terminal default covers it.\n");
    ok({"default", "personal"});
    EXPECT_EQ(which(home)["source"], "cliDefault");
    EXPECT_EQ(ok({"which"}), "Personal  (terminal default)\n");
}

TEST_F(CliProfileTest, BadInputDamagedOrNewerFilesFailClearlyAndLeaveTheFile) {
    std::string work = addProfile({"Work"});
    addProfile({"Home"});
    expectFailure({"profile", "add", " work "}, 1, "There's already a profile called \u201Cwork\u201D.");
    expectFailure({"profile", "rename", "Home", "WORK"}, 1, "There's already a profile called \u201CWORK\u201D.");
    for (const Args& args : {Args{"profile", "rename", "Nobody", "X"}, Args{"profile", "set", "Nobody", "--color", "pink"},
                             Args{"profile", "remove", "Nobody"}, Args{"rule", "add", "/tmp", "Nobody"},
                             Args{"default", "Nobody"}, Args{"env", "Nobody"}}) {
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

    for (const auto& [content, problem] : std::map<std::string, std::string>{
             {"{\"version\": 1, \"profiles\": [", "not valid JSON (line 1, column 29)"}, {"", "the file is empty"}}) {
        writeFile(profilesFile, content, 0600);
        for (const Args& args : {Args{"profile", "list"}, Args{"profile", "add", "Work"}, Args{"rule", "list", "--json"},
                                 Args{"which"}, Args{"default", "--clear"}}) {
            expectFailure(args, 1, "Couldn't read " + profilesFile + ": " + problem);
        }
    }
    writeFile(profilesFile, R"({"version": 2, "profiles": "later", "rules": []})", 0600);
    for (const Args& args : {Args{"profile", "add", "Work"}, Args{"rule", "remove", "~/x"}}) {
        expectFailure(args, 1, "Your profiles were saved by a newer version of Veerline (format 2). Update Veerline to change them.");
    }
}

}  // namespace
}  // namespace veerline::testing
