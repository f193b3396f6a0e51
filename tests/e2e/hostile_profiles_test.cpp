// What Veerline reads from disk is input, not instructions: crafted ids, special files and links
// in place of its files, kills and output failures, each tried on the built `veerline` and
// `veerline-resolve` in a temporary HOME. Canary files outside HOME prove nothing outside
// Veerline's own folders is touched.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "e2e/temp_home.h"

namespace veerline::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class HostileProfilesTest : public TempHomeTest {
protected:
    std::string outside = root / "outside";

    void SetUp() override {
        TempHomeTest::SetUp();
        launcher = {"/usr/bin/timeout", "10"};  // nothing Veerline reads may hang it (exit 124 if it does)
        writeFile(outside + "/canary", "keep");
        // Where SUPPORT/claude-code/work-aaaa leads when claude-code is a link to `outside`.
        writeFile(outside + "/work-aaaa/canary", "keep");
    }

    // Every path below `outside` with its content, to compare before and after.
    std::map<std::string, std::string> outsideFiles() const {
        std::map<std::string, std::string> files;
        for (const auto& entry : fs::recursive_directory_iterator(outside)) {
            files[entry.path()] = entry.is_symlink() ? "link" : entry.is_regular_file() ? readFile(entry.path()) : "";
        }
        return files;
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

TEST_F(HostileProfilesTest, CraftedIdsAreRefusedByEveryCommandAndPassedOverByTheShims) {
    auto evil = [](const std::string& id, const std::string& name = "Evil") { return json{{"id", id}, {"name", name}}; };
    auto invalid = [](const std::string& id) { return "\u201C" + id + "\u201D isn't a valid profile id."; };
    // From SUPPORT/codex/ up to `outside`.
    const std::string escape = "../../../../../outside/x";
    const std::vector<std::pair<json, std::string>> cases = {
        {json::array({evil("")}), invalid("")},
        {json::array({evil("../codex")}), invalid("../codex")},
        {json::array({evil(escape)}), invalid(escape)},
        {json::array({evil("work-aaaa"), evil("work-aaaa", "Work")}), "Two profiles share the id \u201Cwork-aaaa\u201D."},
        {json::array({evil("evil", "Evil\x1b]0;pwned\x07")}),
         "\u201CEvil\\x1B]0;pwned\\x07\u201D holds a control character or line break. Use letters, numbers, spaces "
         "and punctuation."},
    };
    const std::vector<std::vector<std::string>> commands = {
        {"profile", "remove", "Evil"}, {"profile", "rename", "Evil", "Nice"}, {"profile", "set", "Evil", "--badge", "X"},
        {"profile", "add", "New"},     {"profile", "list"},                   {"env", "Evil"},
        {"run", "Evil", "--", "true"}, {"login", "Evil", "codex", "--print"}, {"default", "Evil"},
        {"default"},                   {"rule", "add", "~/p", "Evil"},        {"which"},
    };
    writeFile(support + "/claude-code/keep/canary", "keep");
    writeFile(support + "/codex/keep/canary", "keep");
    const auto before = outsideFiles();

    for (const auto& [profiles, message] : cases) {
        const std::string text = writeProfiles(profiles);
        for (const auto& command : commands) {
            RunResult result = cli(command);
            EXPECT_EQ(result.exitCode, 1) << text << "\n" << command[0];
            EXPECT_EQ(result.err + "|" + result.out, "veerline: Couldn't read " + profilesFile + ": " + message + "\n|") << command[0];
        }
        // The shims pass the tools through unchanged; the prompt shows nothing.
        for (const std::string tool : {"claude", "codex"}) {
            auto environment = report(tool, home).environment;
            EXPECT_FALSE(environment.contains("CLAUDE_CONFIG_DIR") || environment.contains("CODEX_HOME")) << text;
        }
        EXPECT_EQ(prompt(home) + readFile(profilesFile), text);
        EXPECT_EQ(readFile(support + "/claude-code/keep/canary") + readFile(support + "/codex/keep/canary"), "keepkeep");
        EXPECT_EQ(outsideFiles(), before) << text;
    }
}

TEST_F(HostileProfilesTest, SpecialFilesNeitherHangNorSwampAReader) {
    const std::string good = writeProfiles(json::array({{{"id", "work"}, {"name", "Work"}}}));
    const std::string appPath = home + "/.veerline/app-path";

    for (const std::string kind : {"fifo", "/dev/zero", "huge"}) {
        auto plant = [&](const std::string& path, const std::string& content) {
            fs::remove(path);
            if (kind == "fifo") {
                EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
            }
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

TEST_F(HostileProfilesTest, LinksAreWrittenThroughToRegularFilesAndNeverFollowedToDelete) {
    const json work = json::array({{{"id", "work-aaaa"}, {"name", "Work"}}});
    const auto before = outsideFiles();
    writeProfiles(work);

    // A data folder that is a link goes as a link.
    makeDirs(support + "/claude-code");
    makeSymlink(outside, support + "/codex/work-aaaa");
    RunResult removed = cli({"profile", "remove", "Work"});
    EXPECT_EQ(removed.exitCode, 0) << removed.err;
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
    EXPECT_EQ(outsideFiles(), before);
    fs::remove(support + "/.profiles.lock");

    // The profiles file kept elsewhere through a link stays a link.
    fs::rename(profilesFile, home + "/synced.json");
    makeSymlink("../../../synced.json", profilesFile);
    EXPECT_EQ(cli({"profile", "add", "Linked"}).exitCode, 0);
    EXPECT_TRUE(fs::is_symlink(profilesFile));
    EXPECT_NE(readFile(home + "/synced.json").find("\"Linked\""), std::string::npos);
}

TEST_F(HostileProfilesTest, ForeignFilesOutputFailuresKillsAndEscapes) {
    // Files Veerline did not write are refused and kept.
    const std::string empty = R"("profiles": [], "rules": []})";
    for (const auto& [text, message] : std::vector<std::pair<std::string, std::string>>{
             {R"({"version": 1e1, )" + empty, "Your profiles were saved by a newer version of Veerline (format 10). "
                                               "Update Veerline to change them.\n"},
             {R"({"version": 1, )" + empty + std::string("\0garbage", 8),
              "Couldn't read " + profilesFile + ": not valid JSON (a NUL byte at line 1, column 44)\n"}}) {
        writeFile(profilesFile, text);
        RunResult added = cli({"profile", "add", "X"});
        EXPECT_EQ(added.exitCode, 1);
        EXPECT_EQ(added.err, "veerline: " + message);
        EXPECT_EQ(readFile(profilesFile), text);
    }
    fs::remove(profilesFile);

    // A control character reaching output (here from a folder name) is shown escaped.
    const std::string folder = home + "/a\x1b]0;x\x07";
    writeFile(folder + "/.veerline", "Nobody");
    EXPECT_EQ(cli({"which"}, {}, folder).out,
              "No profile applies here: no folder rule, dotfile or terminal default covers it.\nWarning: " + home +
                  "/a\\x1B]0;x\\x07/.veerline names \u201CNobody\u201D, but there's no profile with that name.\n");
    RunResult full = start("/bin/sh", {"-c", R"(exec "$0" profile add Zed > /dev/full)", VEERLINE_CLI_BINARY}, in(home));
    EXPECT_EQ(full.err, "veerline: Couldn't write to standard output: No space left on device\n");
    EXPECT_EQ(full.exitCode, 1);
    RunResult limited = start("/bin/sh", {"-c", R"(ulimit -f 0 && exec "$0" profile add Big)", VEERLINE_CLI_BINARY}, in(home));
    // starts_with: a coverage build's own data files can't be written under this limit either.
    EXPECT_TRUE(limited.exitCode == 1 && limited.err.starts_with("veerline: Couldn't save profiles: File too large\n"))
        << limited.err;

    // Saves killed at random moments leave the file valid; the next save removes what they left
    // behind, but not the temporary file of a process that still runs.
    writeFile(support + "/profiles.json.tmp.99999999.7", "stale");
    const std::string live = support + "/profiles.json.tmp." + std::to_string(::getpid()) + ".7";
    writeFile(live, "live");
    for (int kill = 0; kill < 30; ++kill) {
        pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::setenv("HOME", home.c_str(), 1);
            ::execl(VEERLINE_CLI_BINARY, "veerline", "profile", "add", ("K" + std::to_string(kill)).c_str(), nullptr);
            ::_exit(127);
        }
        ::usleep(static_cast<useconds_t>(500 * (kill % 12)));
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
    // Names equal once case-folded and composed are the same name.
    EXPECT_EQ(cli({"profile", "add", "Caf\u00E9"}).exitCode, 0);
    EXPECT_EQ(cli({"profile", "add", "CAFE\u0301"}).err, "veerline: There's already a profile called \u201CCAFE\u0301\u201D.\n");
    EXPECT_EQ(cli({"profile", "list"}).exitCode, 0);
    std::vector<std::string> temporary;
    for (const auto& entry : fs::directory_iterator(support)) {
        if (entry.path().filename().string().starts_with("profiles.json.tmp.")) temporary.push_back(entry.path());
    }
    EXPECT_EQ(temporary, std::vector<std::string>{live});
}

}  // namespace
}  // namespace veerline::testing
