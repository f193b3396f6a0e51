// The process runner on real children, and the Claude Code and Codex adapters in a temporary home,
// against `claude` and `codex` scripts that record how they were run and against the fake `codex`
// that answers as codex-cli 0.169.0 does on a machine without a Secret Service.

#include "tools/tool_adapter.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <tuple>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "base/error.h"
#include "base/file_io.h"
#include "base/interrupt_cleanup.h"
#include "platform/platform.h"
#include "shell/shell_quote.h"
#include "support/failure.h"
#include "support/folder_entries.h"
#include "support/test_support.h"
#include "tools/claude_code_adapter.h"
#include "tools/codex_adapter.h"
#include "tools/process_runner.h"

namespace veerline {
namespace {

using LoginState = CodexAdapter::LoginState;

AccountInfo method(std::string name) { return {std::nullopt, std::nullopt, std::nullopt, std::nullopt, name}; }

TEST(ProcessRunnerTest, RealChildrenSideBySideAndTheBaseEnvironmentTheyGet) {
    testing::TempDir dir;
    testing::writeFakeTool(dir / "tool");
    auto pending = ProcessRunner::run(dir / "tool", {"a b", "", "'q'"}, {{"ONLY", "this"}}, 10.0);
    // The background sleeps outlive their runs on purpose; each is ended by its own id.
    struct Reaper {
        std::string pids;
        ~Reaper() { std::ifstream in(pids); for (pid_t pid; in >> pid;) ::kill(pid, SIGKILL); }
    } reaper{dir / "pids"};
    std::string background = "sleep 30 & echo $! >> '" + reaper.pids + "'; ";
    struct Case {
        std::string script; double timeout; int exitCode; std::string out, err; bool timedOut; double atLeast, below;
    };
    const Case cases[] = {
        {"printf out; printf err >&2; exit 3", 10.0, 3, "out", "err", false, 0, 10},
        // 1 MiB on stderr first: a runner that read stdout alone would deadlock on the full pipe.
        {"head -c 1048576 /dev/zero | tr '\\0' x >&2; printf done", 20.0, 0, "done", std::string(1 << 20, 'x'),
         false, 0, 20},
        // What is kept is bounded; the rest is read and dropped, so the child still ends.
        {"head -c 3145728 /dev/zero | tr '\\0' x; printf done >&2", 20.0, 0, std::string(1 << 20, 'x'), "done",
         false, 0, 20},
        {"trap '' TERM; while :; do sleep 0.1; done", 0.5, SIGKILL, "", "", true, 2.4, 5.0},
        // Closing its outputs early doesn't save a child from the time-out.
        {"exec >&- 2>&-; exec sleep 30", 0.5, SIGTERM, "", "", true, 0, 3.0},
        // A descendant holding the pipes: an exited child returns promptly, a timed-out one within the
        // time-out, the SIGTERM grace and at most one short pipe grace.
        {background + "printf hello; exit 4", 10.0, 4, "hello", "", false, 0, 3.0},
        {background + "trap '' TERM; while :; do sleep 0.1; done", 0.5, SIGKILL, "", "", true, 0, 6.0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.script);
        auto start = std::chrono::steady_clock::now();
        ProcessResult result = ProcessRunner::runSync("/bin/sh", {"-c", c.script}, {{"PATH", testing::systemPath()}},
                                                      c.timeout);
        double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        EXPECT_EQ(std::tie(result.exitCode, result.standardOutput, result.timedOut),
                  std::tie(c.exitCode, c.out, c.timedOut));
        EXPECT_TRUE(result.combinedOutput() == (c.err.empty() ? c.out : c.out + "\n" + c.err))
            << result.standardError.size() << " bytes on stderr";
        EXPECT_TRUE(elapsed >= c.atLeast && elapsed < c.below) << elapsed << " s";
    }
    // What can't be started is reported as a launch failure.
    testing::writeFile(dir / "not-executable", "#!/bin/sh\n", 0644);
    const std::pair<std::string, std::string> launches[] = {{dir / "no-such-tool", "No such file or directory"},
                                                            {dir / "not-executable", "Permission denied"}};
    for (const auto& [path, reason] : launches) {
        ProcessResult failed = ProcessRunner::runSync(path, {}, {}, 5.0);
        EXPECT_EQ(std::tie(failed.exitCode, failed.standardOutput, failed.timedOut, failed.standardError),
                  std::make_tuple(127, std::string(), false, "Couldn't run " + path + ": " + reason));
    }

    ProcessResult result = pending.get();
    ASSERT_EQ(result.exitCode, 0) << result.standardError;
    auto report = testing::parseFakeToolReport(result.standardOutput);
    EXPECT_EQ(report.argv0, dir / "tool");
    EXPECT_EQ(report.arguments, (std::vector<std::string>{"a b", "", "'q'"}));
    EXPECT_EQ(report.environment, (std::map<std::string, std::string>{{"ONLY", "this"}}));

    // The base environment keeps only the known names.
    Environment from{{"HOME", "/h"}, {"http_proxy", "p"}, {"UNRELATED", "x"}};
    EXPECT_EQ(ProcessRunner::baseEnvironment(from), (Environment{{"HOME", "/h"}, {"http_proxy", "p"}}));

    // Names match exactly: case matters, and the tools' own variables are dropped.
    Environment other{{"Path", "/x"}, {"CLAUDE_CONFIG_DIR", "/y"}, {"NO_PROXY", ""}, {"__CF_USER_TEXT_ENCODING", "0"}};
    EXPECT_EQ(ProcessRunner::baseEnvironment(other), (Environment{{"NO_PROXY", ""}, {"__CF_USER_TEXT_ENCODING", "0"}}));

    // Status checks can reach the session's keyring, where this system has one.
    if (platform::sessionServiceVariables().empty()) return;
    Environment session{{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/run/user/1000/bus"}, {"XDG_RUNTIME_DIR", "/run/user/1000"}};
    EXPECT_EQ(ProcessRunner::baseEnvironment(session), session);
}

TEST(ProcessRunnerTest, ATimedOutOrInterruptedToolTakesWhatItStartedWithIt) {
    for (bool interrupted : {false, true}) {
        // The tool and what it starts inherit the pipe's write end: end of file means all are gone.
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        FileDescriptor readEnd(ends[0]), writeEnd(ends[1]);
        // A Ctrl-C reaches what runs in the foreground, as it would from the terminal; a time-out ends all.
        const std::string script =
            "printf x > /dev/fd/" + std::to_string(ends[1]) + (interrupted ? "; " : "; sleep 100000 & ") + "sleep 100000";
        pid_t runner = ::fork();
        if (runner == 0) {
            RemoveOnInterrupt::installHandlers();
            ProcessResult result = ProcessRunner::runSync("/bin/sh", {"-c", script}, {{"PATH", testing::systemPath()}},
                                                          interrupted ? 1e6 : 0.2);
            ::_exit(result.timedOut ? 0 : 1);
        }
        writeEnd.close();
        char byte = 0;
        ASSERT_EQ(::read(readEnd.get(), &byte, 1), 1);
        if (interrupted) ::kill(runner, SIGINT);
        int status = 0;
        ASSERT_EQ(::waitpid(runner, &status, 0), runner);
        EXPECT_EQ(status, interrupted ? SIGINT : 0) << interrupted;
        EXPECT_EQ(::read(readEnd.get(), &byte, 1), 0) << interrupted;
    }
}

TEST(ToolAnswerTest, CodexFirstDecidingLineAndAccountJSON) {
    const std::vector<std::pair<std::string, LoginState>> cases = {
        {"Logged in using ChatGPT\n", LoginState::signedIn("ChatGPT")},
        {"Logged in using an API key - sk-proj-***ABCD", LoginState::signedIn("API key")},
        {"WARNING: something\n   \tLogged in using ChatGPT  \n", LoginState::signedIn("ChatGPT")},
        {"Logged in using  - key", LoginState::signedIn("")},
        // Trimming takes the blank that the phrase needs.
        {"Logged in using ", LoginState::unknown()},
        // Every Unicode line break separates lines.
        {"banner\xE2\x80\xA8Logged in using ChatGPT", LoginState::signedIn("ChatGPT")},
        {"banner\r\nLogged in using X\xC2\x85more", LoginState::signedIn("X")},
        {"Not logged in\nLogged in using ChatGPT", LoginState::signedOut()},
        {"Logged in using ChatGPT\nNot logged in", LoginState::signedIn("ChatGPT")},
        {"\n\n  \n", LoginState::unknown()},
        {"Error: something broke", LoginState::unknown()},
        {"You are Logged in using ChatGPT", LoginState::unknown()}};
    for (const auto& [text, state] : cases) EXPECT_EQ(CodexAdapter::parseLoginStatus(text), state) << text;

    // The account as Veerline keeps it: absent fields left out.
    AccountInfo account{"a@b.c", std::nullopt, "o1", "max", std::nullopt};
    nlohmann::json json = account.toJSON();
    EXPECT_EQ(json, nlohmann::json::parse(R"({"email":"a@b.c","organizationID":"o1","plan":"max"})"));
    EXPECT_EQ(AccountInfo::fromJSON(json), account);
    EXPECT_EQ(AccountInfo{}.toJSON(), nlohmann::json::object());

    EXPECT_EQ(AccountInfo::fromJSON(nlohmann::json::parse(R"({"method":"API key","other":1,"email":null})")),
              method("API key"));
    EXPECT_EQ(AccountInfo::fromJSON(nlohmann::json::parse(R"({"email":3})")), std::nullopt);
    EXPECT_EQ(AccountInfo::fromJSON(nlohmann::json::array()), std::nullopt);
}

class ToolAdapterTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    std::string home = dir / "home", bin = dir / "bin", record = dir / "record";
    Paths paths{home, dir / "Applications"};
    // Only the first five reach the tools' own commands.
    Environment caller{{"HOME", home}, {"PATH", bin + ":" + testing::systemPath()}, {"LOGNAME", "ana"},
                       {"NO_PROXY", ""}, {"https_proxy", "http://proxy:3128"}, {"SECRET_TOKEN", "must not leak"},
                       {"ANTHROPIC_API_KEY", "sk-must-not-leak"}, {"OPENAI_API_KEY", "must not leak"},
                       {"CLAUDE_CONFIG_DIR", "/somewhere/else"}, {"CODEX_HOME", "/somewhere/else"}};
    ToolContext context{paths, caller, 5.0};
    ClaudeCodeAdapter claude{context};
    CodexAdapter codex{context};
    Profile work = profile("work");
    std::string claudeFolder = paths.supportDirectory() + "/claude-code/work";
    std::string codexFolder = paths.supportDirectory() + "/codex/work";

    static Profile profile(std::string id, Profile::Storage storage = Profile::Storage::managed) {
        return Profile(ProfileID(std::move(id)), "Work", ProfileColor::blue, std::nullopt,
                       {ToolKind::claudeCode, ToolKind::codex}, storage);
    }

    // A tool at `path` that records its arguments and environment, then does `behaviour`.
    void install(const std::string& path, const std::string& behaviour) const {
        testing::writeFile(path, "#!/bin/sh\nfor a in \"$@\"; do printf 'ARG:%s\\n' \"$a\"; done > '" + record +
                                     "'\nenv | sed 's/^/ENV:/' >> '" + record + "'\n" + behaviour + "\n",
                           0755);
    }

    // The last recorded run: its arguments, and the variables that reach it besides the base ones.
    void expectRun(const std::vector<std::string>& arguments, const Environment& extra) const {
        auto report = testing::parseFakeToolReport(testing::readFile(record));
        // The shell's own bookkeeping, not what the adapter passed.
        for (const char* name : {"PWD", "OLDPWD", "SHLVL", "_"}) report.environment.erase(name);
        Environment expected{{"HOME", home}, {"PATH", bin + ":" + testing::systemPath()}, {"LOGNAME", "ana"},
                             {"NO_PROXY", ""}, {"https_proxy", "http://proxy:3128"}};
        expected.insert(extra.begin(), extra.end());
        EXPECT_EQ(report.arguments, arguments);
        EXPECT_EQ(report.environment, expected);
    }
};

TEST_F(ToolAdapterTest, StatusAsksEachToolInTheProfilesFolderThenSignsOutBeforeDeleting) {
    install(bin + "/claude", "echo '{\"loggedIn\": false}'");
    install(bin + "/codex", "echo 'Logged in using ChatGPT'");
    // No folder yet: nothing is run.
    EXPECT_EQ(claude.status(work), ToolStatus::notSetUp());
    EXPECT_EQ(codex.status(work), ToolStatus::notSetUp());
    EXPECT_FALSE(testing::exists(record));
    claude.prepare(work);
    codex.prepare(work);

    const ToolStatus signedOut = ToolStatus::needsAttention("Signed out. Sign in again.");
    const std::vector<std::tuple<const ToolAdapter&, std::string, ToolStatus>> cases = {
        {claude, "echo '{\"loggedIn\": false}'", signedOut},
        {claude, "echo '{\"loggedIn\": \"yes\"}'; exit 3",
         ToolStatus::needsAttention("Couldn't read `claude auth status` (exit 3).")},
        // Claude Code's answer is read from standard output only, Codex's from either.
        {claude, "echo '{\"loggedIn\": true}' >&2",
         ToolStatus::needsAttention("Couldn't read `claude auth status` (exit 0).")},
        {claude, "echo '{\"loggedIn\": true, \"orgName\": \"Acme\"}'",
         ToolStatus::signedIn({std::nullopt, "Acme", std::nullopt, std::nullopt, std::nullopt})},
        // The JSON after a banner, the exit status aside.
        {claude, "echo 'Update available'; echo '{\"loggedIn\": true, \"email\": \"ana@example.com\",'; "
                 "echo '\"orgName\": \"Acme\", \"orgId\": \"o-1\", \"subscriptionType\": \"max\",'; "
                 "echo '\"authMethod\": \"claude.ai\"}'; echo more; exit 1",
         ToolStatus::signedIn({"ana@example.com", "Acme", "o-1", "max", "claude.ai"})},
        {codex, "echo 'Logged in using ChatGPT' >&2; exit 0", ToolStatus::signedIn(method("ChatGPT"))},
        {codex, "echo 'Not logged in'; exit 1", signedOut},
        {codex, "echo 'error: unexpected argument' >&2; exit 2",
         ToolStatus::needsAttention("Couldn't read `codex login status` (exit 2): error: unexpected argument")},
    };
    for (const auto& [adapter, behaviour, status] : cases) {
        SCOPED_TRACE(behaviour);
        bool isClaude = &adapter == &claude;
        install(bin + (isClaude ? "/claude" : "/codex"), behaviour);
        EXPECT_EQ(adapter.status(work), status);
        if (isClaude) expectRun({"auth", "status"}, {{"CLAUDE_CONFIG_DIR", claudeFolder}});
        if (!isClaude) expectRun({"login", "status"}, {{"CODEX_HOME", codexFolder}});
    }
    // Signed out of the tool's own default folder: a system profile isn't set up.
    install(bin + "/codex", "echo 'Not logged in'; exit 1");
    EXPECT_EQ(codex.status(profile("home", Profile::Storage::system)), ToolStatus::notSetUp());
    expectRun({"login", "status"}, {});

    install(bin + "/claude", "exit 1");
    install(bin + "/codex", "exit 1");
    testing::writeFile(claudeFolder + "/.credentials.json", "{}");
    claude.removeData(work);
    expectRun({"auth", "logout"}, {{"CLAUDE_CONFIG_DIR", claudeFolder}});
    codex.removeData(work);
    expectRun({"logout"}, {{"CODEX_HOME", codexFolder}});
    EXPECT_FALSE(testing::exists(claudeFolder) || testing::exists(codexFolder));

    // A folder that is a file is not set up; a status that hangs needs attention.
    testing::writeFile(claudeFolder, "");
    EXPECT_EQ(claude.status(work), ToolStatus::notSetUp());
    testing::removeTree(claudeFolder);
    install(bin + "/claude", "exec sleep 10");
    context.commandTimeout = 0.3;
    ClaudeCodeAdapter(context).prepare(work);
    EXPECT_EQ(ClaudeCodeAdapter(context).status(work),
              ToolStatus::needsAttention("`claude auth status` didn't answer in time."));
}

TEST_F(ToolAdapterTest, CodexInsideADesktopAppIsUsedWhenNothingIsOnThePath) {
    auto inner = [](const std::string& bundle) { return bundle + "/Contents/Resources/codex-cli/bin/codex"; };
    EXPECT_FALSE(codex.isInstalled());
    EXPECT_EQ(codex.status(work), ToolStatus::notInstalled());

    // Not executable: skipped.
    std::string inHome = inner(home + "/Applications/Codex.app");
    testing::writeFile(inHome, "#!/bin/sh\n", 0644);
    EXPECT_EQ(CodexAdapter::bundledCodex(paths), std::nullopt);
    ::chmod(inHome.c_str(), 0755);
    EXPECT_EQ(CodexAdapter::bundledCodex(paths), inHome);

    std::string hinted = dir / "Elsewhere/Codex.app";
    install(inner(hinted), "echo 'Logged in using ChatGPT'");
    testing::writeFile(CodexAdapter::bundledHintFile(paths), hinted + "\n");
    EXPECT_EQ(codex.binaryPath(), inner(hinted));
    EXPECT_TRUE(codex.usesBundledCodex());
    codex.prepare(work);
    EXPECT_EQ(codex.status(work).kind, ToolStatus::Kind::signedIn);
    EXPECT_EQ(codex.setUp(work).value().executable, inner(hinted));

    install(bin + "/codex", "");
    EXPECT_EQ(codex.binaryPath(), bin + "/codex");
    EXPECT_FALSE(codex.usesBundledCodex());
}

TEST_F(ToolAdapterTest, CodexStarterConfigIsWrittenOnceAndLetsCodexSignInWithoutAKeyring) {
    std::string config = codexFolder + "/config.toml";
    codex.prepare(work);
    EXPECT_EQ(testing::fileMode(codexFolder), 0700u);
    // No temporary files are left beside it.
    EXPECT_EQ(testing::entriesOf(codexFolder), std::vector<std::string>{"config.toml"});
    std::string starter = testing::readFile(config);
    EXPECT_EQ(starter, CodexAdapter::managedConfig());
    EXPECT_NE(starter.find("cli_auth_credentials_store = \"auto\""), std::string::npos) << starter;
    EXPECT_EQ(starter.find("macOS"), std::string::npos) << starter;

    testing::writeFakeTool(bin + "/codex");
    EXPECT_EQ(codex.status(work), ToolStatus::needsAttention("Signed out. Sign in again."));
    // Signed in with an API key, as `codex login --with-api-key` leaves it.
    testing::writeFile(codexFolder + "/auth.json", R"({"OPENAI_API_KEY": "sk-proj-abcdefghij12345"})");
    EXPECT_EQ(codex.status(work), ToolStatus::signedIn(method("API key")));

    // Whatever the user wrote stays; only an untouched starter of an earlier version is replaced.
    const std::string keyringStarter =
        "# Written by Veerline for this profile. Keeps this profile's Codex login in the\n"
        "# macOS Keychain instead of a plaintext auth.json. Add your own settings below.\n"
        "cli_auth_credentials_store = \"keyring\"\n";
    const std::pair<std::string, bool> cases[] = {
        {keyringStarter, true}, {starter + "model = \"o3\"\n", false},
        {keyringStarter.substr(0, keyringStarter.size() - 1), false},
        {"cli_auth_credentials_store = \"keyring\"\n", false}};
    for (const auto& [content, replaced] : cases) {
        testing::writeFile(config, content);
        codex.prepare(work);
        EXPECT_EQ(testing::readFile(config), replaced ? starter : content) << content;
    }

    // Left with a keyring it can't reach, Codex's own first line names the problem in the status.
    std::string toolLine =
        "Error checking login status: failed to load CLI auth from keyring: Platform secure storage failure: no "
        "secret service provider or dbus session found: Platform secure storage failure: no secret service "
        "provider or dbus session found: no secret service provider or dbus session found";
    EXPECT_EQ(codex.status(work).text,
              "Couldn't read `codex login status` (exit 1): " + toolLine.substr(0, 199) + "\u2026");

    // A link to a file holding the old starter is the user's own arrangement.
    testing::removeTree(config);
    testing::writeFile(dir / "shared.toml", keyringStarter);
    testing::makeSymlink(dir / "shared.toml", config);
    codex.prepare(work);
    EXPECT_TRUE(std::filesystem::is_symlink(config));
    EXPECT_EQ(testing::readFile(config), keyringStarter);
}

TEST_F(ToolAdapterTest, SignInCommandLineRunsAsDescribedInARealShell) {
    testing::RunOptions options;
    options.environment = {{"PATH", testing::systemPath()}, {"DROP_ME", "1"}, {"KEEP", "k"}};
    // Plain words (Unicode letters and numbers, a few safe marks) stay as they are.
    for (const char* plain : {"abcXYZ019-_./:=@%+,", "Caf\u00E9", "Cafe\u0301", "\u65E5\u672C\u0663"})
        EXPECT_EQ(ShellQuote::quote(plain), plain);
    // Everything else, read back by the shell exactly, even after a letter that joins what follows.
    for (std::string word : {"", "it's a \"test\" $HOME `x` \\ ; |", "~", "a\nb", "'", "*", "bad\xFF", "Caf\u00E9",
                             "\u0D4E;echo", "\u0D4E$(id)", "-n"}) {
        auto result = testing::run("/bin/sh", {"-c", "printf '%s' " + ShellQuote::quote(word)}, options);
        EXPECT_EQ(result.out, word) << ShellQuote::quote(word);
    }

    testing::writeFakeTool(dir / "fake tool");
    SignInCommand command{dir / "fake tool", {"it's", ""}, {{"SET_ME", "a b"}}, {"DROP_ME"}};
    auto result = testing::run("/bin/sh", {"-c", command.shellLine()}, options);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    auto report = testing::parseFakeToolReport(result.out);
    EXPECT_EQ(report.arguments, (std::vector<std::string>{"it's", ""}));
    EXPECT_EQ(report.environment.count("DROP_ME"), 0u);
    EXPECT_EQ(report.environment["SET_ME"], "a b");
    EXPECT_EQ(report.environment["KEEP"], "k");

    EXPECT_EQ(testing::failureOf([&] { claude.launch(work); }),
              VeerlineError::unsupported("Claude Code runs in your terminal; there's nothing to launch."));
    EXPECT_EQ(testing::failureOf([&] { codex.launch(work); }).errorDescription(),
              "Codex runs in your terminal; there's nothing to launch.");
}

TEST_F(ToolAdapterTest, DataFolderIsPrivateAndDeletedOnlyInsideTheSupportFolder) {
    std::string tools = paths.supportDirectory() + "/claude-code";
    EXPECT_EQ(claude.createDataDirectory(work), claudeFolder);
    EXPECT_EQ(testing::fileMode(claudeFolder), 0700u);
    EXPECT_EQ(testing::fileMode(tools), 0700u);
    testing::writeFile(claudeFolder + "/sub/file", "x");
    // An existing folder is fine and keeps its contents.
    EXPECT_EQ(claude.createDataDirectory(work), claudeFolder);
    EXPECT_TRUE(testing::exists(claudeFolder + "/sub/file"));
    claude.deleteDataDirectory(work);
    EXPECT_FALSE(testing::exists(claudeFolder));
    claude.deleteDataDirectory(work);  // nothing there: nothing to do

    std::string outside = home + "/Library/Application Support/precious";
    testing::writeFile(outside + "/keep", "x");
    EXPECT_EQ(testing::failureOf([&] { claude.deleteDataDirectory(profile("../../precious")); }).kind(),
              VeerlineError::Kind::unsafeDeletion);
    // The support folder itself is not "inside" it either.
    EXPECT_THROW(claude.deleteDataDirectory(profile("..")), VeerlineError);
    EXPECT_TRUE(testing::exists(outside + "/keep"));

    // A linked data folder is removed as a link; what it points to stays.
    testing::makeSymlink(outside, tools + "/linked");
    claude.deleteDataDirectory(profile("linked"));
    EXPECT_FALSE(testing::exists(tools + "/linked"));
    EXPECT_TRUE(testing::exists(outside + "/keep"));

    testing::removeTree(tools);
    testing::writeFile(tools, "a file in the way");
    EXPECT_EQ(testing::failureOf([&] { claude.createDataDirectory(work); }),
              VeerlineError::io("Couldn't create " + claudeFolder + ": Not a directory"));
}

}  // namespace
}  // namespace veerline
