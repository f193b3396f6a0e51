#include "tools/process_runner.h"

#include <signal.h>

#include <chrono>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "platform/platform.h"
#include "support/test_support.h"

namespace veerline {
namespace {

TEST(ProcessRunnerTest, OutputsExitAndTimeOutsOfRealChildren) {
    testing::TempDir dir;
    // The background sleeps outlive their runs on purpose; each is ended by its own id.
    struct Reaper {
        std::string pids;
        ~Reaper() {
            std::ifstream in(pids);
            for (pid_t pid; in >> pid;) ::kill(pid, SIGKILL);
        }
    } reaper{dir / "pids"};
    std::string background = "sleep 30 & echo $! >> '" + reaper.pids + "'; ";
    struct Case {
        std::string script;
        double timeout;
        int exitCode;
        std::string out, err;
        bool timedOut;
        double minSeconds, maxSeconds;
    };
    const Case cases[] = {
        {"printf out; printf err >&2; exit 3", 10.0, 3, "out", "err", false, 0, 10},
        // 1 MiB on stderr first: a runner that read stdout alone would deadlock on the full pipe.
        {"head -c 1048576 /dev/zero | tr '\\0' x >&2; printf done", 20.0, 0, "done", std::string(1 << 20, 'x'),
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
        EXPECT_EQ(result.exitCode, c.exitCode);
        EXPECT_EQ(result.standardOutput, c.out);
        EXPECT_TRUE(result.standardError == c.err) << result.standardError.size() << " bytes on stderr";
        EXPECT_EQ(result.timedOut, c.timedOut);
        EXPECT_GE(elapsed, c.minSeconds);
        EXPECT_LT(elapsed, c.maxSeconds);
        if (c.err.empty()) { EXPECT_EQ(result.combinedOutput(), c.out); }
    }
    EXPECT_EQ(ProcessRunner::runSync("/bin/sh", {"-c", "printf out; printf err >&2"}, {}, 10.0).combinedOutput(),
              "out\nerr");
}

TEST(ProcessRunnerTest, PassesArgumentsAndOnlyTheGivenEnvironmentWhileOtherRunsGoOn) {
    testing::TempDir dir;
    testing::writeFakeTool(dir / "tool");
    auto pending = ProcessRunner::run(dir / "tool", {"a b", "", "'q'"}, {{"ONLY", "this"}}, 10.0);
    // What can't be started is reported as a launch failure.
    testing::writeFile(dir / "not-executable", "#!/bin/sh\n", 0644);
    const std::pair<std::string, std::string> launches[] = {{dir / "no-such-tool", "No such file or directory"},
                                                            {dir / "not-executable", "Permission denied"}};
    for (const auto& [path, reason] : launches) {
        ProcessResult failed = ProcessRunner::runSync(path, {}, {}, 5.0);
        EXPECT_EQ(failed.exitCode, 127);
        EXPECT_EQ(failed.standardOutput, "");
        EXPECT_FALSE(failed.timedOut);
        EXPECT_EQ(failed.standardError, "Couldn't run " + path + ": " + reason);
    }

    ProcessResult result = pending.get();
    ASSERT_EQ(result.exitCode, 0) << result.standardError;
    auto report = testing::parseFakeToolReport(result.standardOutput);
    EXPECT_EQ(report.argv0, dir / "tool");
    EXPECT_EQ(report.arguments, (std::vector<std::string>{"a b", "", "'q'"}));
    EXPECT_EQ(report.environment, (std::map<std::string, std::string>{{"ONLY", "this"}}));
}

TEST(ProcessRunnerTest, BaseEnvironmentKeepsOnlyTheKnownNames) {
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

}  // namespace
}  // namespace veerline
