#include "tests/EndToEnd/RunningHelper.hpp"

#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string_view>

#include "HalvoPlatform/Version.hpp"

namespace halvo::testing {
namespace {

constexpr std::string_view logPrefix = "app.halvo Helper: ";

ProcessOptions ofHelper(ProcessOptions options) {
    options.words.insert(options.words.begin(), Place::helper);
    return options;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// Whether other processes can notice the system call, or nothing is known of it. What they see
// right before one that they cannot is what they see right before the next that they can.
bool isNoticed(long call) {
    constexpr std::array unnoticed{
        SYS_brk,        SYS_clock_gettime, SYS_epoll_ctl,      SYS_fstat,      SYS_futex,
        SYS_getdents64, SYS_getpid,        SYS_getrandom,      SYS_getsockopt, SYS_gettid,
        SYS_lseek,      SYS_madvise,       SYS_mmap,           SYS_mprotect,   SYS_munmap,
        SYS_newfstatat, SYS_ppoll,         SYS_pread64,        SYS_read,       SYS_readlinkat,
        SYS_recvmsg,    SYS_rt_sigaction,  SYS_rt_sigprocmask, SYS_statx,      SYS_timerfd_settime};
    return std::ranges::find(unnoticed, call) == unnoticed.end();
}

}  // namespace

bool serves(pid_t helper) {
    constexpr int hexadecimal = 16;
    const auto blocked = processNumbers(helper, "SigBlk", hexadecimal);
    return !blocked.empty() && (blocked.front() >> (SIGTERM - 1U) & 1U) != 0;
}

RunningHelper::RunningHelper(const ProcessOptions& options) : process_(ofHelper(options)) {
    if (options.stopped) {
        return;
    }
    EXPECT_TRUE(eventually([this] { return !isRunning() || serves(process_.pid()); }))
        << "the helper neither serves nor exits: " << process_.output();
}

RunningHelper::~RunningHelper() {
    if (isRunning()) {
        process_.goOn();
        const int status = terminate();
        constexpr int holding = 75;
        EXPECT_TRUE(status == 0 || status == holding) << "the helper's exit status is " << status;
    }
    for (const std::string& line : linesOf(process_.output())) {
        // A sanitizer reports allocations that fail.
        const bool expected =
            isSanitized && line.find("Sanitizer failed to allocate") != std::string::npos;
        EXPECT_TRUE(line.starts_with(logPrefix) || expected) << "the helper printed: " << line;
    }
}

int RunningHelper::terminate() {
    process_.send(SIGTERM);
    return process_.wait();
}

std::vector<std::string> RunningHelper::log() const {
    const std::string started = std::string("Halvo helper ") + version + " started";
    std::vector<std::string> lines;
    for (const std::string& line : linesOf(process_.output())) {
        const bool isOurs = line.starts_with(logPrefix);
        if (isOurs && line.substr(logPrefix.size()) != started) {
            lines.push_back(line.substr(logPrefix.size()));
        }
    }
    return lines;
}

std::ptrdiff_t RunningHelper::count(const std::string& line) const {
    return std::ranges::count_if(log(), [&line](const std::string& said) {
        return line.ends_with('*') ? said.starts_with(line.substr(0, line.size() - 1))
                                   : said == line;
    });
}

bool RunningHelper::says(const std::string& line, Seconds limit) const {
    return eventually(limit, [&] { return count(line) > 0; });
}

std::size_t RunningHelper::descriptors() const {
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(process_.pid()) +
                                                  "/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

void leaveCommitment(const World& world) {
    RunningHelper helper;
    EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
    helper.kill();
    EXPECT_TRUE(isLocked());
}

Stepper::Stepper(TestProcess& process) : process_(process) {
    EXPECT_EQ(ptrace(PTRACE_SEIZE, process.pid(), 0, PTRACE_O_TRACESYSGOOD), 0);
    process.goOn();
    EXPECT_EQ(ptrace(PTRACE_INTERRUPT, process.pid(), 0, 0), 0);
}

bool Stepper::goTo(int count, std::optional<long> first, const std::function<bool()>& isOver) {
    constexpr int systemCall = SIGTRAP | 0x80;
    constexpr int eventShift = 16;
    constexpr Seconds pause{0.00005};
    int seen = 0;
    if (waits_) {
        ptrace(PTRACE_SYSCALL, process_.pid(), 0, 0);
    }
    waits_ = false;
    while (true) {
        int status = 0;
        const pid_t stopped = waitpid(process_.pid(), &status, WNOHANG);
        if (stopped == 0) {
            if (isOver()) {
                return false;
            }
            sleepFor(pause);
            continue;
        }
        if (stopped < 0 || !WIFSTOPPED(status)) {
            process_.noteEnd(status);
            return false;
        }
        // Signals are passed on; ptrace(2)'s own stops are no signals.
        int signal = status >> eventShift == PTRACE_EVENT_STOP ? 0 : WSTOPSIG(status);
        if (signal == systemCall) {
            signal = 0;
            const auto entered = enteredCall();
            if (entered && (seen == 0 && first ? *entered == *first : isNoticed(*entered))) {
                ++seen;
            }
            if (seen == count) {
                waits_ = true;
                return true;
            }
        }
        ptrace(PTRACE_SYSCALL, process_.pid(), 0, signal);
    }
}

void Stepper::leave() { EXPECT_EQ(ptrace(PTRACE_DETACH, process_.pid(), 0, 0), 0); }

// The number of the system call at its entry; nothing at its exit.
std::optional<long> Stepper::enteredCall() const {
    __ptrace_syscall_info info{};
    EXPECT_GT(ptrace(PTRACE_GET_SYSCALL_INFO, process_.pid(), sizeof info, &info), 0);
    return info.op == PTRACE_SYSCALL_INFO_ENTRY ? std::optional(static_cast<long>(info.entry.nr))
                                                : std::nullopt;
}

}  // namespace halvo::testing
