// `veerline share`: one realistic Claude Code and Codex setup shared with managed profiles, kept
// in sync after the user changes it, and taken back without a byte of anyone's own files lost.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <map>

#include "support/test_support.h"

namespace veerline::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// Every entry under `root`, links as their targets, files as their bytes, folders as "/".
std::map<std::string, std::string> tree(const std::string& root) {
    std::map<std::string, std::string> entries;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        std::string& content = entries[fs::relative(entry.path(), root).string()];
        content = entry.is_symlink() ? "-> " + fs::read_symlink(entry.path()).string()
                  : entry.is_directory() ? "/" : readFile(entry.path().string());
    }
    return entries;
}

class CliShareTest : public ::testing::Test {
protected:
    TempDir root{"veerline-cli-share"};
    std::string home = root / "home";
    std::string tools = root / "tools";
    std::string support = home + "/Library/Application Support/Veerline";

    void SetUp() override {
        writeFakeTool(tools + "/claude");
        writeFakeTool(tools + "/codex");
        writeFile(home + "/.claude/CLAUDE.md", "Shared rules.\n");
        writeFile(home + "/.claude/settings.json",
                  R"({"model": "opus", "theme": "dark", "apiKeyHelper": "/usr/bin/source-helper"})");
        writeFile(home + "/.claude/commands/review.md", "Review the diff.\n");
        writeFile(home + "/.claude/agents/tester.md", "A tester.\n");
        writeFile(home + "/.claude/.credentials.json", R"({"claudeAiOauth": {"accessToken": "secret"}})", 0600);
        writeFile(home + "/.claude/projects/p/session.jsonl", "{}\n");
        writeFile(home + "/.claude/history.jsonl", "{}\n");
        writeFile(home + "/.claude.json", R"({"mcpServers": {"files": {"command": "npx", "args": ["fs"]},
            "search": {"command": "search-server"}}, "oauthAccount": {"emailAddress": "me@example.com"},
            "userID": "u1", "numStartups": 7})");
        writeFile(home + "/.codex/config.toml",
                  "model = \"o3\"\n\n[mcp_servers.docs]\ncommand = \"docs-server\"\nargs = [\"--port\", \"1\"]\n");
        writeFile(home + "/.codex/AGENTS.md", "Codex rules.\n");
        writeFile(home + "/.codex/prompts/fix.md", "Fix it.\n");
        writeFile(home + "/.codex/auth.json", R"({"OPENAI_API_KEY": "sk-x"})", 0600);
    }

    RunResult cli(const std::vector<std::string>& args, const std::string& input = "") const {
        RunOptions options;
        options.environment = {{"HOME", home}, {"PATH", tools + ":/usr/bin:/bin"}, {"SHELL", "/bin/bash"}};
        options.cwd = home;
        options.input = input;
        return run(VEERLINE_CLI_BINARY, args, options);
    }

    std::string added(const std::string& name) {
        RunResult result = cli({"profile", "add", name, "--tools", "claude,codex"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return result.out.substr(0, result.out.find('\n'));
    }

    std::map<std::string, std::string> sourceTree() const {
        auto entries = tree(home + "/.claude");
        for (const auto& [name, content] : tree(home + "/.codex")) entries["codex/" + name] = content;
        entries[".claude.json"] = readFile(home + "/.claude.json");
        return entries;
    }

    json doctorCheck(const std::string& id) const {
        for (const json& check : json::parse(cli({"doctor", "--json"}).out))
            if (check["id"] == id) return check;
        return nullptr;
    }
};

TEST_F(CliShareTest, SharesSyncsAndGivesEveryProfileItsOwnFilesBack) {
    auto source = sourceTree();
    const std::string work = added("Work");
    const std::string claude = support + "/claude-code/" + work;
    const std::string codex = support + "/codex/" + work;
    ASSERT_EQ(cli({"env", "Work"}).exitCode, 0);
    writeFile(claude + "/CLAUDE.md", "Work rules.\n");
    writeFile(claude + "/settings.json", "{\n  \"apiKeyHelper\": \"veerline secret get work claude-code\",\n"
                                         "  \"model\": \"sonnet\"\n}\n", 0600);
    // As the tool writes it: indented by two, no final line break.
    writeFile(claude + "/.claude.json", "{\n  \"oauthAccount\": {\n    \"emailAddress\": \"work@example.com\"\n  },\n"
                                        "  \"mcpServers\": {\n    \"files\": {\n      \"command\": \"own-files\"\n    }\n  }\n}", 0600);
    const auto ownClaude = tree(claude);
    const auto ownCodex = tree(codex);

    RunResult on = cli({"share", "on"});
    ASSERT_EQ(on.exitCode, 0) << on.err;
    EXPECT_NE(on.out.find("Kept “Work” (Claude Code)'s own CLAUDE.md as"), std::string::npos) << on.out;
    EXPECT_EQ(fs::read_symlink(claude + "/CLAUDE.md"), home + "/.claude/CLAUDE.md");
    EXPECT_EQ(readFile(claude + "/CLAUDE.md.veerline-own"), "Work rules.\n");
    EXPECT_EQ(readFile(claude + "/commands/review.md"), "Review the diff.\n");
    EXPECT_EQ(fs::read_symlink(codex + "/prompts"), home + "/.codex/prompts");
    json settings = json::parse(readFile(claude + "/settings.json"));
    EXPECT_EQ(settings, json::parse(R"({"apiKeyHelper": "veerline secret get work claude-code", "model": "sonnet",
                                        "theme": "dark"})"));
    // The profile's own server wins.
    EXPECT_EQ(json::parse(readFile(claude + "/.claude.json")), json::parse(R"({"oauthAccount": {"emailAddress":
        "work@example.com"}, "mcpServers": {"files": {"command": "own-files"}, "search": {"command": "search-server"}}})"));
    EXPECT_EQ(fileMode(claude + "/.claude.json") & 0777, 0600u);
    std::string config = readFile(codex + "/config.toml");
    EXPECT_TRUE(config.starts_with(ownCodex.at("config.toml"))) << config;
    EXPECT_NE(config.find("[mcp_servers.docs]"), std::string::npos) << config;

    // A profile added while sharing is on starts with the shared setup and no one's sign-in.
    const std::string homeID = added("Home");
    const std::string homeClaude = support + "/claude-code/" + homeID;
    EXPECT_EQ(readFile(homeClaude + "/agents/tester.md"), "A tester.\n");
    EXPECT_EQ(json::parse(readFile(homeClaude + "/.claude.json")), json::parse(R"({"mcpServers": {"files": {"command": "npx", "args": ["fs"]},
                                     "search": {"command": "search-server"}}})"));
    EXPECT_EQ(json::parse(readFile(homeClaude + "/settings.json")), json::parse(R"({"model": "opus", "theme": "dark"})"));
    for (const std::string& folder : {claude, codex, homeClaude, support + "/codex/" + homeID})
        for (const char* secret : {".credentials.json", "auth.json", "projects", "history.jsonl"})
            EXPECT_FALSE(exists(folder + "/" + secret)) << folder << "/" << secret;
    EXPECT_EQ(doctorCheck("sharing")["level"], "ok");

    EXPECT_EQ(sourceTree(), source) << "the source is only ever read";
    // The user changes the shared setup: a new MCP server each, a new skills folder.
    writeFile(home + "/.claude.json", R"({"mcpServers": {"files": {"command": "npx", "args": ["fs"]},
        "search": {"command": "search-server"}, "tickets": {"command": "tickets"}}, "userID": "u1"})");
    writeFile(home + "/.codex/config.toml", "[mcp_servers.docs]\ncommand = \"docs-server\"\n\n"
                                            "[mcp_servers.tickets]\ncommand = \"tickets\"\n");
    writeFile(home + "/.claude/skills/deploy/SKILL.md", "Deploy.\n");
    source = sourceTree();
    json outdated = doctorCheck("sharing");
    EXPECT_EQ(outdated["level"], "warning");
    EXPECT_EQ(outdated["fix"], "Run `veerline share sync`.");
    EXPECT_NE(outdated["detail"].get<std::string>().find("Work · Claude Code (skills, MCP servers)"), std::string::npos)
        << outdated;
    json status = json::parse(cli({"share", "status", "--json"}).out);
    EXPECT_EQ(status["claude-code"]["profiles"][0]["keptAside"], json::array({"CLAUDE.md.veerline-own"}));
    EXPECT_EQ(status["codex"]["profiles"][1]["outOfDate"], json::array({"MCP servers"}));

    RunResult sync = cli({"share", "sync"});
    ASSERT_EQ(sync.exitCode, 0) << sync.err;
    EXPECT_EQ(doctorCheck("sharing")["level"], "ok");
    EXPECT_EQ(json::parse(readFile(homeClaude + "/.claude.json"))["mcpServers"]["tickets"]["command"], "tickets");
    EXPECT_NE(readFile(codex + "/config.toml").find("[mcp_servers.tickets]"), std::string::npos);
    EXPECT_EQ(readFile(homeClaude + "/skills/deploy/SKILL.md"), "Deploy.\n");
    EXPECT_EQ(cli({"share", "sync"}).out, "Every profile is up to date.\n");

    // A shared key the user changed in a profile is that profile's own from then on.
    writeFile(homeClaude + "/settings.json", R"({"model": "opus", "theme": "light"})");
    RunResult off = cli({"share", "off"});
    ASSERT_EQ(off.exitCode, 0) << off.err;
    EXPECT_EQ(tree(claude), ownClaude);
    EXPECT_EQ(tree(codex), ownCodex);
    EXPECT_EQ(tree(homeClaude), (std::map<std::string, std::string>{{"settings.json", "{\n  \"theme\": \"light\"\n}"}}));
    EXPECT_EQ(json::parse(cli({"share", "status", "--json"}).out)["codex"], json::parse(R"({"shared": false})"));
    EXPECT_EQ(sourceTree(), source) << "the source is only ever read";
}

TEST_F(CliShareTest, EveryCommandThatMakesADataFolderStartsItShared) {
    ASSERT_EQ(cli({"share", "on"}).exitCode, 0);
    RunResult add = cli({"profile", "add", "Solo", "--tools", "claude", "--storage", "system"});
    ASSERT_EQ(add.exitCode, 0) << add.err;
    const std::string solo = add.out.substr(0, add.out.find('\n'));
    const std::string claude = support + "/claude-code/" + solo, codex = support + "/codex/" + solo;
    EXPECT_FALSE(exists(claude));
    auto codexShared = [&] {
        return fs::is_symlink(codex + "/AGENTS.md") && readFile(codex + "/config.toml").find("[mcp_servers.docs]") != std::string::npos;
    };
    auto shared = [&] { return codexShared() && fs::read_symlink(claude + "/CLAUDE.md") == home + "/.claude/CLAUDE.md"; };

    RunResult set = cli({"profile", "set", "Solo", "--storage", "managed", "--tools", "claude,codex"});
    ASSERT_EQ(set.exitCode, 0) << set.err;
    EXPECT_TRUE(shared()) << set.err;

    fs::remove_all(claude), fs::remove_all(codex);
    RunResult login = cli({"login", "Solo", "codex", "--api-key"}, "sk-solo");
    ASSERT_EQ(login.exitCode, 0) << login.err;
    EXPECT_NE(readFile(codex + "/auth.json").find("sk-solo"), std::string::npos);
    EXPECT_EQ(readFile(home + "/.codex/auth.json"), R"({"OPENAI_API_KEY": "sk-x"})");
    EXPECT_TRUE(codexShared()) << login.err;

    fs::remove_all(claude), fs::remove_all(codex);
    RunResult install = cli({"shell", "install", "--yes"});
    ASSERT_EQ(install.exitCode, 0) << install.err;
    EXPECT_TRUE(shared()) << install.err;
}

TEST_F(CliShareTest, BadInputAndFoldersThatCannotBeSharedAreNamedAndLeftAsTheyWere) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> usageErrors = {
        {{"share", "on", "desktop"}, "“desktop” is an app"},
        {{"share", "on", "pencil"}, "“pencil” isn't a tool"},
        {{"share", "on", "claude", "--from", "missing"}, "There's no folder at “missing”."},
        {{"share", "on", "--from", home}, "--from names one tool's folder"},
    };
    for (const auto& [args, message] : usageErrors) {
        RunResult result = cli(args);
        EXPECT_EQ(result.exitCode, 2) << args.back();
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
    }
    EXPECT_FALSE(exists(support + "/sharing.json"));
    ASSERT_EQ(cli({"share", "on"}).exitCode, 0);
    const std::vector<std::vector<std::string>> problems = {
        {"claude-code", "CLAUDE.md.veerline-own", "x", "CLAUDE.md.veerline-own is already there"},
        {"claude-code", "settings.json", "[1]", "settings.json: it isn't a JSON object."},
        {"claude-code", ".claude.json", R"({"mcpServers": []})", "its \"mcpServers\" isn't a JSON object."},
        {"codex", "config.toml", "model = ", "config.toml: it isn't valid TOML (line 1"},
        {"codex", "config.toml", "mcp_servers = {}\n", "its own text doesn't allow them"},
    };
    for (const auto& problem : problems) {
        std::string folder = support + "/" + problem[0] + "/" + added("Broken");
        fs::remove(folder + "/CLAUDE.md");
        writeFile(folder + "/CLAUDE.md", "own\n");
        writeFile(folder + "/" + problem[1], problem[2]);
        RunResult sync = cli({"share", "sync"});
        EXPECT_EQ(sync.exitCode, 1);
        EXPECT_NE(sync.err.find(problem[3]), std::string::npos) << sync.err;
        EXPECT_EQ(readFile(folder + "/" + problem[1]), problem[2]);
        ASSERT_EQ(cli({"profile", "remove", "Broken", "--keep-data"}).exitCode, 0);
    }

    // Another source: links and servers follow it; a folder reached through a link is left alone.
    std::string homeClaude = support + "/claude-code/" + added("Home");
    std::string work = support + "/claude-code/" + added("Work");
    writeFile(root / "team/CLAUDE.md", "Team rules.\n");
    writeFile(root / "team/.claude.json", R"({"mcpServers": {"team": {"command": "t"}}})");
    fs::rename(work, root / "elsewhere");
    makeSymlink(root / "elsewhere", work);
    RunResult team = cli({"share", "on", "claude", "--from", root / "team"});
    EXPECT_EQ(team.exitCode, 0) << team.err;
    EXPECT_NE(team.err.find("reached through a symbolic link"), std::string::npos) << team.err;
    EXPECT_EQ(fs::read_symlink(root / "elsewhere/CLAUDE.md"), home + "/.claude/CLAUDE.md");
    EXPECT_EQ(fs::read_symlink(homeClaude + "/CLAUDE.md"), root / "team/CLAUDE.md");
    EXPECT_FALSE(fs::exists(fs::symlink_status(homeClaude + "/commands")));
    EXPECT_EQ(json::parse(readFile(homeClaude + "/.claude.json")), json::parse(R"({"mcpServers": {"team": {"command": "t"}}})"));

    writeFile(support + "/sharing.json", R"({"version": 1, "tools": {"codex": {"source": "relative"}}})");
    for (const auto& args : {std::vector<std::string>{"share", "sync"}, {"share", "status"}, {"share", "on"}}) {
        RunResult damaged = cli(args);
        EXPECT_EQ(damaged.exitCode, 1);
        EXPECT_EQ(damaged.err, "veerline: Couldn't read ~/Library/Application Support/Veerline/sharing.json: the "
                               "\"source\" of \"codex\" isn't an absolute path. Fix it, or delete it and run "
                               "`veerline share on` again.\n");
    }
    EXPECT_EQ(doctorCheck("sharing")["level"], "warning");
}

}  // namespace
}  // namespace veerline::testing
