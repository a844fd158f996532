#include "tests/Support/FaultInjection.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <systemd/sd-event.h>

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
#include <ratio>
#include <stdexcept>
#include <utility>

namespace halvo::testing {

// What is to happen to one kind of call.
struct FaultPlan {
    std::atomic<std::size_t> calls{0};
    // Calls to go until the fault, this one included; 0: none is planned, or it has happened.
    std::atomic<int> countdown{0};
    bool isMade = false;
    Fault::Kind kind{};
    long value = 0;

    using Kind = Fault::Kind;

    // Notes a call. Whether this is the one that goes wrong.
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

// Notes a call on the item at `path`, if it was carried out.
void noteCall(bool isDone, const char* what, const std::string& path) {
    if (trace != nullptr && isDone) {
        trace->note(std::string(what) + " " + path);
    }
}

// The same of an open item, or of the member `name` of an open folder.
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

// Makes the call, or lets it go wrong. `real` makes it.
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
    return -1;
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

Fault Fault::failing(SystemCall call, int code, int skip) { return {call, Kind::fail, code, skip}; }

Fault Fault::denying(SystemCall call, int code, int skip) { return {call, Kind::deny, code, skip}; }

Fault Fault::returning(SystemCall call, int result, int skip) {
    return {call, Kind::give, result, skip};
}

Fault Fault::cutShort(SystemCall call, std::size_t count, int skip) {
    return {call, Kind::cut, static_cast<long>(count), skip};
}

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
    EXPECT_EQ(plan.countdown, 0) << "the system call that was to go wrong was not made (number "
                                 << static_cast<int>(call_) << ")";
    plan.countdown = 0;
    plan.isMade = false;
}

std::size_t callsMade(SystemCall call) { return planFor(call).calls; }

CallTrace::CallTrace() { trace = this; }

CallTrace::~CallTrace() { trace = nullptr; }

TimerAsked lastTimerAsked() { return timerAsked; }

std::uint64_t lastTurnAsked() { return turnAsked; }

WallClockJump::WallClockJump(Seconds by) { wallClockJump = by.count(); }

WallClockJump::~WallClockJump() { wallClockJump = 0; }

SlowClock::SlowClock(Seconds each) { clockTakes = each.count(); }

SlowClock::~SlowClock() { clockTakes = wallClockJump = 0; }

StoppedClock::StoppedClock(long seconds, long nanoseconds) {
    stoppedTime = {seconds, nanoseconds};
    isClockStopped = true;
}

StoppedClock::~StoppedClock() { isClockStopped = false; }

TimePassing::~TimePassing() { passed = {}; }

void TimePassing::pass(Seconds span) {
    passed += std::chrono::duration_cast<std::chrono::nanoseconds>(span);
}

}  // namespace halvo::testing

using halvo::testing::attempt;
using halvo::testing::attemptTransfer;
using halvo::testing::noteCall;
using halvo::testing::SystemCall;

// The linker's names: __wrap_x is called in the place of x, which is called __real_x.
extern "C" {

int __real_accept4(int socket, sockaddr* address, socklen_t* size, int flags);
int __real_access(const char* path, int mode);
int __real_chdir(const char* path);
int __real_chmod(const char* path, mode_t mode);
int __real_clock_gettime(clockid_t clock, timespec* time);
int __real_eventfd(unsigned int count, int flags);
int __real_fchmod(int file, mode_t mode);
int __real_fstat(int file, struct stat* status);
int __real_fsync(int file);
int __real_getsockopt(int socket, int level, int option, void* value, socklen_t* size);
int __real_ioctl(int file, unsigned long request, void* argument);
int __real_lstat(const char* path, struct stat* status);
int __real_mkdir(const char* path, mode_t mode);
int __real_open(const char* path, int flags, mode_t mode);
int __real_openat(int folder, const char* path, int flags, mode_t mode);
ssize_t __real_read(int file, void* bytes, size_t count);
ssize_t __real_readlink(const char* path, char* buffer, size_t size);
int __real_remove(const char* path);
int __real_renameat(int fromFolder, const char* from, int toFolder, const char* to);
int __real_sd_event_add_time_relative(sd_event* loop, sd_event_source** source, clockid_t clock,
                                      std::uint64_t first, std::uint64_t leeway,
                                      sd_event_time_handler_t handler, void* userdata);
int __real_sd_event_default(sd_event** loop);
int __real_sd_event_loop(sd_event* loop);
int __real_sd_event_source_set_time(sd_event_source* source, std::uint64_t time);
int __real_stat(const char* path, struct stat* status);
int __real_statx(int folder, const char* path, int flags, unsigned mask, struct statx* status);
int __real_unlinkat(int folder, const char* path, int flags);
ssize_t __real_write(int file, const void* bytes, size_t count);

int __wrap_accept4(int socket, sockaddr* address, socklen_t* size, int flags) {
    return attempt(SystemCall::accept4,
                   [&] { return __real_accept4(socket, address, size, flags); });
}

int __wrap_access(const char* path, int mode) {
    return attempt(SystemCall::access, [&] { return __real_access(path, mode); });
}

int __wrap_chdir(const char* path) {
    return attempt(SystemCall::chdir, [&] { return __real_chdir(path); });
}

int __wrap_chmod(const char* path, mode_t mode) {
    return attempt(SystemCall::chmod, [&] { return __real_chmod(path, mode); });
}

int __wrap_clock_gettime(clockid_t clock, timespec* time) {
    halvo::testing::wallClockJump += halvo::testing::clockTakes;
    if (halvo::testing::isClockStopped) {
        *time = halvo::testing::stoppedTime;
        return 0;
    }
    const int result =
        attempt(SystemCall::clock_gettime, [&] { return __real_clock_gettime(clock, time); });
    if (result == 0 && clock == CLOCK_BOOTTIME) {
        constexpr std::int64_t second = std::nano::den;
        const std::int64_t total = time->tv_nsec + halvo::testing::passed.count();
        time->tv_sec += total / second;
        time->tv_nsec = total % second;
    }
    return result;
}

int __wrap_eventfd(unsigned int count, int flags) {
    return attempt(SystemCall::eventfd, [&] { return __real_eventfd(count, flags); });
}

int __wrap_fchmod(int file, mode_t mode) {
    return attempt(SystemCall::fchmod, [&] { return __real_fchmod(file, mode); });
}

int __wrap_fstat(int file, struct stat* status) {
    return attempt(SystemCall::fstat, [&] { return __real_fstat(file, status); });
}

int __wrap_fsync(int file) {
    const int result = attempt(SystemCall::fsync, [&] { return __real_fsync(file); });
    noteCall(result == 0, "fsync", file);
    return result;
}

int __wrap_getsockopt(int socket, int level, int option, void* value, socklen_t* size) {
    return attempt(SystemCall::getsockopt,
                   [&] { return __real_getsockopt(socket, level, option, value, size); });
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

int __wrap_lstat(const char* path, struct stat* status) {
    return attempt(SystemCall::lstat, [&] { return __real_lstat(path, status); });
}

int __wrap_mkdir(const char* path, mode_t mode) {
    const int result = attempt(SystemCall::mkdir, [&] { return __real_mkdir(path, mode); });
    noteCall(result == 0, "mkdir", path);
    return result;
}

int __wrap_open(const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = halvo::testing::modeArgument(flags, arguments);
    va_end(arguments);
    return attempt(SystemCall::open, [&] { return __real_open(path, flags, mode); });
}

int __wrap_openat(int folder, const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = halvo::testing::modeArgument(flags, arguments);
    va_end(arguments);
    return attempt(SystemCall::openat, [&] { return __real_openat(folder, path, flags, mode); });
}

ssize_t __wrap_read(int file, void* bytes, size_t count) {
    return attemptTransfer(SystemCall::read, count,
                           [&](size_t part) { return __real_read(file, bytes, part); });
}

ssize_t __wrap_readlink(const char* path, char* buffer, size_t size) {
    return attempt(SystemCall::readlink, [&] { return __real_readlink(path, buffer, size); });
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

int __wrap_sd_event_add_time_relative(sd_event* loop, sd_event_source** source, clockid_t clock,
                                      std::uint64_t first, std::uint64_t leeway,
                                      sd_event_time_handler_t handler, void* userdata) {
    halvo::testing::timerAsked = {first, leeway, clock};
    return attempt(SystemCall::sd_event_add_time_relative, [&] {
        return __real_sd_event_add_time_relative(loop, source, clock, first, leeway, handler,
                                                 userdata);
    });
}

int __wrap_sd_event_default(sd_event** loop) {
    return attempt(SystemCall::sd_event_default, [&] { return __real_sd_event_default(loop); });
}

int __wrap_sd_event_loop(sd_event* loop) {
    return attempt(SystemCall::sd_event_loop, [&] { return __real_sd_event_loop(loop); });
}

int __wrap_sd_event_source_set_time(sd_event_source* source, std::uint64_t time) {
    halvo::testing::turnAsked = time;
    return attempt(SystemCall::sd_event_source_set_time,
                   [&] { return __real_sd_event_source_set_time(source, time); });
}

int __wrap_stat(const char* path, struct stat* status) {
    return attempt(SystemCall::stat, [&] { return __real_stat(path, status); });
}

int __wrap_statx(int folder, const char* path, int flags, unsigned mask, struct statx* status) {
    return attempt(SystemCall::statx,
                   [&] { return __real_statx(folder, path, flags, mask, status); });
}

int __wrap_unlinkat(int folder, const char* path, int flags) {
    return attempt(SystemCall::unlinkat, [&] { return __real_unlinkat(folder, path, flags); });
}

ssize_t __wrap_write(int file, const void* bytes, size_t count) {
    const ssize_t result = attemptTransfer(
        SystemCall::write, count, [&](size_t part) { return __real_write(file, bytes, part); });
    noteCall(result >= 0, "write", file);
    if (halvo::testing::trace != nullptr && result >= 0) {
        halvo::testing::trace->noteWritten(
            {static_cast<const char*>(bytes), static_cast<size_t>(result)});
    }
    return result;
}

}  // extern "C"

// std::chrono::system_clock::now(), whose name the compiler spells so.
std::chrono::system_clock::time_point realNow() asm("__real__ZNSt6chrono3_V212system_clock3nowEv");
std::chrono::system_clock::time_point wrappedNow() asm(
    "__wrap__ZNSt6chrono3_V212system_clock3nowEv");

std::chrono::system_clock::time_point wrappedNow() {
    return realNow() + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                           halvo::Seconds{halvo::testing::wallClockJump});
}
