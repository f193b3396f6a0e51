#include "base/interrupt_cleanup.h"

#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace veerline {

namespace {

constexpr int kSlots = 32;
constexpr int kInterrupts[] = {SIGINT, SIGTERM, SIGHUP};

enum SlotState : int { freeSlot, filling, ready };

// Fixed storage, written before a slot is marked ready: the handler reads no heap and takes no
// lock.
struct Slot {
    std::atomic<int> state{freeSlot};
    RemoveOnInterrupt::Kind kind = RemoveOnInterrupt::Kind::file;
    char path[PATH_MAX] = {};
};

Slot slots[kSlots];
// The highest slot ever used plus one, so the handler does not look at all of them.
std::atomic<int> slotsInUse{0};

static_assert(std::atomic<int>::is_always_lock_free);

// Process groups to pass an interrupt on to; 0 marks a free slot.
std::atomic<pid_t> groups[kSlots];
static_assert(std::atomic<pid_t>::is_always_lock_free);

extern "C" void removeRegisteredAndDie(int signalNumber) {
    const int savedErrno = errno;
    for (int index = slotsInUse.load() - 1; index >= 0; --index) {
        Slot& slot = slots[index];
        if (slot.state.load() != ready) continue;
        if (slot.kind == RemoveOnInterrupt::Kind::folder) {
            ::rmdir(slot.path);
        } else {
            ::unlink(slot.path);
        }
    }
    for (auto& group : groups) {
        if (pid_t pid = group.load(); pid > 0) ::kill(-pid, signalNumber);
    }
    errno = savedErrno;
    // The handler was installed with SA_RESETHAND: the signal, delivered again once the handler
    // returns, ends the process the usual way.
    ::raise(signalNumber);
}

}  // namespace

void RemoveOnInterrupt::installHandlers() noexcept {
    for (int signalNumber : kInterrupts) {
        struct sigaction previous {};
        if (::sigaction(signalNumber, nullptr, &previous) != 0 || previous.sa_handler == SIG_IGN) continue;
        struct sigaction action {};
        action.sa_handler = removeRegisteredAndDie;
        action.sa_flags = SA_RESETHAND;
        sigemptyset(&action.sa_mask);
        // A second interrupt waits until the first one's clean-up is done.
        for (int other : kInterrupts) sigaddset(&action.sa_mask, other);
        ::sigaction(signalNumber, &action, nullptr);
    }
}

RemoveOnInterrupt::RemoveOnInterrupt(const std::string& path, Kind kind) noexcept {
    if (path.empty() || path.size() >= PATH_MAX) return;
    for (int index = 0; index < kSlots; ++index) {
        int expected = freeSlot;
        if (!slots[index].state.compare_exchange_strong(expected, filling)) continue;
        slots[index].kind = kind;
        std::memcpy(slots[index].path, path.c_str(), path.size() + 1);
        int used = slotsInUse.load();
        while (used < index + 1 && !slotsInUse.compare_exchange_weak(used, index + 1)) {
        }
        slots[index].state.store(ready);
        slot_ = index;
        return;
    }
}

void RemoveOnInterrupt::dismiss() noexcept {
    if (slot_ < 0) return;
    slots[slot_].state.store(freeSlot);
    slot_ = -1;
}

SignalGroupOnInterrupt::SignalGroupOnInterrupt(pid_t group) noexcept {
    if (group <= 0) return;
    for (int index = 0; index < kSlots; ++index) {
        pid_t expected = 0;
        if (groups[index].compare_exchange_strong(expected, group)) {
            slot_ = index;
            return;
        }
    }
}

void SignalGroupOnInterrupt::dismiss() noexcept {
    if (slot_ < 0) return;
    groups[slot_].store(0);
    slot_ = -1;
}

}  // namespace veerline
