// `veerline usage`, `status` and `statusline` over realistic logs in a temporary home.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <ctime>

#include "support/test_support.h"

namespace veerline::testing {
namespace {

std::string stampAgo(long seconds) {
    time_t time = std::time(nullptr) - seconds;
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.123Z", std::gmtime(&time));
    return text;
}

std::string claudeLine(long ago, const std::string& id, int input) {
    return R"({"parentUuid":"p","isSidechain":false,"cwd":"/w","sessionId":"s-)" + id + R"(","message":{"id":")" + id +
           R"(","role":"assistant","content":[{"type":"tool_use","input":{"cmd":"grep \"usage\" }"}}],"usage":{"input_tokens":)" +
           std::to_string(input) + R"(,"cache_creation_input_tokens":2000,"cache_read_input_tokens":500,"output_tokens":34}},"requestId":"req_)" +
           id + R"(","type":"assistant","timestamp":")" + stampAgo(ago) + "\"}\n";
}

TEST(CliUsageTest, UsageStatusAndStatusLineReadTheProfilesLogs) {
    TempDir root{"veerline-cli-usage"};
    std::string home = root / "home", support = home + "/Library/Application Support/Veerline";
    makeDirs(home);
    RunOptions options;
    options.environment = {{"HOME", home}, {"PATH", "/usr/bin:/bin"}, {"XDG_CACHE_HOME", root / "cache"}};
    options.cwd = home;
    auto cli = [&](const std::vector<std::string>& args) { return run(VEERLINE_CLI_BINARY, args, options); };
    std::string work = cli({"profile", "add", "Work", "--tools", "claude,codex"}).out;
    work = work.substr(0, work.find('\n'));
    ASSERT_EQ(cli({"profile", "add", "Home", "--tools", "claude", "--storage", "system"}).exitCode, 0);
    writeFile(support + "/claude-code/" + work + "/projects/-w/a.jsonl",
              R"({"type":"user","message":{"role":"user","content":[{"type":"tool_result","content":"no figures"}]}})" "\n" +
                  claudeLine(60, "m1", 1200) + claudeLine(60, "m1", 1200) + claudeLine(86400, "m2", 50000));
    writeFile(support + "/codex/" + work + "/sessions/2025/01/02/rollout-x.jsonl",
              R"({"timestamp":")" + stampAgo(30) + R"(","type":"event_msg","payload":{"type":"token_count","info":{"last_token_usage":{"input_tokens":900,"cached_input_tokens":400,"output_tokens":100}}}})" "\n" +
                  R"({"timestamp":")" + stampAgo(30) + R"(","type":"event_msg","payload":{"type":"token_count","info":null}})" "\n");
    writeFile(home + "/.claude/projects/-h/b.jsonl", claudeLine(7200, "h1", 7));

    RunResult usage = cli({"usage", "--json", "--no-cache"});
    ASSERT_EQ(usage.exitCode, 0) << usage.err;
    EXPECT_FALSE(exists(root / "cache/veerline")) << "--no-cache writes nothing";
    auto list = nlohmann::json::parse(usage.out);
    EXPECT_EQ(list[0], nlohmann::json::parse(R"({"profile":"Work","profileID":")" + work + R"(","tool":"claude-code","window":18000,
        "sessions":1,"inputTokens":1200,"outputTokens":34,"cacheTokens":2500})"));
    std::vector<std::string> rows;
    for (const auto& row : list) rows.push_back(row["profile"].dump() + row["tool"].dump() + row["window"].dump() + " " + row["inputTokens"].dump());
    EXPECT_EQ(rows, (std::vector<std::string>{R"("Work""claude-code"18000 1200)", R"("Work""claude-code"604800 51200)",
                                              R"("Work""codex"18000 500)", R"("Work""codex"604800 500)",
                                              R"("Home""claude-code"18000 7)", R"("Home""claude-code"604800 7)"}));

    RunResult table = cli({"usage", "Work", "--tool", "claude", "--window", "90m", "--window", "2d"});
    EXPECT_EQ(table.out, "PROFILE  TOOL         LAST 90m                                LAST 2d\n"
                         "Work     Claude Code  1.2k tokens \u00b7 1 session (+2.5k cached)  51k tokens \u00b7 2 sessions (+5.0k cached)\n") << table.err;
    EXPECT_EQ(fileMode(root / "cache/veerline/usage-cache.bin") & 0777, 0600u);
    EXPECT_EQ(cli({"usage", "--window", "5x"}).exitCode, 2);

    auto states = nlohmann::json::parse(cli({"status", "--json"}).out);
    ASSERT_EQ(states.size(), 3u);
    EXPECT_EQ(states[0]["state"], "Not installed");
    EXPECT_TRUE(states[0]["detail"].is_null());
    EXPECT_EQ(states[1]["usage5h"]["outputTokens"], 100);
    EXPECT_EQ(states[2]["usage7d"]["inputTokens"], 7);

    // No rule and no default: nothing to show; a broken profile list neither.
    options.input = R"({"session_id":"x","workspace":{"current_dir":")" + home + R"("}})";
    auto statusLine = [&] { RunResult r = cli({"statusline"}); return std::to_string(r.exitCode) + " " + r.out + r.err; };
    EXPECT_EQ(statusLine(), "0 ");
    ASSERT_EQ(cli({"default", "Home"}).exitCode, 0);
    EXPECT_EQ(statusLine(), "0 Home \u00b7 41 tokens \u00b7 5h\n");
    options.environment["VEERLINE_PROFILE"] = "Work";
    EXPECT_EQ(statusLine(), "0 Work \u00b7 1.2k tokens \u00b7 5h\n");
    writeFile(support + "/profiles.json", "{broken");
    EXPECT_EQ(statusLine(), "0 ");
}

}  // namespace
}  // namespace veerline::testing
