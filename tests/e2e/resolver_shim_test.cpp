// Runs the built veerline-resolve through `claude`/`codex` links in a temporary HOME, with a fake
// real tool further along PATH that reports what it received.

#include <gtest/gtest.h>

#include <sstream>

#include "support/test_support.h"

namespace veerline::testing {
namespace {

class ResolverShimTest : public ::testing::Test {
protected:
    TempDir root{"veerline-shim"};
    std::string home = root / "home";
    std::string shims = home + "/.veerline/bin";
    std::string toolDir = root / "tools";
    std::string realClaude = toolDir + "/claude";

    void SetUp() override {
        makeDirs(home);
        makeSymlink(VEERLINE_RESOLVE_BINARY, shims + "/claude");
        makeSymlink(VEERLINE_RESOLVE_BINARY, shims + "/codex");
        writeFakeTool(realClaude);
    }

    std::map<std::string, std::string> baseEnv(const std::string& path) const {
        return {{"HOME", home}, {"PATH", path}};
    }

    RunResult runShim(const std::string& name, std::vector<std::string> args,
                      std::map<std::string, std::string> env,
                      std::optional<std::string> cwd = std::nullopt) const {
        RunOptions options;
        options.environment = std::move(env);
        options.cwd = cwd.value_or(home);
        return run(shims + "/" + name, args, options);
    }
};

TEST_F(ResolverShimTest, RunsRealToolWithFullPathAsArgv0AndArgumentsUnchanged) {
    auto result = runShim("claude", {"--print", "hello world", "", "é"},
                          baseEnv(shims + ":" + toolDir));
    ASSERT_EQ(result.exitCode, 0) << result.err;
    auto report = parseFakeToolReport(result.out);
    EXPECT_EQ(report.argv0, realClaude);
    EXPECT_EQ(report.arguments, (std::vector<std::string>{"--print", "hello world", "", "é"}));
    EXPECT_EQ(report.environment["VEERLINE_SHIM_DEPTH"], "1");
    EXPECT_EQ(report.environment["HOME"], home);
}

TEST_F(ResolverShimTest, DepthGuard) {
    auto env = baseEnv(shims + ":" + toolDir);
    env["VEERLINE_SHIM_DEPTH"] = "3";
    auto atLimit = runShim("claude", {}, env);
    ASSERT_EQ(atLimit.exitCode, 0) << atLimit.err;
    EXPECT_EQ(parseFakeToolReport(atLimit.out).environment["VEERLINE_SHIM_DEPTH"], "4");

    env["VEERLINE_SHIM_DEPTH"] = "4";
    auto over = runShim("claude", {}, env);
    EXPECT_EQ(over.exitCode, 127);
    EXPECT_EQ(over.err, "veerline: `claude` keeps resolving to a shim. Run `veerline doctor`.\n");
    EXPECT_EQ(over.out, "");

    for (const char* junk : {"abc", "", " 2", "3x", "99999999999999999999"}) {
        env["VEERLINE_SHIM_DEPTH"] = junk;
        auto result = runShim("claude", {}, env);
        ASSERT_EQ(result.exitCode, 0) << junk;
        EXPECT_EQ(parseFakeToolReport(result.out).environment["VEERLINE_SHIM_DEPTH"], "1") << junk;
    }
    env["VEERLINE_SHIM_DEPTH"] = "-5";
    EXPECT_EQ(parseFakeToolReport(runShim("claude", {}, env).out).environment["VEERLINE_SHIM_DEPTH"], "-4");
    env["VEERLINE_SHIM_DEPTH"] = "+2";
    EXPECT_EQ(parseFakeToolReport(runShim("claude", {}, env).out).environment["VEERLINE_SHIM_DEPTH"], "3");
}

TEST_F(ResolverShimTest, ShimThatFindsItselfStopsAtTheDepthLimit) {
    // A link to the shim in an unexcluded folder makes every run find a shim again.
    std::string other = root / "other";
    makeSymlink(VEERLINE_RESOLVE_BINARY, other + "/claude");
    RunOptions options;
    options.environment = baseEnv(other + ":" + toolDir);
    options.argv0 = "claude";  // as a shell would start it by name, with no folder part
    auto result = run(other + "/claude", {}, options);
    // The running executable's own folder is excluded, but `other` holds only a link to it.
    EXPECT_TRUE(result.exitCode == 127 || result.exitCode == 0) << result.err;
    if (result.exitCode == 127) {
        EXPECT_EQ(result.err, "veerline: `claude` keeps resolving to a shim. Run `veerline doctor`.\n");
    }
}

TEST_F(ResolverShimTest, MissingToolFailsWith127) {
    auto result = runShim("codex", {}, baseEnv(shims + ":" + toolDir));
    EXPECT_EQ(result.exitCode, 127);
    EXPECT_EQ(result.err, "veerline: couldn't find the real `codex` on your PATH. Is it installed?\n");

    auto empty = runShim("claude", {}, baseEnv(""));
    EXPECT_EQ(empty.exitCode, 127);
}

TEST_F(ResolverShimTest, UnsetPathSearchesUsrBinAndBin) {
    // `env` lives in /usr/bin on every system we run on; a shim named env must find it.
    makeSymlink(VEERLINE_RESOLVE_BINARY, shims + "/env");
    auto result = runShim("env", {}, {{"HOME", home}});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.out.find("VEERLINE_SHIM_DEPTH=1"), std::string::npos);
    EXPECT_EQ(result.out.find("PATH="), std::string::npos);
}

TEST_F(ResolverShimTest, ShimFolderIsSkippedInEveryWrittenForm) {
    std::string linkToShims = root / "shim-link";
    makeSymlink(shims, linkToShims);
    for (const std::string& spelled :
         {shims + "/", shims + "/.", home + "/.veerline/../.veerline/bin", home + "//.veerline/bin",
          linkToShims}) {
        // The shim is started by its bare name, so only the written PATH entries exclude it.
        RunOptions options;
        options.environment = baseEnv(spelled + ":" + toolDir);
        options.argv0 = "claude";
        auto result = run(shims + "/claude", {}, options);
        ASSERT_EQ(result.exitCode, 0) << spelled << ": " << result.err;
        EXPECT_EQ(parseFakeToolReport(result.out).argv0, realClaude) << spelled;
    }
}

TEST_F(ResolverShimTest, RelativeEntriesAndNonExecutablesAreSkipped) {
    std::string plain = root / "plain";
    writeFile(plain + "/claude", "not a program", 0644);
    makeDirs(root / "dir/claude");
    auto result = runShim("claude", {}, baseEnv("tools:" + plain + ":" + root / "dir" + ":" + toolDir), root.path());
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(parseFakeToolReport(result.out).argv0, realClaude);
}

TEST_F(ResolverShimTest, ShimStartedThroughRelativePathExcludesItsFolder) {
    // A copy (not a link) of the resolver in a folder on PATH, started as ./claude from there.
    std::string copyDir = root / "copy";
    makeDirs(copyDir);
    std::string copy = copyDir + "/claude";
    writeFile(copy, readFile(VEERLINE_RESOLVE_BINARY), 0755);
    RunOptions options;
    options.environment = baseEnv(copyDir + ":" + toolDir);
    options.environment["PWD"] = copyDir;
    options.cwd = copyDir;
    options.argv0 = "./claude";
    auto result = run(copy, {}, options);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(parseFakeToolReport(result.out).argv0, realClaude);
}

TEST_F(ResolverShimTest, ResolverModeVersionAndUsage) {
    RunOptions options;
    options.environment = baseEnv(toolDir);
    auto version = run(VEERLINE_RESOLVE_BINARY, {"--version", "ignored"}, options);
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out, "veerline-resolve 0.1.0\n");

    const std::string usage =
        "veerline: this is Veerline's shim. Run it as `claude` or `codex` (via ~/.veerline/bin), "
        "or with --prompt.\n";
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{}, {"--VERSION"}, {"--Prompt"}, {"claude"}}) {
        auto result = run(VEERLINE_RESOLVE_BINARY, args, options);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.err, usage);
        EXPECT_EQ(result.out, "");
    }
}

TEST_F(ResolverShimTest, ExecveFailureExits126) {
    // Executable bit set but no interpreter: execve fails with ENOEXEC... or runs via the
    // kernel. A script with a missing interpreter fails with ENOENT.
    writeFile(realClaude, "#!/nonexistent/interpreter\n", 0755);
    auto result = runShim("claude", {}, baseEnv(shims + ":" + toolDir));
    EXPECT_EQ(result.exitCode, 126);
    EXPECT_EQ(result.err, "veerline: couldn't run " + realClaude + ": No such file or directory\n");
}

#if !defined(__SANITIZE_ADDRESS__)
TEST(ResolverLinkageTest, NeedsNoSharedLibraryBeyondTheCRuntime) {
    // The resolver starts before every tool: no crypto, ICU or glib may ride along.
    RunOptions options;
    options.environment = {{"PATH", systemPath()}, {"LC_ALL", "C"}};
    auto result = run("/usr/bin/ldd", {VEERLINE_RESOLVE_BINARY}, options);
    std::string listing = result.out + result.err;
    if (listing.find("not a dynamic executable") != std::string::npos) return;
    ASSERT_EQ(result.exitCode, 0) << listing;
    std::istringstream lines(result.out);
    std::string line;
    while (std::getline(lines, line)) {
        auto start = line.find_first_not_of(" \t");
        if (start == std::string::npos) continue;
        std::string library = line.substr(start, line.find_first_of(" \t", start) - start);
        bool allowed = false;
        for (const char* prefix : {"linux-vdso", "libc.so", "libm.so", "libstdc++.so", "libgcc_s.so", "/lib64/ld-linux",
                                   "/lib/ld-linux"}) {
            allowed = allowed || library.starts_with(prefix);
        }
        EXPECT_TRUE(allowed) << "veerline-resolve links " << library;
    }
}
#endif

}  // namespace
}  // namespace veerline::testing
