// System calls that fail when a test wants them to.
//
// The linker puts this in the place of the calls named below (--wrap), in test executables that
// link HalvoFaultInjection and there only for code linked statically: the libraries under test, and
// the tests. What shared libraries call stays as it is.
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

// Makes one call go wrong, while it lives. At most one for each kind of call at a time. A fault
// that never happens fails the test: the branch it was made for was not reached. May be made on any
// thread while no other makes the calls; happens on any.
class Fault {
  public:
    // The next call fails with `code` in errno and has no effect. With `skip`, that many calls are
    // carried out first.
    static Fault failing(SystemCall call, int code, int skip = 0) {
        return {call, Kind::fail, code, skip};
    }

    // The next call is carried out, but says that it failed with `code`.
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

// How often the call was made in the whole life of the process.
std::size_t callsMade(SystemCall call);

// Notes, while it lives, what was done to the file system, in order and in words: "mkdir PATH",
// "write PATH", "fsync PATH", "rename PATH" (the new one), "remove PATH", and "lock PATH" or
// "unlock PATH" for a change of flags. What failed was not done. One at a time, on the thread that
// makes the calls.
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

// The last timer that anybody asked the event loop for, in microseconds.
struct TimerAsked {
    std::uint64_t first{};
    // How much later the system may let it turn.
    std::uint64_t leeway{};
    clockid_t clock = CLOCK_MONOTONIC;

    bool operator==(const TimerAsked&) const = default;
};

TimerAsked lastTimerAsked();

// When a timer is to turn next, as it was last asked for after a turn, in microseconds.
std::uint64_t lastTurnAsked();

// Something that is otherwise than usual while it lives. At most one of a kind at a time.
class Change {
  public:
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

  protected:
    explicit Change(std::function<void()> undo) : undo_(std::move(undo)) {}

    ~Change() { undo_(); }

  private:
    std::function<void()> undo_;
};

// Moves the wall clock, as wallNow() sees it, by `by`.
class WallClockJump : Change {
  public:
    explicit WallClockJump(Seconds by);
};

// Makes every clock_gettime(2) take this long, by the wall clock as wallNow() sees it.
class SlowClock : Change {
  public:
    explicit SlowClock(Seconds each);
};

// Makes every clock_gettime(2) give this time.
class StoppedClock : Change {
  public:
    StoppedClock(long seconds, long nanoseconds);
};

// The clock that counts from boot, through sleep (CLOCK_BOOTTIME), is ahead by what has passed
// here.
class TimePassing : Change {
  public:
    TimePassing();
    void pass(Seconds span);
};

// The next call of one kind first does `work`. Fails the test when there was none.
class BeforeNext : Change {
  public:
    enum class Call { poll };

    BeforeNext(Call call, std::function<void()> work);
};

// systemd runs the machine (sd_booted(3)). Otherwise it never does, or tests would start units on
// the machine they run on.
class BootedBySystemd : Change {
  public:
    BootedBySystemd();
};

}  // namespace halvo::testing
