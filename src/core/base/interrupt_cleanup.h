#pragma once

#include <sys/types.h>

#include <string>

namespace veerline {

// Keeps a temporary file or folder from outliving an interrupted command: while the object
// lives, SIGINT, SIGTERM or SIGHUP remove the path before the process ends (once
// `installHandlers` has run). The handler only calls unlink and rmdir on paths stored ahead of
// time, so it is safe at any moment; registrations are removed newest first, so register a
// folder before the files put in it and the folder is empty by the time it is removed.
class RemoveOnInterrupt {
public:
    enum class Kind { file, folder };

    // Catches SIGINT, SIGTERM and SIGHUP for the rest of the process: removes what is registered,
    // then ends the process by the same signal, as the caller's shell expects. A signal the
    // process was started with ignored (nohup) stays ignored. Caught signals fall back to their
    // default in programs this process executes.
    static void installHandlers() noexcept;

    // Registers `path` until destruction or `dismiss`. A path that cannot be registered (too
    // long, or too many at once) is simply not removed on interrupt.
    explicit RemoveOnInterrupt(const std::string& path, Kind kind = Kind::file) noexcept;
    ~RemoveOnInterrupt() { dismiss(); }
    RemoveOnInterrupt(const RemoveOnInterrupt&) = delete;
    RemoveOnInterrupt& operator=(const RemoveOnInterrupt&) = delete;

    // Its owner is done with the path (it was renamed into place, or removed).
    void dismiss() noexcept;

private:
    int slot_ = -1;
};

// A child process in a group of its own doesn't hear the terminal's Ctrl-C: while the object
// lives, the interrupt this process gets (with `installHandlers` run) is passed on to `group`
// before the process ends.
class SignalGroupOnInterrupt {
public:
    explicit SignalGroupOnInterrupt(pid_t group) noexcept;
    ~SignalGroupOnInterrupt() { dismiss(); }
    SignalGroupOnInterrupt(const SignalGroupOnInterrupt&) = delete;
    SignalGroupOnInterrupt& operator=(const SignalGroupOnInterrupt&) = delete;

    void dismiss() noexcept;

private:
    int slot_ = -1;
};

}  // namespace veerline
