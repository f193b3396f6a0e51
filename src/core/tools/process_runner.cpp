#include "tools/process_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <mutex>
#include <utility>

#include "base/file_io.h"
#include "base/interrupt_cleanup.h"
#include "base/unicode.h"
#include "platform/platform.h"

namespace veerline {

std::string ProcessResult::combinedOutput() const {
    if (standardError.empty()) return standardOutput;
    return standardOutput + "\n" + standardError;
}

namespace ProcessRunner {

namespace {

using Clock = std::chrono::steady_clock;

// After SIGTERM the child gets this long to end before SIGKILL.
constexpr auto terminationGrace = std::chrono::seconds(2);
// How long the pipes may stay open once the child itself is gone (or has been sent SIGKILL).
// Whatever still holds them is a descendant: its output is not waited for, so a background
// process that inherited the pipes costs at most this much.
constexpr auto orphanedPipeGrace = std::chrono::seconds(1);
constexpr auto killedPipeGrace = std::chrono::seconds(2);

// A close-on-exec pipe whose ends are numbered 3 or above, so that the child's dup2 onto 1 and 2
// always makes a fresh, inheritable copy.
bool makePipe(FileDescriptor& readEnd, FileDescriptor& writeEnd, int& error) {
    int fds[2];
    if (::pipe(fds) != 0) {
        error = errno;
        return false;
    }
    FileDescriptor ends[2] = {FileDescriptor(fds[0]), FileDescriptor(fds[1])};
    for (auto& end : ends) {
        int moved = ::fcntl(end.get(), F_DUPFD_CLOEXEC, 3);
        if (moved < 0) {
            error = errno;
            return false;
        }
        end = FileDescriptor(moved);
    }
    readEnd = std::move(ends[0]);
    writeEnd = std::move(ends[1]);
    return true;
}

class SpawnAttributes {
public:
    SpawnAttributes() { ok_ = ::posix_spawnattr_init(&attributes_) == 0; }
    ~SpawnAttributes() {
        if (ok_) ::posix_spawnattr_destroy(&attributes_);
    }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    bool ok() const noexcept { return ok_; }
    posix_spawnattr_t* get() noexcept { return &attributes_; }

private:
    posix_spawnattr_t attributes_{};
    bool ok_ = false;
};

class SpawnFileActions {
public:
    SpawnFileActions() { ok_ = ::posix_spawn_file_actions_init(&actions_) == 0; }
    ~SpawnFileActions() {
        if (ok_) ::posix_spawn_file_actions_destroy(&actions_);
    }
    SpawnFileActions(const SpawnFileActions&) = delete;
    SpawnFileActions& operator=(const SpawnFileActions&) = delete;
    bool ok() const noexcept { return ok_; }
    posix_spawn_file_actions_t* get() noexcept { return &actions_; }

private:
    posix_spawn_file_actions_t actions_{};
    bool ok_ = false;
};

// Owns a started child, the leader of a process group of its own, until it has been reaped. If
// the run is left early (an exception), the whole group is killed and the child reaped, so that
// no zombie or stray process outlives the run. The child's end is first only noticed (WNOWAIT):
// while it stays unreaped its process identifier, and so its group's, can't be handed to anyone
// else, and signalling the group reaches only what the child started.
class Child {
public:
    explicit Child(pid_t pid) : pid_(pid), interrupted_(pid) {}
    ~Child() {
        if (!reaped_) {
            signalGroup(SIGKILL);
            reap();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool ended() const noexcept { return ended_; }
    int exitCode() const noexcept { return exitCode_; }

    void signalGroup(int number) const noexcept {
        if (!reaped_) ::kill(-pid_, number);
    }

    // Whether the child has ended, without reaping it; with `block`, waits until it does.
    bool noticeEnd(bool block) noexcept {
        if (ended_) return true;
        for (;;) {
            siginfo_t info {};
            if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT | (block ? 0 : WNOHANG)) == 0) {
                if (info.si_pid != pid_) return false;
                ended_ = true;
                return true;
            }
            if (errno == EINTR) continue;
            // ECHILD: someone else collected it (SIGCHLD ignored); its status is lost, and its
            // identifier may be anyone's by now.
            interrupted_.dismiss();
            reaped_ = ended_ = true;
            return true;
        }
    }

    void reap() noexcept {
        if (reaped_) return;
        // Before the identifier is given back, not after.
        interrupted_.dismiss();
        int status = 0;
        pid_t result;
        while ((result = ::waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
        }
        reaped_ = ended_ = true;
        if (result != pid_) {
            exitCode_ = -1;  // its status is lost
        } else if (WIFEXITED(status)) {
            exitCode_ = WEXITSTATUS(status);
        } else if (WIFSIGNALED(status)) {
            exitCode_ = WTERMSIG(status);
        }
    }

private:
    pid_t pid_;
    bool ended_ = false;
    bool reaped_ = false;
    int exitCode_ = -1;
    // A Ctrl-C reaches only the terminal's group, which the child has left: it is passed on.
    SignalGroupOnInterrupt interrupted_;
};

// Pipes are made close-on-exec in two steps; holding this while creating them and spawning keeps
// another run's child from inheriting them in between (which would hold our pipes open).
std::mutex& spawnMutex() {
    static std::mutex mutex;
    return mutex;
}

ProcessResult launchFailure(const std::string& executable, int error) {
    ProcessResult result;
    result.exitCode = 127;
    result.standardError = "Couldn't run " + executable + ": " + std::strerror(error);
    return result;
}

Clock::duration clampedTimeout(double seconds) {
    if (!(seconds > 0)) return Clock::duration::zero();
    // Anything beyond a few months is as good as no limit, and keeps the clock arithmetic finite.
    seconds = std::min(seconds, 1.0e7);
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

int millisecondsUntil(Clock::time_point when, Clock::time_point now) {
    if (when <= now) return 0;
    auto ms = std::chrono::ceil<std::chrono::milliseconds>(when - now).count();
    return static_cast<int>(std::min<long long>(ms, 1000 * 60 * 60));
}

ProcessResult runUnguarded(const std::string& executable, const std::vector<std::string>& arguments,
                           const Environment& environment, double timeout) {
    std::vector<std::string> argvStorage;
    argvStorage.reserve(arguments.size() + 1);
    argvStorage.push_back(executable);
    argvStorage.insert(argvStorage.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : argvStorage) argv.push_back(argument.data());
    argv.push_back(nullptr);

    std::vector<std::string> envStorage;
    envStorage.reserve(environment.size());
    for (const auto& [name, value] : environment) envStorage.push_back(name + "=" + value);
    std::vector<char*> envp;
    for (auto& entry : envStorage) envp.push_back(entry.data());
    envp.push_back(nullptr);

    FileDescriptor outRead, outWrite, errRead, errWrite;
    pid_t pid = -1;
    {
        std::lock_guard lock(spawnMutex());
        int error = 0;
        if (!makePipe(outRead, outWrite, error) || !makePipe(errRead, errWrite, error)) {
            return launchFailure(executable, error);
        }

        SpawnFileActions actions;
        SpawnAttributes attributes;
        if (!actions.ok() || !attributes.ok()) return launchFailure(executable, ENOMEM);
        ::posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_adddup2(actions.get(), outWrite.get(), STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(actions.get(), errWrite.get(), STDERR_FILENO);

        // The caller's thread may block signals or ignore SIGPIPE; the tool starts clean.
        sigset_t noSignals, defaults;
        sigemptyset(&noSignals);
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        sigaddset(&defaults, SIGTERM);
        sigaddset(&defaults, SIGINT);
        ::posix_spawnattr_setsigmask(attributes.get(), &noSignals);
        ::posix_spawnattr_setsigdefault(attributes.get(), &defaults);
        // A group of its own, so that a time-out ends whatever the tool started as well.
        ::posix_spawnattr_setpgroup(attributes.get(), 0);
        ::posix_spawnattr_setflags(attributes.get(),
                                   POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

        int spawned = ::posix_spawn(&pid, executable.c_str(), actions.get(), attributes.get(),
                                    argv.data(), envp.data());
        if (spawned != 0) return launchFailure(executable, spawned);
    }
    outWrite.close();
    errWrite.close();

    Child child(pid);
    std::array<FileDescriptor*, 2> streams = {&outRead, &errRead};
    std::array<std::string, 2> buffers;

    // The waits left open by design are both bounded here:
    // - Draining and waiting for the child share one clock. At the time-out the child gets
    //   SIGTERM, 2 s later SIGKILL, whether it still holds the pipes or has closed them and
    //   carries on running; so a child cannot hold the run by closing its outputs early.
    // - The pipes are read only while the child itself may still write: once it has ended
    //   (or 2 s after SIGKILL), they get a short grace and are then closed unread. A descendant
    //   that inherited them therefore never hangs the run; it sees EPIPE if it writes later.
    // `timedOut` is true whenever the time-out expired before the run was over.
    const auto start = Clock::now();
    Clock::time_point stageEnd = start + clampedTimeout(timeout);
    int stage = 0;  // 0 running, 1 SIGTERM sent, 2 SIGKILL sent
    bool timedOut = false;
    Clock::time_point pipeDeadline = Clock::time_point::max();
    int idleSleep = 1;
    std::array<char, 65536> chunk{};

    for (;;) {
        bool anyOpen = outRead || errRead;
        auto now = Clock::now();

        if (!child.ended() && child.noticeEnd(false)) {
            pipeDeadline = std::min(stageEnd, now + orphanedPipeGrace);
        }
        if (child.ended()) {
            if (!anyOpen) break;
            if (now >= pipeDeadline) {
                if (stage == 0 && now >= stageEnd) timedOut = true;
                for (auto* stream : streams) stream->close();
                break;
            }
        } else if (now >= stageEnd) {
            if (stage == 0) {
                timedOut = true;
                child.signalGroup(SIGTERM);
                stage = 1;
                stageEnd = now + terminationGrace;
            } else if (stage == 1) {
                child.signalGroup(SIGKILL);
                stage = 2;
                stageEnd = now + killedPipeGrace;
            } else {
                // Killed and still not gone: stop reading and wait for the system to end it.
                for (auto* stream : streams) stream->close();
                child.noticeEnd(true);
                break;
            }
            continue;
        }

        Clock::time_point wakeAt = child.ended() ? pipeDeadline : stageEnd;
        int waitMs = millisecondsUntil(wakeAt, now);
        if (!anyOpen) {
            // Both outputs are closed; the child is about to end (or keeps running on its own).
            waitMs = std::min(waitMs, idleSleep);
            idleSleep = std::min(idleSleep * 2, 50);
            ::poll(nullptr, 0, waitMs);
            continue;
        }
        // While the child runs, look at it now and then: its end can't be seen on the pipes
        // when a descendant holds them.
        if (!child.ended()) waitMs = std::min(waitMs, 50);

        std::array<pollfd, 2> fds{};
        std::array<int, 2> which{};
        nfds_t count = 0;
        for (int i = 0; i < 2; ++i) {
            if (*streams[i]) {
                fds[count] = pollfd{streams[i]->get(), POLLIN, 0};
                which[count] = i;
                ++count;
            }
        }
        int ready = ::poll(fds.data(), count, waitMs);
        if (ready <= 0) continue;
        for (nfds_t k = 0; k < count; ++k) {
            if (fds[k].revents == 0) continue;
            int i = which[k];
            ssize_t got = ::read(streams[i]->get(), chunk.data(), chunk.size());
            if (got > 0) {
                // Beyond the bound the output is still drained, so the child never blocks, but dropped.
                const std::size_t room = maxKeptOutput - std::min(maxKeptOutput, buffers[i].size());
                buffers[i].append(chunk.data(), std::min(room, static_cast<std::size_t>(got)));
            } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
                streams[i]->close();
            }
        }
    }
    // Whatever the tool left running in its group when it ran out of time goes with it.
    if (timedOut) child.signalGroup(SIGKILL);
    child.reap();

    ProcessResult result;
    result.exitCode = child.exitCode();
    result.standardOutput = unicode::repairUTF8(buffers[0]);
    result.standardError = unicode::repairUTF8(buffers[1]);
    result.timedOut = timedOut;
    return result;
}

}  // namespace

ProcessResult runSync(const std::string& executable, const std::vector<std::string>& arguments,
                      const Environment& environment, double timeout) noexcept {
    try {
        return runUnguarded(executable, arguments, environment, timeout);
    } catch (...) {
        return launchFailure(executable, ENOMEM);
    }
}

std::future<ProcessResult> run(std::string executable, std::vector<std::string> arguments,
                               Environment environment, double timeout) {
    return std::async(std::launch::async,
                      [executable = std::move(executable), arguments = std::move(arguments),
                       environment = std::move(environment), timeout] {
                          return runSync(executable, arguments, environment, timeout);
                      });
}

Environment baseEnvironment(const Environment& from) {
    static constexpr std::array<const char*, 19> names = {
        "HOME",          "USER",          "LOGNAME",      "PATH",       "SHELL",
        "TMPDIR",        "LANG",          "LC_ALL",       "LC_CTYPE",   "TERM",
        "__CF_USER_TEXT_ENCODING",        "SSH_AUTH_SOCK", "NODE_EXTRA_CA_CERTS",
        "HTTPS_PROXY",   "HTTP_PROXY",    "NO_PROXY",     "https_proxy", "http_proxy",
        "no_proxy",
    };
    Environment environment;
    for (const char* name : names) {
        if (auto value = lookup(from, name)) environment.emplace(name, *value);
    }
    for (std::string_view name : platform::sessionServiceVariables()) {
        if (auto value = lookup(from, std::string(name))) environment.emplace(name, *value);
    }
    return environment;
}

}  // namespace ProcessRunner

}  // namespace veerline
