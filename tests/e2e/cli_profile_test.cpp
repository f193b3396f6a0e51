// The built `veerline` and `veerline-resolve` in a temporary HOME: profiles, folder rules, the
// terminal default and `which`, and the failures that must leave the profiles file untouched. What
// Veerline reads from disk is input, not instructions: crafted ids, special files and links in
// place of its files, kills and output failures. Canary files outside HOME prove nothing outside
// Veerline's own folders is touched.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <set>

#include "e2e/temp_home.h"
#include "support/folder_entries.h"

namespace veerline::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Args = std::vector<std::string>;

class CliProfileTest : public TempHomeTest {
protected:
    std::string outside = root / "outside";

    void SetUp() override {
        TempHomeTest::SetUp();
        fs::remove(profilesFile);
        launcher = {"/usr/bin/timeout", "10"};  // nothing Veerline reads may hang it (exit 124 if it does)
        writeFile(outside + "/canary", "keep");
        // Where SUPPORT/claude-code/work-aaaa leads when claude-code is a link to `outside`.
        writeFile(outside + "/work-aaaa/canary", "keep");
    }

    // The output of a command that must succeed.
    std::string ok(const Args& args, const std::string& cwd = "") const {
        RunResult result = cli(args, {}, cwd);
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

    // Runs a command that must fail with `message` (the first sentences of its report) and leave
    // the profiles file as it was.
    void expectFailure(const Args& args, int exitCode, const std::string& message) const {
        std::string before = exists(profilesFile) ? readFile(profilesFile) : "";
        RunResult result = cli(args);
        EXPECT_EQ(result.exitCode, exitCode) << args[0] << " " << (args.size() > 1 ? args[1] : "");
        EXPECT_TRUE(result.err.starts_with("veerline: " + message + "\n") ||
                    result.err.starts_with("veerline: " + message + " ")) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(exists(profilesFile) ? readFile(profilesFile) : "", before);
    }

    // A profiles file with a rule for the home folder and the terminal default on the first profile.
    std::string writeProfiles(const json& profiles) const {
        json rule = {{"path", "~"}, {"profileID", profiles[0]["id"]}};
        std::string text = json{{"version", 1}, {"profiles", profiles}, {"rules", json::array({rule})},
                                {"cliDefault", profiles[0]["id"]}}.dump();
        writeFile(profilesFile, text);
        return text;
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
    for (const std::string& folder : {home + "/code/app", home + "/work/app/sub", root / "real/project"})
        makeDirs(folder);
    makeSymlink(root / "real/project", home + "/linked");

    ok({"rule", "add", "app", "work"}, home + "/code");
    ok({"rule", "add", "../../outside/**", "work"}, home + "/code");
    ok({"rule", "add", ".", "work"}, home + "/linked");  // PWD, the shell's folder, not the link's target
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
    EXPECT_EQ(which(home, {"work/app"})["warnings"], json::array({warning}));
    EXPECT_EQ(ok({"which", "~/work/app"}), "Work  (folder rule for ~/work)\nWarning: " + warning + "\n");

    EXPECT_EQ(which(home), json::parse(R"({"profile": null, "profileID": null, "source": "none", "rule": null,
                                           "dotfile": null, "warnings": []})"));
    ok({"default", "personal"});
    EXPECT_EQ(which(home)["source"], "cliDefault");
    EXPECT_EQ(ok({"which"}), "Personal  (terminal default)\n");
}

TEST_F(CliProfileTest, BadInputDamagedOrNewerFilesFailClearlyAndLeaveTheFile) {
    std::string work = addProfile({"Work"});
    addProfile({"Home"});
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
             {"{\"version\": 1, \"profiles\": [", "not valid JSON (line 1, column 29)"}, {"", "the file is empty"},
             {R"({"version": 1, "profiles": [], "rules": []})" + std::string("\0garbage", 8),
              "not valid JSON (a NUL byte at line 1, column 44)"}}) {
        writeFile(profilesFile, content, 0600);
        for (const Args& args : {Args{"profile", "list"}, Args{"profile", "add", "Work"}, Args{"rule", "list", "--json"},
                                 Args{"which"}, Args{"default", "--clear"}}) {
            expectFailure(args, 1, "Couldn't read " + profilesFile + ": " + problem);
        }
    }
    // The version is checked first, however it is written.
    for (const auto& [version, format] : std::map<std::string, std::string>{{"2", "2"}, {"1e1", "10"}}) {
        writeFile(profilesFile, R"({"version": )" + version + R"(, "profiles": "later", "rules": []})", 0600);
        for (const Args& args : {Args{"profile", "add", "Work"}, Args{"rule", "remove", "~/x"}}) {
            expectFailure(args, 1, "Your profiles were saved by a newer version of Veerline (format " + format +
                                       "). Update Veerline to change them.");
        }
    }
}

TEST_F(CliProfileTest, StaleEntriesLeaveEveryCommandWorkingAndTheirOwnCommandRepairsThem) {
    const json work = {{"id", "work"}, {"name", "Work"}};
    const json workRule = {{"path", "~/work"}, {"profileID", "work"}};
    const json staleRule = {{"path", "~/code/oss"}, {"profileID", "ghost"}};
    struct Stale {
        const char* name;
        json document;
        std::string saveMessage;
        Args repair;
        std::string repaired;
    };
    const std::string noProfile = "points at a profile that doesn't exist.";
    const std::vector<Stale> entries = {
        {"rule", {{"profiles", {work}}, {"rules", {workRule, staleRule}}}, "The rule for ~/code/oss " + noProfile,
         {"rule", "remove", "~/code/oss"}, "Removed the rule for ~/code/oss.\n"},
        {"default", {{"profiles", {work}}, {"rules", {workRule}}, {"cliDefault", "ghost"}},
         "The terminal default " + noProfile, {"default", "--clear"}, "There's no terminal default now.\n"},
        {"both, by the missing id", {{"profiles", {work}}, {"rules", {workRule, staleRule}}, {"cliDefault", "ghost"}},
         "The rule for ~/code/oss " + noProfile, {"profile", "remove", "ghost"},
         "No profile has the id \u201Cghost\u201D. Removed its folder rule.\nThere's no terminal default now.\n"},
    };
    // Every command reads the file; those that save refuse with the stale entry's own message.
    const std::vector<Args> reading = {
        {"profile", "list"}, {"profile", "list", "--json"}, {"rule", "list"}, {"rule", "list", "--json"},
        {"default"}, {"which"}, {"which", "~/code/oss"}, {"env", "Work"}, {"run", "Work", "--", "true"},
        {"login", "Work", "codex", "--print"}, {"share", "status"}, {"usage"}, {"statusline"},
        {"status"}, {"__complete", "--", "env", ""}, {"profile", "remove", "nobody-here"}};
    const std::vector<Args> saving = {{"profile", "add", "New"}, {"profile", "rename", "Work", "Job"},
                                      {"profile", "set", "Work", "--badge", "X"}, {"rule", "add", "~/p", "Work"}};
    makeDirs(home + "/code/oss");
    const auto before = treeOf(outside);

    for (const Stale& entry : entries) {
        SCOPED_TRACE(entry.name);
        json document = entry.document;
        document["version"] = 1;
        writeFile(profilesFile, document.dump(), 0600);
        for (const Args& args : reading) {
            RunResult result = cli(args);
            EXPECT_EQ(result.exitCode, args.back() == "nobody-here" ? 1 : 0) << args.front() << ": " << result.err;
            EXPECT_EQ(result.err.find("Couldn't read"), std::string::npos) << result.err;
        }
        for (const Args& args : saving) expectFailure(args, 1, entry.saveMessage);
        // The shims and the prompt still serve the rules that are fine; the stale one never matches.
        EXPECT_EQ(report("claude", home + "/work/app").environment["CLAUDE_CONFIG_DIR"], support + "/claude-code/work");
        EXPECT_EQ(prompt(home + "/work"), "Work\n");
        EXPECT_FALSE(report("codex", home + "/code/oss").environment.contains("CODEX_HOME"));
        EXPECT_EQ(prompt(home + "/code/oss"), "");

        // The doctor names the command that removes it, and never says to delete the file.
        RunResult doctor = cli({"doctor", "--json"});
        std::set<std::string> fixes;
        for (const json& check : json::parse(doctor.out)) {
            if (check["id"] == "rule.stale" || check["id"] == "default.stale") fixes.insert(check["fix"]);
        }
        EXPECT_EQ(doctor.out.find("delete it"), std::string::npos);
        std::set<std::string> expected;
        if (entry.document["rules"].size() > 1) expected.insert("Remove the rule: `veerline rule remove '~/code/oss'`.");
        if (entry.document.contains("cliDefault")) {
            expected.insert("Clear it with `veerline default --clear`, or choose another with `veerline default PROFILE`.");
        }
        EXPECT_EQ(fixes, expected);

        EXPECT_EQ(ok(entry.repair), entry.repaired);
        const json repaired = stored();
        EXPECT_EQ(repaired["rules"], json::array({workRule})) << "nothing else went";
        EXPECT_EQ(repaired["profiles"].size(), 1u);
        EXPECT_FALSE(repaired.contains("cliDefault"));
        ok({"profile", "add", "New"});
    }
    EXPECT_EQ(treeOf(outside), before);
}

TEST_F(CliProfileTest, CraftedIdsAreRefusedByEveryCommandAndPassedOverByTheShims) {
    auto evil = [](const std::string& id, const std::string& name = "Evil") { return json{{"id", id}, {"name", name}}; };
    auto invalid = [](const std::string& id) { return "\u201C" + id + "\u201D isn't a valid profile id."; };
    // From SUPPORT/codex/ up to `outside`.
    const std::string escape = "../../../../../outside/x";
    const std::vector<std::pair<json, std::string>> cases = {
        {json::array({evil("")}), invalid("")},
        {json::array({evil("../codex")}), invalid("../codex")},
        {json::array({evil(escape)}), invalid(escape)},
        {json::array({evil("work-aaaa"), evil("work-aaaa", "Work")}), "Two profiles share the id \u201Cwork-aaaa\u201D."},
    };
    // Each acts on the crafted profile, or saves a document that still holds it.
    const std::vector<std::vector<std::string>> commands = {
        {"profile", "remove", "Evil"}, {"profile", "rename", "Evil", "Nice"}, {"profile", "set", "Evil", "--badge", "X"},
        {"profile", "add", "New"},     {"env", "Evil"},                       {"run", "Evil", "--", "true"},
        {"login", "Evil", "codex", "--print"}, {"default", "Evil"},           {"rule", "add", "~/p", "Evil"},
        {"usage", "Evil"},
    };
    writeFile(support + "/claude-code/keep/canary", "keep");
    writeFile(support + "/codex/keep/canary", "keep");
    const auto before = treeOf(outside);

    for (const auto& [profiles, message] : cases) {
        const std::string text = writeProfiles(profiles);
        for (const auto& command : commands) expectFailure(command, 1, message);
        for (const Args& args : {Args{"profile", "list"}, Args{"default"}, Args{"share", "status"}, Args{"usage"}})
            EXPECT_EQ(cli(args).exitCode, 0) << args[0];
        EXPECT_NE(ok({"which"}).find("The shims pass \u201CEvil\u201D over"), std::string::npos);
        json checks = json::parse(cli({"doctor", "--json"}).out);
        EXPECT_TRUE(std::any_of(checks.begin(), checks.end(), [](const json& check) {
            return check["id"] == "profile.id" &&
                   check["fix"] == "Remove it with `veerline profile remove Evil --keep-data` and add it again.";
        })) << checks.dump();
        // The shims pass the tools through unchanged; the prompt shows nothing.
        for (const std::string tool : {"claude", "codex"}) {
            auto environment = report(tool, home).environment;
            EXPECT_FALSE(environment.contains("CLAUDE_CONFIG_DIR") || environment.contains("CODEX_HOME")) << text;
        }
        EXPECT_EQ(prompt(home), "");
        EXPECT_EQ(readFile(support + "/claude-code/keep/canary") + readFile(support + "/codex/keep/canary"), "keepkeep");
        EXPECT_EQ(treeOf(outside), before) << text;

        // Taken out of the document without deleting anything by its id, it leaves the rest usable.
        ok({"profile", "remove", "Evil", "--keep-data"});
        EXPECT_EQ(stored()["profiles"].size(), profiles.size() - 1) << text;
        ok({"profile", "add", "New"});
        EXPECT_EQ(readFile(support + "/claude-code/keep/canary") + readFile(support + "/codex/keep/canary"), "keepkeep");
        EXPECT_EQ(treeOf(outside), before) << text;
    }
}

TEST_F(CliProfileTest, SpecialFilesNeitherHangNorSwampAReader) {
    const std::string good = writeProfiles(json::array({{{"id", "work"}, {"name", "Work"}}}));
    const std::string appPath = home + "/.veerline/app-path";

    for (const std::string kind : {"fifo", "/dev/zero", "huge"}) {
        auto plant = [&](const std::string& path, const std::string& content) {
            fs::remove(path);
            EXPECT_TRUE(kind != "fifo" || ::mkfifo(path.c_str(), 0600) == 0);
            if (kind == "huge") writeFile(path, content + std::string(5 << 20, ' '));
            if (kind == "/dev/zero") makeSymlink("/dev/zero", path);
        };
        plant(profilesFile, good);
        RunResult listed = cli({"profile", "list"});
        EXPECT_EQ(listed.exitCode, 1) << kind;
        EXPECT_EQ(listed.err, "veerline: Couldn't read " + profilesFile + ": " +
                                  (kind == "huge" ? "the file is too large (over 4 MB).\n" : "it isn't a regular file.\n"));
        EXPECT_EQ(prompt(home), "") << kind;
        EXPECT_FALSE(report("claude", home).environment.contains("CLAUDE_CONFIG_DIR")) << kind;
        fs::remove(profilesFile);
        writeFile(profilesFile, good);

        // The hint files and the dotfile are passed over: Veerline still answers.
        plant(appPath, "/no/such/app");
        EXPECT_EQ(prompt(home), "Work\n") << kind;
        EXPECT_EQ(report("claude", home).environment["CLAUDE_CONFIG_DIR"], support + "/claude-code/work");
        fs::remove(appPath);
        plant(support + "/codex-app-path", "/no/such/ChatGPT.app");
        RunResult noCodex = shim("codex", home, {{"PATH", "/usr/bin:/bin"}});
        EXPECT_EQ(noCodex.exitCode, 127) << kind;
        EXPECT_EQ(noCodex.err, "veerline: couldn't find the real `codex` on your PATH. Is it installed?\n");
        plant(home + "/music/.veerline", "Nobody");
        EXPECT_EQ(prompt(home + "/music"), "Work\n") << kind;
    }
}

TEST_F(CliProfileTest, LinksAreWrittenThroughToRegularFilesAndNeverFollowedToDelete) {
    const json work = json::array({{{"id", "work-aaaa"}, {"name", "Work"}}});
    const auto before = treeOf(outside);
    writeProfiles(work);

    // A data folder that is a link goes as a link.
    makeDirs(support + "/claude-code");
    makeSymlink(outside, support + "/codex/work-aaaa");
    ok({"profile", "remove", "Work"});
    EXPECT_FALSE(fs::is_symlink(support + "/codex/work-aaaa"));

    // A tool folder that is a link is not gone through.
    writeProfiles(work);
    fs::remove(support + "/claude-code");
    makeSymlink(outside, support + "/claude-code");
    RunResult refused = cli({"profile", "remove", "Work"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_TRUE(refused.err.ends_with("veerline: Refused to delete " + support +
                                      "/claude-code/work-aaaa because it isn't inside Veerline's own data folder.\n"));

    // The lock file is never created or locked through a link.
    fs::remove(support + "/.profiles.lock");
    makeSymlink(outside + "/lock", support + "/.profiles.lock");
    RunResult locked = cli({"profile", "add", "Locked"});
    EXPECT_EQ(locked.exitCode, 1);
    EXPECT_TRUE(locked.err.starts_with("veerline: Couldn't open " + support + "/.profiles.lock: ")) << locked.err;
    // Nothing outside was removed, written or created by any of the above.
    EXPECT_EQ(treeOf(outside), before);
    fs::remove(support + "/.profiles.lock");

    // The profiles file kept elsewhere through a link stays a link.
    fs::rename(profilesFile, home + "/synced.json");
    makeSymlink("../../../synced.json", profilesFile);
    EXPECT_EQ(cli({"profile", "add", "Linked"}).exitCode, 0);
    EXPECT_TRUE(fs::is_symlink(profilesFile));
    EXPECT_NE(readFile(home + "/synced.json").find("\"Linked\""), std::string::npos);
}

TEST_F(CliProfileTest, ForeignFilesOutputFailuresKillsAndEscapes) {
    // A control character reaching output (here from a folder name) is shown escaped.
    const std::string folder = home + "/a\x1b]0;x\x07";
    writeFile(folder + "/.veerline", "Nobody");
    EXPECT_EQ(cli({"which"}, {}, folder).out,
              "No profile applies here: no folder rule, dotfile or terminal default covers it.\nWarning: " + home +
                  "/a\\x1B]0;x\\x07/.veerline names \u201CNobody\u201D, but there's no profile with that name.\n");
    RunResult full = start("/bin/sh", {"-c", R"(exec "$0" profile add Zed > /dev/full)", VEERLINE_CLI_BINARY}, in(home));
    EXPECT_EQ(full.err, "veerline: Couldn't write to standard output: No space left on device\n");
    EXPECT_EQ(full.exitCode, 1);

    // Saves killed at random moments leave the file valid; the next save removes what they left
    // behind, but not the temporary file of a process that still runs.
    writeFile(support + "/.profiles.json.99999999.7.tmp", "stale");
    const std::string live = support + "/.profiles.json." + std::to_string(::getpid()) + ".7.tmp";
    writeFile(live, "live");
    for (int n = 0; n < 30; ++n) {
        const std::string after = std::to_string(0.0005 * (n % 12 + 1)), name = "K" + std::to_string(n);
        // --foreground: only the child is killed, and timeout itself lives on to reap it.
        run("/usr/bin/timeout", {"--foreground", "-s", "KILL", after, VEERLINE_CLI_BINARY, "profile", "add", name},
            in(home));
    }
    // Names equal once case-folded and composed are the same name.
    EXPECT_EQ(cli({"profile", "add", "Caf\u00E9"}).exitCode, 0);
    EXPECT_EQ(cli({"profile", "add", "CAFE\u0301"}).err, "veerline: There's already a profile called \u201CCAFE\u0301\u201D.\n");
    EXPECT_EQ(cli({"profile", "list"}).exitCode, 0);
    std::vector<std::string> temporary;
    for (const auto& entry : fs::directory_iterator(support)) {
        if (entry.path().filename().string().starts_with(".profiles.json.")) temporary.push_back(entry.path());
    }
    EXPECT_EQ(temporary, std::vector<std::string>{live});
}
}  // namespace
}  // namespace veerline::testing
