#include "tests/Support/FaultInjection.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <ratio>
#include <stdexcept>
#include <utility>

namespace halvo::testing {

// The fault that is planned for one system call.
struct FaultPlan {
    std::atomic<std::size_t> calls{0};
    // Calls until the fault, including the faulty one; 0: none is planned, or it has triggered.
    std::atomic<int> countdown{0};
    bool isMade = false;
    Fault::Kind kind{};
    long value = 0;

    using Kind = Fault::Kind;

    // Counts a call; true for the one that is to fail.
    bool isNext() {
        ++calls;
        return countdown > 0 && --countdown == 0;
    }
};

namespace {

using Kind = FaultPlan::Kind;

std::array<FaultPlan, static_cast<std::size_t>(SystemCall::write) + 1> plans;

FaultPlan& planFor(SystemCall call) { return plans[static_cast<std::size_t>(call)]; }

CallTrace* trace = nullptr;

// Records a successful call on the item at `path`.
void noteCall(bool isDone, const char* what, const std::string& path) {
    if (trace != nullptr && isDone) {
        trace->note(std::string(what) + " " + path);
    }
}

// The same for an open item, or for the member `name` of an open folder.
void noteCall(bool isDone, const char* what, int file, const char* name = nullptr) {
    if (trace != nullptr && isDone) {
        std::error_code error;
        const auto path =
            std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), error);
        noteCall(isDone, what, (name == nullptr ? path : path / name).string());
    }
}

TimerAsked timerAsked;
std::uint64_t turnAsked = 0;

std::atomic<double> wallClockJump{0};

std::atomic<double> clockTakes{0};

std::atomic<bool> isClockStopped{false};
timespec stoppedTime{};
// By how much CLOCK_BOOTTIME is ahead.
std::chrono::nanoseconds passed{};

std::map<BeforeNext::Call, std::function<void()>> workBefore;
bool isBooted = false;

void doWorkBefore(BeforeNext::Call call) {
    if (auto node = workBefore.extract(call)) {
        node.mapped()();
    }
}

// Makes the call with `real`, or injects the planned fault.
template <class Real>
auto attempt(SystemCall call, Real real) -> decltype(real()) {
    FaultPlan& plan = planFor(call);
    if (!plan.isNext()) {
        return real();
    }
    if (plan.kind == Kind::give) {
        return static_cast<decltype(real())>(plan.value);
    }
    if (plan.kind == Kind::deny) {
        static_cast<void>(real());
    }
    errno = static_cast<int>(plan.value);
    return static_cast<decltype(real())>(-1);
}

// The same for a transfer of `count` bytes, which may also be cut short.
template <class Real>
auto attemptTransfer(SystemCall call, std::size_t count, Real real) -> decltype(real(count)) {
    const FaultPlan& plan = planFor(call);
    if (plan.isMade && plan.kind == Kind::cut) {
        const bool cut = planFor(call).isNext();
        return real(cut ? std::min(count, static_cast<std::size_t>(plan.value)) : count);
    }
    return attempt(call, [&] { return real(count); });
}

mode_t modeArgument(int flags, std::va_list& arguments) {
    const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return creates ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

Fault::Fault(SystemCall call, Kind kind, long value, int skip) : call_(call) {
    FaultPlan& plan = planFor(call);
    if (std::exchange(plan.isMade, true)) {
        throw std::logic_error("two faults for one system call");
    }
    plan.kind = kind;
    plan.value = value;
    plan.countdown = skip + 1;
}

Fault::~Fault() {
    FaultPlan& plan = planFor(call_);
    EXPECT_EQ(plan.countdown, 0) << "the fault was not triggered: no such call (SystemCall "
                                 << static_cast<int>(call_) << ")";
    plan.countdown = 0;
    plan.isMade = false;
}

std::size_t callsMade(SystemCall call) { return planFor(call).calls; }

CallTrace::CallTrace() { trace = this; }

CallTrace::~CallTrace() { trace = nullptr; }

TimerAsked lastTimerAsked() { return timerAsked; }

std::uint64_t lastTurnAsked() { return turnAsked; }

WallClockJump::WallClockJump(Seconds by) : ScopedChange([] { wallClockJump = 0; }) {
    wallClockJump = by.count();
}

SlowClock::SlowClock(Seconds each) : ScopedChange([] { clockTakes = wallClockJump = 0; }) {
    clockTakes = each.count();
}

StoppedClock::StoppedClock(long seconds, long nanoseconds)
    : ScopedChange([] { isClockStopped = false; }) {
    stoppedTime = {seconds, nanoseconds};
    isClockStopped = true;
}

TimePassing::TimePassing() : ScopedChange([] { passed = {}; }) {}

void TimePassing::pass(Seconds span) {
    passed += std::chrono::duration_cast<std::chrono::nanoseconds>(span);
}

BeforeNext::BeforeNext(Call call, std::function<void()> work)
    : ScopedChange([call] { EXPECT_EQ(workBefore.erase(call), 0U) << "there was no such call"; }) {
    workBefore[call] = std::move(work);
}

BootedBySystemd::BootedBySystemd() : ScopedChange([] { isBooted = false; }) { isBooted = true; }

}  // namespace halvo::testing

using namespace halvo::testing;

// ld(1), --wrap: a call of x becomes a call of __wrap_x; __real_x is the original.
//
// REAL declares the original; WRAP also defines a replacement that only injects faults.
// NOLINTBEGIN(cppcoreguidelines-macro-usage)
#define REAL(result, call, parameters) result __real_##call parameters
#define WRAP(result, call, parameters, ...)                                           \
    REAL(result, call, parameters);                                                   \
    result __wrap_##call parameters {                                                 \
        return attempt(SystemCall::call, [&] { return __real_##call(__VA_ARGS__); }); \
    }                                                                                 \
    static_assert(true)
// NOLINTEND(cppcoreguidelines-macro-usage)

extern "C" {

WRAP(int, accept4, (int socket, sockaddr* address, socklen_t* size, int flags), socket, address,
     size, flags);
WRAP(int, access, (const char* path, int mode), path, mode);
WRAP(int, chdir, (const char* path), path);
WRAP(int, chmod, (const char* path, mode_t mode), path, mode);
WRAP(int, eventfd, (unsigned int count, int flags), count, flags);
WRAP(int, fchmod, (int file, mode_t mode), file, mode);
WRAP(int, fstat, (int file, struct stat* status), file, status);
WRAP(uid_t, geteuid, ());
WRAP(gid_t, getgid, ());
WRAP(int, getsockopt, (int socket, int level, int option, void* value, socklen_t* size), socket,
     level, option, value, size);
WRAP(uid_t, getuid, ());
WRAP(int, initgroups, (const char* user, gid_t group), user, group);
WRAP(int, lstat, (const char* path, struct stat* status), path, status);
WRAP(ssize_t, readlink, (const char* path, char* buffer, size_t size), path, buffer, size);
WRAP(int, sd_bus_start, (sd_bus * bus), bus);
WRAP(int, sd_event_default, (sd_event * *loop), loop);
WRAP(int, sd_event_loop, (sd_event * loop), loop);
WRAP(int, setgid, (gid_t group), group);
WRAP(int, setuid, (uid_t user), user);
WRAP(int, stat, (const char* path, struct stat* status), path, status);
WRAP(int, statx, (int folder, const char* path, int flags, unsigned mask, struct statx* status),
     folder, path, flags, mask, status);
WRAP(int, unlinkat, (int folder, const char* path, int flags), folder, path, flags);

REAL(int, clock_gettime, (clockid_t clock, timespec* time));
REAL(int, fsync, (int file));
REAL(int, ioctl, (int file, unsigned long request, void* argument));
REAL(int, mkdir, (const char* path, mode_t mode));
REAL(int, open, (const char* path, int flags, mode_t mode));
REAL(int, openat, (int folder, const char* path, int flags, mode_t mode));
REAL(int, poll, (pollfd * descriptors, nfds_t count, int limit));
REAL(ssize_t, read, (int file, void* bytes, size_t count));
REAL(int, remove, (const char* path));
REAL(int, renameat, (int fromFolder, const char* from, int toFolder, const char* to));
REAL(int, sd_event_add_time_relative,
     (sd_event * loop, sd_event_source** source, clockid_t clock, std::uint64_t first,
      std::uint64_t leeway, sd_event_time_handler_t handler, void* userdata));
REAL(int, sd_event_source_set_time, (sd_event_source * source, std::uint64_t time));
REAL(ssize_t, write, (int file, const void* bytes, size_t count));

int __wrap_clock_gettime(clockid_t clock, timespec* time) {
    wallClockJump += clockTakes;
    if (isClockStopped) {
        *time = stoppedTime;
        return 0;
    }
    const int result = __real_clock_gettime(clock, time);
    if (result == 0 && clock == CLOCK_BOOTTIME) {
        constexpr std::int64_t second = std::nano::den;
        const std::int64_t total = time->tv_nsec + passed.count();
        time->tv_sec += total / second;
        time->tv_nsec = total % second;
    }
    return result;
}

int __wrap_fsync(int file) {
    const int result = attempt(SystemCall::fsync, [&] { return __real_fsync(file); });
    noteCall(result == 0, "fsync", file);
    return result;
}

int __wrap_ioctl(int file, unsigned long request, ...) {
    std::va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    const int result =
        attempt(SystemCall::ioctl, [&] { return __real_ioctl(file, request, argument); });
    if (request == FS_IOC_SETFLAGS) {
        const bool isLocked = (*static_cast<const int*>(argument) & FS_IMMUTABLE_FL) != 0;
        noteCall(result == 0, isLocked ? "lock" : "unlock", file);
    }
    return result;
}

int __wrap_mkdir(const char* path, mode_t mode) {
    const int result = attempt(SystemCall::mkdir, [&] { return __real_mkdir(path, mode); });
    noteCall(result == 0, "mkdir", path);
    return result;
}

int __wrap_open(const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeArgument(flags, arguments);
    va_end(arguments);
    return attempt(SystemCall::open, [&] { return __real_open(path, flags, mode); });
}

int __wrap_openat(int folder, const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeArgument(flags, arguments);
    va_end(arguments);
    return attempt(SystemCall::openat, [&] { return __real_openat(folder, path, flags, mode); });
}

int __wrap_poll(pollfd* descriptors, nfds_t count, int limit) {
    doWorkBefore(BeforeNext::Call::poll);
    return __real_poll(descriptors, count, limit);
}

ssize_t __wrap_read(int file, void* bytes, size_t count) {
    return attemptTransfer(SystemCall::read, count,
                           [&](size_t part) { return __real_read(file, bytes, part); });
}

int __wrap_remove(const char* path) {
    const int result = attempt(SystemCall::remove, [&] { return __real_remove(path); });
    noteCall(result == 0, "remove", path);
    return result;
}

int __wrap_renameat(int fromFolder, const char* from, int toFolder, const char* to) {
    const int result = attempt(SystemCall::renameat,
                               [&] { return __real_renameat(fromFolder, from, toFolder, to); });
    noteCall(result == 0, "rename", toFolder, to);
    return result;
}

int __wrap_sd_booted() { return isBooted ? 1 : 0; }

int __wrap_sd_event_add_time_relative(sd_event* loop, sd_event_source** source, clockid_t clock,
                                      std::uint64_t first, std::uint64_t leeway,
                                      sd_event_time_handler_t handler, void* userdata) {
    timerAsked = {first, leeway, clock};
    return attempt(SystemCall::sd_event_add_time_relative, [&] {
        return __real_sd_event_add_time_relative(loop, source, clock, first, leeway, handler,
                                                 userdata);
    });
}

int __wrap_sd_event_source_set_time(sd_event_source* source, std::uint64_t time) {
    turnAsked = time;
    return __real_sd_event_source_set_time(source, time);
}

ssize_t __wrap_write(int file, const void* bytes, size_t count) {
    const ssize_t result = attemptTransfer(
        SystemCall::write, count, [&](size_t part) { return __real_write(file, bytes, part); });
    noteCall(result >= 0, "write", file);
    if (trace != nullptr && result >= 0) {
        trace->noteWritten({static_cast<const char*>(bytes), static_cast<size_t>(result)});
    }
    return result;
}

}  // extern "C"

// std::chrono::system_clock::now(), by its mangled name.
std::chrono::system_clock::time_point realNow() asm("__real__ZNSt6chrono3_V212system_clock3nowEv");
std::chrono::system_clock::time_point wrappedNow() asm(
    "__wrap__ZNSt6chrono3_V212system_clock3nowEv");

std::chrono::system_clock::time_point wrappedNow() {
    return realNow() + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                           halvo::Seconds{wallClockJump});
}
