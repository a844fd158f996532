// System calls that fail on demand.
//
// The linker replaces the calls named below (ld(1), --wrap) in test executables that link
// HalvoFaultInjection, for statically linked code only: the libraries under test and the tests.
// Calls made by shared libraries are not affected.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "HalvoPlatform/Time.hpp"

namespace halvo::testing {

enum class SystemCall {
    accept4,
    access,
    chdir,
    chmod,
    eventfd,
    fchmod,
    fstat,
    fsync,
    geteuid,
    getgid,
    getsockopt,
    getuid,
    initgroups,
    ioctl,
    lstat,
    mkdir,
    open,
    openat,
    read,
    readlink,
    remove,
    renameat,
    sd_bus_start,
    sd_event_add_time_relative,
    sd_event_default,
    sd_event_loop,
    setgid,
    setuid,
    stat,
    statx,
    unlinkat,
    write
};

// Injects one fault while it lives. At most one per system call at a time. A fault that was not
// triggered fails the test, which did not reach the branch it is for. May be created on any thread
// while no other thread makes the call; triggers on any thread.
class Fault {
  public:
    // The next call fails with `code` in errno and has no effect. With `skip`, that many calls
    // succeed first.
    static Fault failing(SystemCall call, int code, int skip = 0) {
        return {call, Kind::fail, code, skip};
    }

    // The next call takes effect, but reports failure with `code`.
    static Fault denying(SystemCall call, int code, int skip = 0) {
        return {call, Kind::deny, code, skip};
    }

    // The next call has no effect and returns `result`.
    static Fault returning(SystemCall call, int result, int skip = 0) {
        return {call, Kind::give, result, skip};
    }

    // The next read or write moves no more than `count` bytes.
    static Fault cutShort(SystemCall call, std::size_t count, int skip = 0) {
        return {call, Kind::cut, static_cast<long>(count), skip};
    }

    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;
    ~Fault();

  private:
    enum class Kind { fail, deny, give, cut };

    Fault(SystemCall call, Kind kind, long value, int skip);

    SystemCall call_;

    friend struct FaultPlan;
};

// Number of calls since the process started.
std::size_t callsMade(SystemCall call);

// Records the changes of the file system while it lives, in order: "mkdir PATH", "write PATH",
// "fsync PATH", "rename PATH" (the new one), "remove PATH", and "lock PATH" or "unlock PATH" for a
// change of the immutable flag. Calls that failed are left out. At most one at a time, on the
// thread that makes the calls.
class CallTrace {
  public:
    CallTrace();
    CallTrace(const CallTrace&) = delete;
    CallTrace& operator=(const CallTrace&) = delete;
    ~CallTrace();

    [[nodiscard]] const std::vector<std::string>& calls() const { return calls_; }

    // The bytes of each "write", in order.
    [[nodiscard]] const std::vector<std::string>& written() const { return written_; }

    void note(std::string call) { calls_.push_back(std::move(call)); }

    void noteWritten(std::string bytes) { written_.push_back(std::move(bytes)); }

  private:
    std::vector<std::string> calls_;
    std::vector<std::string> written_;
};

// The last timer that was added to the event loop, in microseconds.
struct TimerAsked {
    std::uint64_t first{};
    // The accuracy: how much later it may fire.
    std::uint64_t leeway{};
    clockid_t clock = CLOCK_MONOTONIC;

    bool operator==(const TimerAsked&) const = default;
};

TimerAsked lastTimerAsked();

// The next expiry that was last set on a repeating timer after it fired, in microseconds.
std::uint64_t lastTurnAsked();

// A change of the environment, undone by the destructor. At most one of a kind at a time.
class ScopedChange {
  public:
    ScopedChange(const ScopedChange&) = delete;
    ScopedChange& operator=(const ScopedChange&) = delete;

  protected:
    explicit ScopedChange(std::function<void()> undo) : undo_(std::move(undo)) {}

    ~ScopedChange() { undo_(); }

  private:
    std::function<void()> undo_;
};

// Moves the wall clock, as wallNow() sees it, by `by`.
class WallClockJump : ScopedChange {
  public:
    explicit WallClockJump(Seconds by);
};

// Makes every clock_gettime(2) take this long, by the wall clock as wallNow() sees it.
class SlowClock : ScopedChange {
  public:
    explicit SlowClock(Seconds each);
};

// Makes every clock_gettime(2) return this time.
class StoppedClock : ScopedChange {
  public:
    StoppedClock(long seconds, long nanoseconds);
};

// Moves CLOCK_BOOTTIME ahead by the sum of all pass() calls.
class TimePassing : ScopedChange {
  public:
    TimePassing();
    void pass(Seconds span);
};

// Runs `work` right before the next call of one kind. Fails the test when there was no call.
class BeforeNext : ScopedChange {
  public:
    enum class Call { poll };

    BeforeNext(Call call, std::function<void()> work);
};

// Makes sd_booted(3) return 1. Without it the call returns 0, or tests would start units on the
// machine they run on.
class BootedBySystemd : ScopedChange {
  public:
    BootedBySystemd();
};

}  // namespace halvo::testing
