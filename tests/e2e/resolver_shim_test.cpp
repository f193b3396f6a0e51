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
        writeFakeTool(realClaude);
    }

    // Given another spelling of the shim folder on PATH, the shim is started by its bare name, so
    // that only the written PATH entries exclude its folder.
    RunResult runShim(std::vector<std::string> args, std::map<std::string, std::string> extra = {},
                      const std::string& path = "") const {
        RunOptions options;
        options.environment = {{"HOME", home}, {"PATH", (path.empty() ? shims : path) + ":" + toolDir}};
        options.environment.merge(extra);
        options.cwd = home;
        if (!path.empty()) options.argv0 = "claude";
        return run(shims + "/claude", args, options);
    }
};

TEST_F(ResolverShimTest, RunsRealToolWithFullPathAsArgv0AndArgumentsUnchanged) {
    auto result = runShim({"--print", "hello world", "", "\u00E9"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    auto report = parseFakeToolReport(result.out);
    EXPECT_EQ(report.argv0, realClaude);
    EXPECT_EQ(report.arguments, (std::vector<std::string>{"--print", "hello world", "", "\u00E9"}));
    EXPECT_EQ(report.environment["VEERLINE_SHIM_DEPTH"], "1");
    EXPECT_EQ(report.environment["HOME"], home);

    makeSymlink(shims, root / "shim-link");
    for (const std::string& spelled : {shims + "/", shims + "/.", home + "/.veerline/../.veerline/bin",
                                       home + "//.veerline/bin", root / "shim-link"}) {
        auto other = runShim({}, {}, spelled);
        ASSERT_EQ(other.exitCode, 0) << spelled << ": " << other.err;
        EXPECT_EQ(parseFakeToolReport(other.out).argv0, realClaude) << spelled;
    }
}

TEST_F(ResolverShimTest, DepthGuard) {
    const std::vector<std::pair<std::string, std::string>> depths = {
        {"3", "4"}, {"abc", "1"}, {"", "1"}, {" 2", "1"}, {"3x", "1"}, {"99999999999999999999", "1"}, {"-5", "-4"}, {"+2", "3"}};
    for (const auto& [depth, next] : depths) {
        auto result = runShim({}, {{"VEERLINE_SHIM_DEPTH", depth}});
        ASSERT_EQ(result.exitCode, 0) << depth << ": " << result.err;
        EXPECT_EQ(parseFakeToolReport(result.out).environment["VEERLINE_SHIM_DEPTH"], next) << depth;
    }
    auto over = runShim({}, {{"VEERLINE_SHIM_DEPTH", "4"}});
    EXPECT_EQ(over.exitCode, 127);
    EXPECT_EQ(over.err, "veerline: `claude` keeps resolving to a shim. Run `veerline doctor`.\n");
    EXPECT_EQ(over.out, "");
}

TEST_F(ResolverShimTest, ExecveFailureExits126) {
    // A script whose interpreter is missing: execve fails with ENOENT.
    writeFile(realClaude, "#!/nonexistent/interpreter\n", 0755);
    auto result = runShim({});
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

TEST_F(ResolverShimTest, ResolverModeVersionAndUsage) {
    RunOptions options;
    options.environment = {{"HOME", home}, {"PATH", toolDir}};
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

}  // namespace
}  // namespace veerline::testing
