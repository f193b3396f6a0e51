// The built `veerline`'s reports over one temporary home: `usage`, `status` and `statusline` over
// the profiles' logs, then `doctor` after `shell install`, with fake `claude` and `codex` that answer
// their status commands as the real tools do, as JSON and in a terminal.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <functional>

#include "base/file_io.h"
#include "base/paths.h"
#include "support/test_support.h"
#include "usage/usage_cache_file.h"

namespace veerline::testing {
namespace {

using nlohmann::json;

std::string stampAgo(long seconds) {
    time_t time = std::time(nullptr) - seconds;
    char text[40];
    return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.123Z", std::gmtime(&time)));
}

std::string claudeLine(long ago, const std::string& id, int input) {
    return R"({"sessionId":"s-)" + id + R"(","message":{"id":")" + id + R"(","role":"assistant","usage":{"input_tokens":)" + std::to_string(input) +
           R"(,"cache_creation_input_tokens":2000,"cache_read_input_tokens":500,"output_tokens":34}},"timestamp":")" + stampAgo(ago) + "\"}\n";
}

// A home with no profiles yet, its cache outside it.
class CliReportsTest : public ::testing::Test {
protected:
    TempDir root{"veerline-cli-reports"};
    std::string home = root / "home", support = home + "/Library/Application Support/Veerline";
    RunOptions options{{{"HOME", home}, {"PATH", "/usr/bin:/bin"}, {"XDG_CACHE_HOME", root / "cache"}}, home, "", std::nullopt, {}};

    void SetUp() override { makeDirs(home); }
    RunResult cli(const std::vector<std::string>& args) const { return run(VEERLINE_CLI_BINARY, args, options); }
    // The id of the profile that `args` adds.
    std::string add(const std::vector<std::string>& args) const {
        std::string id = cli(args).out;
        return id.substr(0, id.find('\n'));
    }
};

TEST_F(CliReportsTest, UsageStatusStatusLineAndDoctorOverOneHome) {
    const std::string work = add({"profile", "add", "Work", "--tools", "claude,codex"});
    const std::string personal = add({"profile", "add", "Home", "--tools", "claude", "--storage", "system"});
    writeFile(support + "/claude-code/" + work + "/projects/-w/a.jsonl",
              claudeLine(60, "m1", 1200) + claudeLine(60, "m1", 1200) + claudeLine(86400, "m2", 50000));
    writeFile(support + "/codex/" + work + "/sessions/2025/01/02/rollout-x.jsonl", R"({"timestamp":")" + stampAgo(30) + R"(","type":"event_msg",)"
              R"("payload":{"type":"token_count","info":{"last_token_usage":{"input_tokens":900,"cached_input_tokens":400,"output_tokens":100}}}})");
    writeFile(home + "/.claude/projects/-h/b.jsonl", claudeLine(7200, "h1", 7));

    RunResult usage = cli({"usage", "--json", "--no-cache"});
    ASSERT_EQ(usage.exitCode, 0) << usage.err;
    EXPECT_FALSE(exists(root / "cache/veerline")) << "--no-cache writes nothing";
    auto list = json::parse(usage.out);
    EXPECT_EQ(list[0], json::parse(R"({"profile":"Work","profileID":")" + work + R"(","tool":"claude-code","window":18000,
        "sessions":1,"inputTokens":1200,"outputTokens":34,"cacheTokens":2500,"warnings":[]})"));
    std::vector<std::string> rows;
    for (const auto& row : list) rows.push_back(row["profile"].dump() + row["tool"].dump() + row["window"].dump() + " " + row["inputTokens"].dump());
    EXPECT_EQ(rows, (std::vector<std::string>{R"("Work""claude-code"18000 1200)", R"("Work""claude-code"604800 51200)",
                                              R"("Work""codex"18000 500)", R"("Work""codex"604800 500)",
                                              R"("Home""claude-code"18000 7)", R"("Home""claude-code"604800 7)"}));

    EXPECT_EQ(cli({"usage", "Work", "--tool", "claude", "--window", "90m", "--window", "2d"}).out,
              "PROFILE  TOOL         LAST 90m                                LAST 2d\n"
              "Work     Claude Code  1.2k tokens \u00b7 1 session (+2.5k cached)  51k tokens \u00b7 2 sessions (+5.0k cached)\n");
    EXPECT_EQ(fileMode(root / "cache/veerline/usage-cache.bin") & 0777, 0600u);
    EXPECT_EQ(cli({"usage", "--window", "5x"}).exitCode, 2);

    auto states = json::parse(cli({"status", "--json"}).out);
    ASSERT_EQ(states.size(), 3u);
    EXPECT_EQ(states[0]["state"].dump() + states[0]["detail"].dump(), R"("Not installed"null)");
    EXPECT_EQ(states[1]["usage5h"]["outputTokens"].dump() + " " + states[2]["usage7d"]["inputTokens"].dump(), "100 7");

    // No rule and no default: nothing to show.
    auto statusLine = [&] {
        options.input = R"({"session_id":"x","workspace":{"current_dir":")" + home + R"("}})";
        RunResult shown = cli({"statusline"});
        options.input.clear();
        return std::to_string(shown.exitCode) + " " + shown.out + shown.err;
    };
    EXPECT_EQ(statusLine(), "0 ");
    ASSERT_EQ(cli({"default", "Home"}).exitCode, 0);
    EXPECT_EQ(statusLine(), "0 Home \u00b7 41 tokens \u00b7 5h\n");
    options.environment["VEERLINE_PROFILE"] = "Work";
    EXPECT_EQ(statusLine(), "0 Work \u00b7 1.2k tokens \u00b7 5h\n");
    options.environment.erase("VEERLINE_PROFILE");

    // Claude Code prints its JSON on standard output; Codex writes its one line to standard error.
    writeFile(home + "/tools/claude", "#!/bin/sh\ncat \"${CLAUDE_CONFIG_DIR:-$HOME/.claude}/answer.json\"\n", 0755);
    writeFile(home + "/tools/codex", "#!/bin/sh\necho 'Logged in using ChatGPT' >&2\n", 0755);
    writeFile(support + "/claude-code/" + work + "/answer.json", R"({"loggedIn": true, "authMethod": "claude.ai", "email": "Ana@Example.com",)"
                                                                 R"( "orgId": "o-1", "orgName": "Acme", "subscriptionType": "max"})");
    writeFile(home + "/.claude/answer.json", R"({"loggedIn": true, "email": "ana@example.com", "orgId": "o-1"})");
    // The build folder stands for where Veerline is installed: the shim's copies come from it.
    options.environment["PATH"] = home + "/.veerline/bin:" + home + "/tools:" + PathUtil::parent(VEERLINE_CLI_BINARY) + ":/usr/bin:/bin";
    options.environment["TERM"] = "xterm";
    ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
    // Run through the shim's copy, the doctor compares the copies with the veerline further along PATH.
    RunResult result = run(home + "/.veerline/bin/veerline", {"doctor", "--deep", "--json"}, options);
    ASSERT_EQ(std::to_string(result.exitCode) + result.err, "0");
    const json report = json::parse(result.out);
    EXPECT_EQ(result.out, report.dump(2) + "\n");
    std::vector<std::string> ids;
    for (const json& check : report) ids.push_back(check.at("id").get<std::string>() + " " + check.at("level").get<std::string>());
    EXPECT_EQ(ids, (std::vector<std::string>{"profiles ok", "binary.claude-code ok", "shim.claude-code ok", "binary.codex ok", "shim.codex ok",
                                             "desktop info", "datadirs ok", "libexec ok", "conflicts ok", "status." + work + ".claude-code ok",
                                             "status." + personal + ".claude-code ok", "account.same.claude-code warning", "status." + work + ".codex ok"}));
    EXPECT_EQ(report[12], json::parse(R"({"detail": "ChatGPT", "id": "status.)" + work + R"(.codex", "level": "ok", "title": "Work · Codex: Signed in"})"));

    // In a terminal: colours and progress, or neither with NO_COLOR.
    auto inTerminal = [&](const std::string& command) {
        RunResult shown = run("/usr/bin/script", {"-qec", home + "/.veerline/bin/veerline " + command, "/dev/null"}, options);
        EXPECT_EQ(shown.exitCode, 0) << shown.out;
        return shown.out;
    };
    std::string coloured = inTerminal("doctor --deep");
    EXPECT_NE(coloured.find("\x1b[32m✓\x1b[0m Profiles file is readable\r\n  2 profiles, 0 folder rules\r\n"), std::string::npos) << coloured;
    EXPECT_NE(coloured.find("\r\x1b[KAsking "), std::string::npos) << coloured;
    EXPECT_NE(coloured.find("\x1b[33m!\x1b[0m Work and Home use the same Claude Code account\r\n"), std::string::npos);
    EXPECT_TRUE(coloured.ends_with("\r\n13 checks: 1 warning, 0 failures.\r\n")) << coloured;
    options.environment["NO_COLOR"] = "1";
    std::string plain = inTerminal("doctor");
    EXPECT_EQ(plain.find('\x1b'), std::string::npos) << plain;
    EXPECT_NE(plain.find("\r\ni Claude Desktop isn't installed\r\n"), std::string::npos) << plain;
    EXPECT_TRUE(plain.ends_with("\r\n9 checks: 0 warnings, 0 failures.\r\n")) << plain;

    // A stale copy in libexec is a warning; a profiles file that can't be read fails the run and
    // leaves the status line empty.
    writeFile(home + "/.veerline/libexec/veerline-resolve", "#!/bin/sh\n", 0755);
    writeFile(support + "/profiles.json", "{broken");
    result = run(home + "/.veerline/bin/veerline", {"doctor", "--json"}, options);
    EXPECT_EQ(result.exitCode, 1);
    const json broken = json::parse(result.out);
    EXPECT_EQ(broken[0], json::parse(R"({"id": "profiles", "level": "failure", "title": "Profiles file can't be read",
        "detail": "Couldn't read )" + support + R"~(/profiles.json: not valid JSON (line 1, column 2)",
        "fix": "Restore ~/Library/Application Support/Veerline/profiles.json from a backup, or delete it to start over."})~"));
    EXPECT_EQ(broken[7]["id"].dump() + broken[7]["level"].dump() + broken[7]["fix"].dump(),
              R"("libexec""warning""Run `veerline shell install` to copy the current ones.")");
    EXPECT_EQ(statusLine(), "0 ");
}


// What may sit where `veerline` reads: a FIFO or a huge file in the cache's place, folders past the
// system's path limit among the logs, a status line input that is never closed, a window no date
// arithmetic can take.
TEST_F(CliReportsTest, UsageAndTheStatusLineStandUpToHostileFilesAndInput) {
    const std::string cache = root / "cache/veerline/usage-cache.bin";
    makeDirs(root / "cache/veerline");
    const std::string projects = support + "/claude-code/" + add({"profile", "add", "Work", "--tools", "claude"}) + "/projects";
    writeFile(projects + "/-w/a.jsonl", claudeLine(60, "m1", 1200));

    RunResult window = cli({"usage", "--window", "99999999999999999999999d"});
    EXPECT_EQ(std::to_string(window.exitCode) + " " + window.err.substr(0, window.err.find('\n')),
              "2 veerline: \u201c99999999999999999999999d\u201d is too long a time window: the longest is 36500d.");

    const std::pair<const char*, std::function<void()>> caches[] = {
        {"FIFO", [&] { ASSERT_EQ(::mkfifo(cache.c_str(), 0600), 0); }},
        {"one byte over the bound", [&] {
             writeFile(cache, "", 0600);
             ASSERT_EQ(::truncate(cache.c_str(), static_cast<off_t>(UsageCacheFile::maxFileSize + 1)), 0);
         }},
    };
    for (const auto& [name, make] : caches) {
        make();
        RunResult usage = cli({"usage", "--json", "--window", "5h"});
        EXPECT_EQ(std::to_string(usage.exitCode) + " " + json::parse(usage.out)[0]["inputTokens"].dump(), "0 1200") << name;
        struct stat info {};
        EXPECT_TRUE(::lstat(cache.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_size < 4096) << name << ": rebuilt";
        ::unlink(cache.c_str());
    }

    // A folder whose path is one 200-byte name too long for the system.
    const FoldersPastPathLimit deep(projects);
    const std::string warning = "Couldn't list " + deep.tooLong + ": " + std::strerror(ENAMETOOLONG);
    RunResult usage = cli({"usage", "--json"});
    EXPECT_EQ(json::parse(usage.out)[1]["warnings"], json::array({warning}));
    EXPECT_EQ(usage.err, "veerline: warning: " + warning + " (not counted)\n");
    EXPECT_EQ(json::parse(cli({"status", "--json"}).out)[0]["warnings"], json::array({warning}));
    EXPECT_EQ(cli({"usage"}).err, usage.err);
    EXPECT_EQ(removeTreeAt(deep.top.get(), deep.name), 0);

    // Standard input held open: the status line answers with what arrived.
    makeDirs(root / "w");
    ASSERT_EQ(cli({"rule", "add", root / "w", "Work"}).exitCode, 0);
    ASSERT_EQ(::mkfifo((root / "in").c_str(), 0600), 0);
    RunResult shown = run("/bin/sh", {"-c", R"(exec 3<>"$1"; printf %s "$2" >&3; exec "$0" statusline <&3 3>&-)", VEERLINE_CLI_BINARY,
                                      root / "in", R"({"workspace":{"current_dir":")" + root / "w" + R"("},"cost":{)"}, options);
    EXPECT_EQ(std::to_string(shown.exitCode) + " " + shown.out + shown.err, "0 Work \u00b7 1.2k tokens \u00b7 5h\n");
}

}  // namespace
}  // namespace veerline::testing
