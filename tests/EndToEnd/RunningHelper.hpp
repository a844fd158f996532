// A running helper, observed from outside, and a tracer that stops it at its system calls.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/EndToEnd/World.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {

// The installed helper as a child process. The destructor sends SIGTERM; the test fails when the
// exit status is neither 0 nor 75, or when the helper printed anything but lines of its log.
class RunningHelper {
  public:
    // Returns once it serves, has exited or, with `options.stopped`, is stopped. `options.words`
    // follow the program's path.
    explicit RunningHelper(const ProcessOptions& options = {});
    ~RunningHelper();
    RunningHelper(const RunningHelper&) = delete;
    RunningHelper& operator=(const RunningHelper&) = delete;

    [[nodiscard]] TestProcess& process() { return process_; }

    bool isRunning() { return process_.isRunning(); }

    // SIGTERM; the exit status.
    int terminate();

    // SIGKILL.
    void kill() { process_.kill(); }

    // Waits for an exit without a signal; the exit status.
    int wait(Seconds limit = Seconds{10}) { return process_.wait(limit); }

    // The lines of the log except the start message; those of errors begin with "error: ".".
    [[nodiscard]] std::vector<std::string> log() const;

    // The number of log lines that equal `line`, or begin with it when it ends in "*".
    [[nodiscard]] std::ptrdiff_t count(const std::string& line) const;

    // Waits up to `limit` for such a line; whether there is one.
    [[nodiscard]] bool says(const std::string& line, Seconds limit = Seconds{5}) const;

    // The number of its open descriptors.
    [[nodiscard]] std::size_t descriptors() const;

  private:
    TestProcess process_;
};

// Whether the process, which runs the helper's program, serves: blocking SIGTERM is the helper's
// last step before it starts its timer.
bool serves(pid_t helper);

// Begins a commitment of ten minutes and kills its helper, which leaves the app locked.
void leaveCommitment(const World& world);

// Whether the helper was built with a sanitizer, which needs extra memory.
constexpr bool isSanitized = HALVO_IS_SANITIZED;

// Traces a process with ptrace(2) and stops it right before its system calls. Only these change
// what other processes see, so what holds at each of them holds at every moment.
class Stepper {
  public:
    // Continues a process that was started stopped.
    explicit Stepper(TestProcess& process);

    // Continues it until right before the `count`th of the system calls that other processes can
    // notice, counted from the next one, or from the next call with the number `first` (SYS_*).
    // True when it is stopped there, until the next goTo() or leave(); false when `isOver` holds or
    // the process ends before that.
    bool goTo(int count, std::optional<long> first, const std::function<bool()>& isOver);

    // Detaches; the process continues.
    void leave();

  private:
    [[nodiscard]] std::optional<long> enteredCall() const;

    TestProcess& process_;
    // Stopped by goTo().
    bool waits_ = false;
};

}  // namespace halvo::testing
