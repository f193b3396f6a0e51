// The built veerline-resolve as the `claude` and `codex` shims and as the prompt's helper, in the
// folders of a temporary HOME covered by rules, dotfiles and the terminal default.

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>

#include "build_info.h"
#include "e2e/temp_home.h"
#include "tools/codex_adapter.h"

namespace veerline::testing {
namespace {

using ResolverTest = TempHomeTest;

TEST_F(ResolverTest, ShimsHandTheRealToolTheEnvironmentOfTheFoldersProfile) {
    const std::string claudeWork = support + "/claude-code/work", codexWork = support + "/codex/work";
    // The variables the tool is started with, and every one it gets beyond HOME, PATH and PWD.
    const struct {
        std::string tool, folder;
        Variables given, expected;
    } cases[] = {
        {"claude", "/work/app/src", {},
         {{"CLAUDE_CONFIG_DIR", claudeWork}, {"VEERLINE_MANAGED_VARS", "CLAUDE_CONFIG_DIR"}, {"VEERLINE_PROFILE", "Work"}}},
        {"codex", "/work", {}, {{"CODEX_HOME", codexWork}, {"VEERLINE_MANAGED_VARS", "CODEX_HOME"}, {"VEERLINE_PROFILE", "Work"}}},
        // A variable the bookkeeping names is weighed like the tool's own; others pass untouched.
        {"claude", "/work", {{"VEERLINE_MANAGED_VARS", "CLAUDE_CONFIG_DIR,EXTRA_TOKEN"}, {"EXTRA_TOKEN", "x"}, {"UNRELATED", "kept"}},
         {{"CLAUDE_CONFIG_DIR", claudeWork}, {"VEERLINE_MANAGED_VARS", "CLAUDE_CONFIG_DIR,EXTRA_TOKEN"},
          {"VEERLINE_PROFILE", "Work"}, {"EXTRA_TOKEN", "x"}, {"UNRELATED", "kept"}}},
        // The terminal default doesn't use claude: what an earlier shim set for it goes.
        {"claude", "/music", {{"CLAUDE_CONFIG_DIR", "/old"}, {"VEERLINE_PROFILE", "Work"}, {"VEERLINE_MANAGED_VARS", "CLAUDE_CONFIG_DIR"}}, {}},
        // It runs codex with the tool's own setup.
        {"codex", "/music", {{"CODEX_HOME", "/old"}, {"VEERLINE_MANAGED_VARS", "CODEX_HOME"}}, {{"VEERLINE_PROFILE", "Bob's Home"}}},
        {"claude", "/work", {{"VEERLINE_DISABLE", "1"}, {"VEERLINE_PROFILE", "Kept"}},
         {{"VEERLINE_DISABLE", "1"}, {"VEERLINE_PROFILE", "Kept"}}},
    };
    for (const auto& [tool, folder, given, expected] : cases) {
        SCOPED_TRACE(tool + " in ~" + folder);
        FakeToolReport received = report(tool, home + folder, given);
        EXPECT_EQ(received.argv0, tools + "/" + tool);
        // The shim leaves its own descriptors to execve: the tool gets only what it would directly.
        FakeToolReport direct = parseFakeToolReport(start(tools + "/" + tool, {}, in(home + folder, given)).out);
        EXPECT_EQ(received.descriptors, direct.descriptors);
        Variables all = in(home + folder, expected).environment;
        all["VEERLINE_SHIM_DEPTH"] = "1";
        EXPECT_EQ(received.environment, all);
    }
    EXPECT_EQ(fileMode(claudeWork), 0700u);
    EXPECT_EQ(readFile(codexWork + "/config.toml"), CodexAdapter::managedConfig());

    // Repeated names keep their first definition only, as getenv reads them; entries that are
    // not "NAME=value" are left out.
    RunOptions raw = in(home + "/work");
    raw.rawEntries = {"DUP=first", "DUP=second", "NOEQUALS", "VEERLINE_PROFILE=Old", "VEERLINE_PROFILE=Older"};
    std::istringstream lines(run(shims + "/claude", {}, raw).out);
    std::multiset<std::string> kept;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("ENV:DUP") || line.starts_with("ENV:NOEQUALS") || line.starts_with("ENV:VEERLINE_PROFILE")) kept.insert(line);
    }
    EXPECT_EQ(kept, (std::multiset<std::string>{"ENV:DUP=first", "ENV:VEERLINE_PROFILE=Work"}));

    // The real claude starts codex through the shim again, as a tool running a sub-tool would.
    writeFile(tools + "/claude", "#!/bin/sh\nexec codex \"$@\"\n", 0755);
    FakeToolReport nested = report("claude", home + "/work");
    EXPECT_EQ(nested.argv0, tools + "/codex");
    EXPECT_EQ(nested.environment["CLAUDE_CONFIG_DIR"] + " " + nested.environment["CODEX_HOME"], claudeWork + " " + codexWork);
    EXPECT_EQ(nested.environment["VEERLINE_MANAGED_VARS"], "CLAUDE_CONFIG_DIR,CODEX_HOME");
    EXPECT_EQ(nested.environment["VEERLINE_SHIM_DEPTH"], "2");

    // Profiles it can't read: the tool starts as if Veerline were not there.
    writeFile(profilesFile, "{ not json");
    EXPECT_EQ(report("codex", home + "/work").environment, in(home + "/work", {{"VEERLINE_SHIM_DEPTH", "1"}}).environment);
}

TEST_F(ResolverTest, ShimsFindTheRealToolKeepItsArgumentsAndGuardTheirDepth) {
    RunResult direct = run(shims + "/claude", {"--print", "hello world", "", "\u00E9"}, in(home));
    FakeToolReport received = parseFakeToolReport(direct.out);
    EXPECT_EQ(received.argv0, tools + "/claude") << direct.err;
    EXPECT_EQ(received.arguments, (std::vector<std::string>{"--print", "hello world", "", "\u00E9"}));

    // Started by its bare name, with its folder spelled otherwise on PATH: that folder is passed over.
    makeSymlink(shims, root / "shim-link");
    for (const std::string& spelled : {shims + "/", shims + "/.", home + "/.veerline/../.veerline/bin",
                                       home + "//.veerline/bin", root / "shim-link"}) {
        RunOptions bare = in(home, {{"PATH", spelled + ":" + tools}});
        bare.argv0 = "claude";
        EXPECT_EQ(parseFakeToolReport(run(shims + "/claude", {}, bare).out).argv0, tools + "/claude") << spelled;
    }

    for (const auto& [depth, next] : std::vector<std::pair<std::string, std::string>>{
             {"3", "4"}, {"abc", "1"}, {"", "1"}, {" 2", "1"}, {"3x", "1"}, {"99999999999999999999", "1"}, {"-5", "-4"}, {"+2", "3"}}) {
        EXPECT_EQ(report("claude", home, {{"VEERLINE_SHIM_DEPTH", depth}}).environment["VEERLINE_SHIM_DEPTH"], next) << depth;
    }
    RunResult over = shim("claude", home, {{"VEERLINE_SHIM_DEPTH", "4"}});
    EXPECT_EQ(over.exitCode, 127);
    EXPECT_EQ(over.err + "|" + over.out, "veerline: `claude` keeps resolving to a shim. Run `veerline doctor`.\n|");

    // A script whose interpreter is missing: execve fails with ENOENT.
    writeFile(tools + "/claude", "#!/nonexistent/interpreter\n", 0755);
    RunResult broken = shim("claude", home);
    EXPECT_EQ(broken.exitCode, 126);
    EXPECT_EQ(broken.err, "veerline: couldn't run " + tools + "/claude: No such file or directory\n");

    // Under its own name it answers --version and --prompt only, spelled exactly.
    const std::string usage = "2||veerline: this is Veerline's shim. Run it as `claude` or `codex` (via ~/.veerline/bin), or with --prompt.\n";
    for (const auto& [args, expected] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"--version", "ignored"}, "0|veerline-resolve " VEERLINE_VERSION "\n|"}, {{}, usage}, {{"--VERSION"}, usage}, {{"--Prompt"}, usage}, {{"claude"}, usage}}) {
        RunResult result = run(VEERLINE_RESOLVE_BINARY, args, in(home));
        EXPECT_EQ(std::to_string(result.exitCode) + "|" + result.out + "|" + result.err, expected);
    }
}

TEST_F(ResolverTest, PromptShowsTheProfileOfTheLogicalWorkingFolder) {
    EXPECT_EQ(prompt(home + "/work"), "Work\n");
    EXPECT_EQ(prompt(home + "/work/oss/lib"), "Side Project\n");
    EXPECT_EQ(prompt(home + "/music"), "Bob's Home\n");
    writeFile(home + "/work/oss/lib/.veerline", "# this checkout is mine\nbob's home\n");
    EXPECT_EQ(prompt(home + "/work/oss/lib"), "Bob's Home\n");
    // A broken dotfile falls back quietly: warnings are not shown.
    writeFile(home + "/music/.veerline", "Nobody\n");
    EXPECT_EQ(prompt(home + "/music"), "Bob's Home\n");

    // The dotfile is only on the way up from the link, and a stale PWD naming another folder is
    // not believed.
    std::filesystem::remove(home + "/music/.veerline");
    makeSymlink(home + "/music", root / "links/music");
    writeFile(root / "links/.veerline", "Work\n");
    EXPECT_EQ(prompt(home + "/music", {{"PWD", root / "links/music"}}), "Work\n");
    EXPECT_EQ(prompt(home + "/music", {{"PWD", home + "/work"}}), "Bob's Home\n");

    // An app path naming a missing app turns profiles off; one that can't be read is passed over.
    makeDirs(root / "Veerline.app");
    for (std::string kept : {"\n  " + root / "Veerline.app" + " \t\n", std::string("   \n"), std::string("\xFF\xFE not text")}) {
        writeFile(home + "/.veerline/app-path", kept);
        EXPECT_EQ(prompt(home + "/work"), "Work\n");
    }
    writeFile(home + "/.veerline/app-path", root / "Gone.app\n");
    EXPECT_EQ(prompt(home + "/work"), "");
}

#if !defined(__SANITIZE_ADDRESS__)
TEST(ResolverLinkageTest, NeedsNoSharedLibraryBeyondTheCRuntime) {
    // The resolver starts before every tool: no crypto, ICU or glib may ride along.
    RunOptions options;
    options.environment = {{"PATH", systemPath()}, {"LC_ALL", "C"}};
    RunResult result = run("/usr/bin/ldd", {VEERLINE_RESOLVE_BINARY}, options);
    if ((result.out + result.err).find("not a dynamic executable") != std::string::npos) return;
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const char* allowed[] = {"linux-vdso", "libc.so", "libm.so", "libstdc++.so", "libgcc_s.so", "/lib64/ld-linux", "/lib/ld-linux"};
    std::istringstream lines(result.out);
    for (std::string line, library; std::getline(lines, line);) {
        if (!(std::istringstream(line) >> library)) continue;
        EXPECT_TRUE(std::ranges::any_of(allowed, [&](const char* prefix) { return library.starts_with(prefix); }))
            << "veerline-resolve links " << library;
    }
}
#endif

}  // namespace
}  // namespace veerline::testing
