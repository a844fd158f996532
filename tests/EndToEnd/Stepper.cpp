#include "tests/EndToEnd/Stepper.hpp"

#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>

#include <csignal>

namespace halvo::testing {

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
        // Signals are handed on; stops that ptrace(2) makes are not signals.
        int signal = status >> eventShift == PTRACE_EVENT_STOP ? 0 : WSTOPSIG(status);
        if (signal == systemCall) {
            signal = 0;
            const auto entered = enteredCall();
            if (entered && (seen > 0 || !first || *entered == *first)) {
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

// The number of the system call that it is about to make; nothing when it comes back from one.
std::optional<long> Stepper::enteredCall() const {
    __ptrace_syscall_info info{};
    EXPECT_GT(ptrace(PTRACE_GET_SYSCALL_INFO, process_.pid(), sizeof info, &info), 0);
    return info.op == PTRACE_SYSCALL_INFO_ENTRY ? std::optional(static_cast<long>(info.entry.nr))
                                                : std::nullopt;
}

}  // namespace halvo::testing
