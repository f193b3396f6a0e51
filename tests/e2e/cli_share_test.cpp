// `veerline share`: one realistic Claude Code and Codex setup shared with managed profiles, kept
// in sync after the user changes it, and taken back without a byte of anyone's own files lost.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <filesystem>
#include <future>
#include <map>

#include "support/folder_entries.h"

namespace veerline::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class CliShareTest : public ::testing::Test {
protected:
    TempDir root{"veerline-cli-share"};
    std::string home = root / "home";
    std::string tools = root / "tools";
    std::string support = home + "/Library/Application Support/Veerline";
    std::string path = tools + ":/usr/bin:/bin";

    void SetUp() override {
        for (const char* name : {"claude", "codex"}) writeFakeTool(tools + "/" + name);
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
        return run(VEERLINE_CLI_BINARY, args,
                   {{{"HOME", home}, {"PATH", path}, {"SHELL", "/bin/bash"}}, home, input, std::nullopt, {}});
    }

    // A command that must succeed.
    RunResult ok(const std::vector<std::string>& args, const std::string& input = "") const {
        RunResult result = cli(args, input);
        EXPECT_EQ(result.exitCode, 0) << args[0] << " " << args[1] << ": " << result.err;
        return result;
    }

    // A tool run as the user would, through the shims when they are installed.
    RunResult tool(const std::string& name, const std::vector<std::string>& args,
                   std::map<std::string, std::string> environment = {}) const {
        environment.insert({{"HOME", home}, {"PATH", home + "/.veerline/bin:" + tools + ":/usr/bin:/bin"}});
        const std::string shim = home + "/.veerline/bin/" + name;
        return run(exists(shim) ? shim : tools + "/" + name, args, {std::move(environment), home, "", std::nullopt, {}});
    }

    std::string added(const std::string& name) const {
        const std::string out = ok({"profile", "add", name, "--tools", "claude,codex"}).out;
        return out.substr(0, out.find('\n'));
    }

    std::map<std::string, std::string> sourceTree() const {
        auto entries = treeOf(home + "/.claude");
        for (const auto& [name, content] : treeOf(home + "/.codex")) entries["codex/" + name] = content;
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
    const std::string claude = support + "/claude-code/" + work, codex = support + "/codex/" + work;
    ASSERT_EQ(cli({"env", "Work"}).exitCode, 0);
    writeFile(claude + "/CLAUDE.md", "Work rules.\n");
    writeFile(claude + "/settings.json", "{\n  \"apiKeyHelper\": \"veerline secret get work claude-code\",\n"
                                         "  \"model\": \"sonnet\"\n}\n", 0600);
    // As the tool writes it: indented by two, no final line break.
    writeFile(claude + "/.claude.json", "{\n  \"oauthAccount\": {\n    \"emailAddress\": \"work@example.com\"\n  },\n"
                                        "  \"mcpServers\": {\n    \"files\": {\n      \"command\": \"own-files\"\n    }\n  }\n}", 0600);
    const auto ownClaude = treeOf(claude), ownCodex = treeOf(codex);

    RunResult on = ok({"share", "on"});
    EXPECT_NE(on.out.find("Kept “Work” (Claude Code)'s own CLAUDE.md as"), std::string::npos) << on.out;
    EXPECT_EQ(fs::read_symlink(claude + "/CLAUDE.md"), home + "/.claude/CLAUDE.md");
    EXPECT_EQ(readFile(claude + "/CLAUDE.md.veerline-own"), "Work rules.\n");
    EXPECT_EQ(readFile(claude + "/commands/review.md"), "Review the diff.\n");
    EXPECT_EQ(fs::read_symlink(codex + "/prompts"), home + "/.codex/prompts");
    EXPECT_EQ(json::parse(readFile(claude + "/settings.json")),
              json::parse(R"({"apiKeyHelper": "veerline secret get work claude-code", "model": "sonnet", "theme": "dark"})"));
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

    ok({"share", "sync"});
    EXPECT_EQ(doctorCheck("sharing")["level"], "ok");
    EXPECT_EQ(json::parse(readFile(homeClaude + "/.claude.json"))["mcpServers"]["tickets"]["command"], "tickets");
    EXPECT_NE(readFile(codex + "/config.toml").find("[mcp_servers.tickets]"), std::string::npos);
    EXPECT_EQ(readFile(homeClaude + "/skills/deploy/SKILL.md"), "Deploy.\n");
    EXPECT_EQ(cli({"share", "sync"}).out, "Every profile is up to date.\n");

    // A shared key the user changed in a profile is that profile's own from then on.
    writeFile(homeClaude + "/settings.json", R"({"model": "opus", "theme": "light"})");
    ok({"share", "off"});
    EXPECT_EQ(treeOf(claude), ownClaude);
    EXPECT_EQ(treeOf(codex), ownCodex);
    EXPECT_EQ(treeOf(homeClaude), (std::map<std::string, std::string>{{"settings.json", "{\n  \"theme\": \"light\"\n}"}}));
    EXPECT_EQ(json::parse(cli({"share", "status", "--json"}).out)["codex"], json::parse(R"({"shared": false})"));
    EXPECT_EQ(sourceTree(), source) << "the source is only ever read";
}

TEST_F(CliShareTest, EveryCommandThatMakesADataFolderStartsItShared) {
    ASSERT_EQ(cli({"share", "on"}).exitCode, 0);
    const std::string add = ok({"profile", "add", "Solo", "--tools", "claude", "--storage", "system"}).out;
    const std::string solo = add.substr(0, add.find('\n'));
    const std::string claude = support + "/claude-code/" + solo, codex = support + "/codex/" + solo;
    EXPECT_FALSE(exists(claude));
    auto codexShared = [&] {
        return fs::is_symlink(codex + "/AGENTS.md") && readFile(codex + "/config.toml").find("[mcp_servers.docs]") != std::string::npos;
    };
    auto shared = [&] { return codexShared() && fs::read_symlink(claude + "/CLAUDE.md") == home + "/.claude/CLAUDE.md"; };

    RunResult set = ok({"profile", "set", "Solo", "--storage", "managed", "--tools", "claude,codex"});
    EXPECT_TRUE(shared()) << set.err;

    fs::remove_all(claude), fs::remove_all(codex);
    RunResult login = ok({"login", "Solo", "codex", "--api-key"}, "sk-solo");
    EXPECT_NE(readFile(codex + "/auth.json").find("sk-solo"), std::string::npos);
    EXPECT_EQ(readFile(home + "/.codex/auth.json"), R"({"OPENAI_API_KEY": "sk-x"})");
    EXPECT_TRUE(codexShared()) << login.err;

    fs::remove_all(claude), fs::remove_all(codex);
    RunResult install = ok({"shell", "install", "--yes"});
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

// What signs in or picks an account stays in the source: no profile gets it, `share status` names it.
TEST_F(CliShareTest, SignInAndAccountKeysNeverReachAProfile) {
    struct Row {
        std::string tool;
        std::string key;  // "env.NAME" for a variable under Claude Code's "env"
        bool keptAside;
    };
    auto pointer = [](std::string key) {
        std::replace(key.begin(), key.end(), '.', '/');
        return json::json_pointer("/" + key);
    };
    const std::vector<Row> rows = {
        {"claude-code", "env.ANTHROPIC_API_KEY", true}, {"claude-code", "env.ANTHROPIC_AUTH_TOKEN", true},
        {"claude-code", "env.CLAUDE_CODE_OAUTH_TOKEN", true}, {"claude-code", "env.ANTHROPIC_BASE_URL", true},
        {"claude-code", "env.AWS_ACCESS_KEY_ID", true}, {"claude-code", "env.AWS_PROFILE", true},
        {"claude-code", "env.AWS_BEARER_TOKEN_BEDROCK", true}, {"claude-code", "env.CLAUDE_CODE_USE_BEDROCK", true},
        {"claude-code", "env.CLAUDE_CODE_USE_VERTEX", true}, {"claude-code", "env.ANTHROPIC_VERTEX_PROJECT_ID", true},
        {"claude-code", "env.GOOGLE_APPLICATION_CREDENTIALS", true}, {"claude-code", "env.GITHUB_TOKEN", true},
        {"claude-code", "apiKeyHelper", true}, {"claude-code", "awsCredentialExport", true},
        {"claude-code", "awsAuthRefresh", true}, {"claude-code", "otelHeadersHelper", true},
        {"claude-code", "forceLoginMethod", true}, {"claude-code", "forceLoginOrgUUID", true},
        {"claude-code", "env.DISABLE_TELEMETRY", false}, {"claude-code", "model", false},
        {"codex", "preferred_auth_method", true}, {"codex", "forced_login_method", true},
        {"codex", "forced_chatgpt_workspace_id", true}, {"codex", "cli_auth_credentials_store", true},
        {"codex", "model_provider", true}, {"codex", "chatgpt_base_url", true}, {"codex", "model", false},
    };
    json settings = json::object();
    std::string config;
    for (const Row& row : rows) {
        if (row.tool == "codex") {
            config += row.key + " = \"source-" + row.key + "\"\n";
        } else {
            settings[pointer(row.key)] = "source-" + row.key;
        }
    }
    writeFile(home + "/.claude/settings.json", settings.dump());
    writeFile(home + "/.codex/config.toml", config + "[mcp_servers.docs]\ncommand = \"docs-server\"\n");
    const std::string work = added("Work");
    ASSERT_EQ(cli({"share", "on"}).exitCode, 0);
    const json profile = json::parse(readFile(support + "/claude-code/" + work + "/settings.json"));
    const std::string profileConfig = readFile(support + "/codex/" + work + "/config.toml");
    const json status = json::parse(cli({"share", "status", "--json"}).out);
    const std::string text = cli({"share", "status"}).out;
    for (const Row& row : rows) {
        const json& kept = status[row.tool]["signInKeptAside"];
        EXPECT_EQ(std::find(kept.begin(), kept.end(), row.key) != kept.end(), row.keptAside) << row.key << " " << kept;
        const bool named = text.find(" " + row.key + ",") != std::string::npos || text.find(" " + row.key + "\n") != std::string::npos;
        EXPECT_EQ(named, row.keptAside) << row.key;
        const bool shared = row.tool == "codex" ? profileConfig.find("source-" + row.key) != std::string::npos
                                                : profile.contains(pointer(row.key));
        EXPECT_EQ(shared, !row.keptAside && row.tool != "codex") << row.key;
    }
}

// A source that is, or leads into, Veerline's own folders would hand one profile's files to the others.
TEST_F(CliShareTest, SourcesThatLeadIntoVeerlinesOwnFoldersAreRefused) {
    const std::string work = added("Work");
    const std::string workClaude = support + "/claude-code/" + work;
    writeFile(workClaude + "/.claude.json", R"({"oauthAccount": {"emailAddress": "work@example.com"}, "mcpServers": {}})");
    writeFile(home + "/.veerline/bin/claude", "shim\n");
    const std::string other = root / "other";
    const std::vector<std::pair<std::string, std::string>> links = {
        {"", workClaude},                                  // the source folder itself
        {"settings.json", workClaude + "/.claude.json"},
        {".claude.json", workClaude + "/.claude.json"},
        {"commands", home + "/.veerline/bin"},
        {"CLAUDE.md", support + "/profiles.json"},
    };
    for (const auto& [name, target] : links) {
        fs::remove_all(other);
        fs::create_directories(other);
        makeSymlink(target, name.empty() ? other + "/team" : other + "/" + name);
        const std::string from = name.empty() ? other + "/team" : other;
        RunResult on = cli({"share", "on", "claude", "--from", from});
        EXPECT_EQ(on.exitCode, 1) << name;
        EXPECT_NE(on.err.find("Veerline won't share"), std::string::npos) << name << on.err;
        EXPECT_FALSE(exists(support + "/sharing.json")) << name;
    }
    // Linked after sharing was turned on: sync refuses it too.
    fs::remove_all(other);
    writeFile(other + "/CLAUDE.md", "Team.\n");
    ASSERT_EQ(cli({"share", "on", "claude", "--from", other}).exitCode, 0);
    const std::string home2 = support + "/claude-code/" + added("Home");
    makeSymlink(workClaude + "/.claude.json", other + "/.claude.json");
    RunResult sync = cli({"share", "sync"});
    EXPECT_EQ(sync.exitCode, 1);
    EXPECT_NE(sync.err.find("its .claude.json leads into"), std::string::npos) << sync.err;
    EXPECT_FALSE(exists(home2 + "/.claude.json")) << readFile(home2 + "/.claude.json");
}

// Writers at once: four syncs while the source changes, and Claude Code rewriting .claude.json
// under its lock. Every update counts, the record follows what was written, `share off` takes
// back exactly the shared keys.
TEST_F(CliShareTest, ConcurrentWritersEndConsistentAndLoseNothing) {
    std::vector<std::string> folders;
    for (const char* name : {"One", "Two", "Three"}) {
        folders.push_back(support + "/claude-code/" + added(name));
        writeFile(folders.back() + "/settings.json", R"({"theme": "own"})");
    }
    ASSERT_EQ(cli({"share", "on", "claude"}).exitCode, 0);
    // Replaced whole, as the tools do, so that no reader sees half a file.
    auto replace = [&](const std::string& file, const json& content) {
        writeFile(file + ".new", content.dump());
        fs::rename(file + ".new", file);
    };
    auto source = [&](int round) {
        replace(home + "/.claude/settings.json", {{"model", "m" + std::to_string(round)}, {"effort", "e" + std::to_string(round)}});
        replace(home + "/.claude.json", {{"mcpServers", {{"s" + std::to_string(round % 3), {{"command", "c"}}}}}});
    };
    std::atomic<bool> syncing = true;
    std::atomic<int> startups = 0;
    auto claudeWriter = std::async(std::launch::async, [&] {
        while (syncing) {
            ASSERT_EQ(tool("claude", {}, {{"CLAUDE_CONFIG_DIR", folders[0]}, {"VEERLINE_FAKE_CLAUDE_STARTUPS", "5"}}).exitCode, 0);
            startups += 5;
        }
    });
    for (int round = 0; round < 10; ++round) {
        source(round);
        std::vector<std::future<RunResult>> syncs;
        for (int each = 0; each < 4; ++each) {
            syncs.push_back(std::async(std::launch::async, [&] { return cli({"share", "sync"}); }));
        }
        source(100 + round);
        for (auto& sync : syncs) {
            RunResult result = sync.get();
            EXPECT_EQ(result.exitCode, 0) << result.err;
        }
    }
    syncing = false;
    claudeWriter.get();
    ASSERT_EQ(cli({"share", "sync"}).exitCode, 0);
    for (const std::string& folder : folders) {
        EXPECT_EQ(json::parse(readFile(folder + "/settings.json")),
                  json::parse(R"({"theme": "own", "model": "m109", "effort": "e109"})")) << folder;
        EXPECT_EQ(json::parse(readFile(folder + "/.claude.json"))["mcpServers"], json::parse(R"({"s1": {"command": "c"}})"));
    }
    EXPECT_EQ(json::parse(readFile(folders[0] + "/.claude.json"))["numStartups"], startups.load());
    EXPECT_FALSE(exists(folders[0] + "/.claude.json.lock"));
    ASSERT_EQ(cli({"share", "off"}).exitCode, 0);
    for (const std::string& folder : folders) EXPECT_EQ(json::parse(readFile(folder + "/settings.json")), json({{"theme", "own"}}));
}

// A sync that stops halfway (one file damaged) leaves a record that still covers what it wrote.
TEST_F(CliShareTest, ASyncThatFailsHalfwayIsTakenBackInFull) {
    const std::string work = support + "/claude-code/" + added("Work");
    writeFile(work + "/settings.json", R"({"theme": "own"})");
    writeFile(work + "/.claude.json", R"({"mcpServers": []})");
    EXPECT_EQ(cli({"share", "on", "claude"}).exitCode, 1);
    EXPECT_EQ(json::parse(readFile(work + "/settings.json"))["model"], "opus");
    writeFile(work + "/.claude.json", R"({"mcpServers": {}})");
    ASSERT_EQ(cli({"share", "off"}).exitCode, 0);
    EXPECT_EQ(json::parse(readFile(work + "/settings.json")), json::parse(R"({"theme": "own"})"));
}

// Codex rewrites config.toml without Veerline's comments; the servers stay Veerline's to update
// and take back. With the shims installed, `share edit` changes the shared setup itself, and
// `share status` names what one profile has alone.
TEST_F(CliShareTest, SharedSetupChangesThroughTheShimsAndSurvivesToolRewrites) {
    const std::string work = added("Work");
    const std::string codex = support + "/codex/" + work, claude = support + "/claude-code/" + work;
    ASSERT_EQ(cli({"rule", "add", home, "Work"}).exitCode, 0);
    ASSERT_EQ(cli({"shell", "install", "--yes"}).exitCode, 0);
    path = home + "/.veerline/bin:" + path;
    ASSERT_EQ(cli({"share", "on"}).exitCode, 0);
    for (const char* name : {"codex", "claude"}) {
        RunResult added = tool(name, {"mcp", "add", "--scope", "user", "mine", "--", "my-server"});
        ASSERT_EQ(added.exitCode, 0) << added.err;
    }
    EXPECT_EQ(readFile(codex + "/config.toml").find("veerline share"), std::string::npos) << "Codex drops the comments";
    writeFile(home + "/.codex/config.toml", "[mcp_servers.docs]\ncommand = \"docs-v2\"\n");
    ASSERT_EQ(cli({"share", "sync"}).exitCode, 0);
    const std::string codexServers = readFile(codex + "/config.toml");
    EXPECT_NE(codexServers.find("docs-v2"), std::string::npos) << codexServers;
    EXPECT_EQ(codexServers.find("docs-server"), std::string::npos) << codexServers;
    for (const char* name : {"codex", "claude"})
        ok({"share", "edit", name, "--", "mcp", "add", "--scope", "user", "team", "--", "team-server"});
    EXPECT_NE(readFile(home + "/.codex/config.toml").find("team-server"), std::string::npos);
    EXPECT_NE(readFile(codex + "/config.toml").find("team-server"), std::string::npos);
    EXPECT_EQ(json::parse(readFile(home + "/.claude.json"))["mcpServers"]["team"]["command"], "team-server");
    EXPECT_EQ(json::parse(readFile(claude + "/.claude.json"))["mcpServers"]["team"]["command"], "team-server");
    const json status = json::parse(cli({"share", "status", "--json"}).out);
    for (const char* name : {"codex", "claude-code"})
        EXPECT_EQ(status[name]["profiles"][0]["onlyHere"], json::array({"MCP server mine"})) << status;
    ASSERT_EQ(cli({"share", "off"}).exitCode, 0);
    const std::string taken = readFile(codex + "/config.toml");
    EXPECT_NE(taken.find("cli_auth_credentials_store"), std::string::npos) << taken;
    EXPECT_EQ(taken.find("docs"), std::string::npos) << taken;
    EXPECT_EQ(taken.find("team"), std::string::npos) << taken;
    EXPECT_NE(taken.find("[mcp_servers.mine]"), std::string::npos) << taken;
    EXPECT_EQ(json::parse(readFile(claude + "/.claude.json"))["mcpServers"], json::parse(R"({"mine": {"command":
        "my-server", "args": [], "type": "stdio"}})"));
}

// JSON nested far deeper than any real file is refused by name, by every command that reads it.
TEST_F(CliShareTest, DeeplyNestedJsonIsRefusedNotCrashedOn) {
    auto deep = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    const std::string work = support + "/claude-code/" + added("Work");
    ASSERT_EQ(cli({"share", "on", "claude"}).exitCode, 0);
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {home + "/.claude/settings.json", {"share", "sync"}},
        {home + "/.claude.json", {"profile", "add", "Deep", "--tools", "claude"}},
        {work + "/settings.json", {"share", "status"}},
        {work + "/.veerline-share.json", {"share", "off"}},
        {support + "/sharing.json", {"share", "sync"}},
    };
    for (const auto& [file, args] : cases) {
        const std::string before = exists(file) ? readFile(file) : "";
        // sharing.json is read only up to 16 kB.
        writeFile(file, "{\"mcpServers\": " + deep(file.ends_with("sharing.json") ? 4000 : 150000) + "}");
        RunResult result = cli(args);
        EXPECT_LT(result.exitCode, 128) << file;
        EXPECT_NE((result.out + result.err).find("too deeply nested"), std::string::npos) << file << ": " << result.err;
        writeFile(file, before);
        if (before.empty()) fs::remove(file);
    }
}

}  // namespace
}  // namespace veerline::testing
