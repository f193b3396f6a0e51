#include "tools/process_runner.h"

#include <signal.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace veerline {
namespace {

using Clock = std::chrono::steady_clock;

ProcessResult runShell(const std::string& script, double timeout = 10.0, Environment environment = {}) {
    if (environment.empty()) environment["PATH"] = testing::systemPath();
    return ProcessRunner::runSync("/bin/sh", {"-c", script}, environment, timeout);
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

TEST(ProcessRunnerTest, SeparatesAndCombinesStreams) {
    ProcessResult result = runShell("printf out; printf err >&2; exit 3");
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.standardOutput, "out");
    EXPECT_EQ(result.standardError, "err");
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.combinedOutput(), "out\nerr");

    ProcessResult quiet = runShell("printf out");
    EXPECT_EQ(quiet.combinedOutput(), "out");
}

TEST(ProcessRunnerTest, PassesArgumentsAndOnlyTheGivenEnvironment) {
    testing::TempDir dir;
    testing::writeFakeTool(dir / "tool");
    ProcessResult result = ProcessRunner::runSync(dir / "tool", {"a b", "", "'q'"}, {{"ONLY", "this"}}, 10.0);
    ASSERT_EQ(result.exitCode, 0) << result.standardError;
    auto report = testing::parseFakeToolReport(result.standardOutput);
    EXPECT_EQ(report.argv0, dir / "tool");
    EXPECT_EQ(report.arguments, (std::vector<std::string>{"a b", "", "'q'"}));
    EXPECT_EQ(report.environment, (std::map<std::string, std::string>{{"ONLY", "this"}}));
}

TEST(ProcessRunnerTest, MissingExecutableReportsLaunchFailure) {
    testing::TempDir dir;
    std::string missing = dir / "no-such-tool";
    ProcessResult result = ProcessRunner::runSync(missing, {}, {}, 5.0);
    EXPECT_EQ(result.exitCode, 127);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(result.standardError, "Couldn't run " + missing + ": No such file or directory");
    EXPECT_FALSE(result.timedOut);

    testing::writeFile(dir / "not-executable", "#!/bin/sh\n", 0644);
    ProcessResult refused = ProcessRunner::runSync(dir / "not-executable", {}, {}, 5.0);
    EXPECT_EQ(refused.exitCode, 127);
    EXPECT_TRUE(refused.standardError.starts_with("Couldn't run " + dir / "not-executable" + ": "));
}

TEST(ProcessRunnerTest, DrainsALargeStandardErrorBeforeStandardOutput) {
    // 1 MiB on stderr first: a runner that read stdout alone would deadlock on the full pipe.
    ProcessResult result = runShell("head -c 1048576 /dev/zero | tr '\\0' x >&2; printf done", 20.0);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.standardOutput, "done");
    EXPECT_EQ(result.standardError.size(), 1048576u);
    EXPECT_EQ(result.standardError.find_first_not_of('x'), std::string::npos);
}

TEST(ProcessRunnerTest, TimeOutKillsAChildThatIgnoresSIGTERM) {
    auto start = Clock::now();
    ProcessResult result = runShell("trap '' TERM; while :; do sleep 0.1; done", 0.5);
    double elapsed = secondsSince(start);
    EXPECT_TRUE(result.timedOut);
    EXPECT_EQ(result.exitCode, SIGKILL);
    EXPECT_GE(elapsed, 2.4);
    EXPECT_LT(elapsed, 5.0);
}

TEST(ProcessRunnerTest, ChildThatClosesItsOutputsButKeepsRunningIsStillTimedOut) {
    auto start = Clock::now();
    ProcessResult result = runShell("exec >&- 2>&-; exec sleep 30", 0.5);
    EXPECT_TRUE(result.timedOut);
    EXPECT_EQ(result.exitCode, SIGTERM);
    EXPECT_LT(secondsSince(start), 3.0);
}

class ProcessRunnerGrandchildTest : public ::testing::Test {
protected:
    void TearDown() override {
        // The background sleep outlives the run on purpose; end it by its own id.
        if (testing::exists(dir / "pid")) {
            pid_t pid = std::stoi(testing::readFile(dir / "pid"));
            if (pid > 0) ::kill(pid, SIGKILL);
        }
    }
    testing::TempDir dir;
};

TEST_F(ProcessRunnerGrandchildTest, ExitedChildWhoseDescendantHoldsThePipeReturnsPromptly) {
    auto start = Clock::now();
    ProcessResult result = runShell("sleep 30 & echo $! > '" + dir / "pid" + "'; printf hello; exit 4", 10.0);
    EXPECT_LT(secondsSince(start), 3.0);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_EQ(result.standardOutput, "hello");
}

TEST_F(ProcessRunnerGrandchildTest, TimedOutChildWhoseDescendantHoldsThePipeIsBounded) {
    auto start = Clock::now();
    ProcessResult result =
        runShell("sleep 30 & echo $! > '" + dir / "pid" + "'; trap '' TERM; while :; do sleep 0.1; done", 0.5);
    double elapsed = secondsSince(start);
    EXPECT_TRUE(result.timedOut);
    EXPECT_EQ(result.exitCode, SIGKILL);
    // Time-out, the SIGTERM grace and at most one short pipe grace.
    EXPECT_LT(elapsed, 6.0);
}

TEST(ProcessRunnerTest, AsynchronousRunGivesTheSameResult) {
    auto first = ProcessRunner::run("/bin/sh", {"-c", "printf one"}, {}, 10.0);
    auto second = ProcessRunner::run("/bin/sh", {"-c", "printf two >&2; exit 1"}, {}, 10.0);
    ProcessResult one = first.get();
    ProcessResult two = second.get();
    EXPECT_EQ(one.standardOutput, "one");
    EXPECT_EQ(two.exitCode, 1);
    EXPECT_EQ(two.standardError, "two");
}

TEST(ProcessRunnerTest, BaseEnvironmentKeepsOnlyTheKnownNames) {
    Environment from{{"HOME", "/h"}, {"http_proxy", "p"}, {"UNRELATED", "x"}};
    EXPECT_EQ(ProcessRunner::baseEnvironment(from), (Environment{{"HOME", "/h"}, {"http_proxy", "p"}}));

    // Names match exactly: case matters, and the tools' own variables are dropped.
    Environment other{{"Path", "/x"}, {"CLAUDE_CONFIG_DIR", "/y"}, {"NO_PROXY", ""}, {"__CF_USER_TEXT_ENCODING", "0"}};
    EXPECT_EQ(ProcessRunner::baseEnvironment(other), (Environment{{"NO_PROXY", ""}, {"__CF_USER_TEXT_ENCODING", "0"}}));
}

}  // namespace
}  // namespace veerline
