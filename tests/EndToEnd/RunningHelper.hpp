// A helper that runs, what can be seen of it from outside, and how to follow it from system call to
// system call.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/EndToEnd/World.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {

// The helper, installed where the world has it. At the end it is asked to stop, and a test fails
// whose helper did not do so properly, or said anything that is not a line of its log.
class RunningHelper {
  public:
    // Returns when it serves or has ended, or is stopped. The words of `start` are what follows the
    // program's path.
    explicit RunningHelper(const Start& start = {});
    ~RunningHelper();
    RunningHelper(const RunningHelper&) = delete;
    RunningHelper& operator=(const RunningHelper&) = delete;

    [[nodiscard]] TestProcess& process() { return process_; }

    [[nodiscard]] const TestProcess& process() const { return process_; }

    bool isRunning() { return process_.isRunning(); }

    // SIGTERM; the exit status.
    int terminate();

    // SIGKILL.
    void kill() { process_.kill(); }

    // The exit status of one that ends by itself.
    int wait(Seconds limit = Seconds{10}) { return process_.wait(limit); }

    // The lines of the log after the one that it has started, of errors with "error: " before the
    // message.
    [[nodiscard]] std::vector<std::string> log() const;

    // How many lines of the log are exactly `line`, or begin with it when it ends in "*".
    [[nodiscard]] std::ptrdiff_t count(const std::string& line) const;

    // Whether such a line is in the log, or comes before `limit` has passed.
    [[nodiscard]] bool says(const std::string& line, Seconds limit = Seconds{5}) const;

    // How many it has open.
    [[nodiscard]] std::size_t descriptors() const;

  private:
    TestProcess process_;
};

// Whether the process, which runs the helper's program, serves: the helper takes SIGTERM into its
// own hands as the last thing before its timer.
bool serves(pid_t helper);

// Whether the helper was built with a sanitizer, which takes memory of its own.
constexpr bool isSanitized = HALVO_IS_SANITIZED;

// Traces a running process, which then stops at each system call that it is about to make. Only
// system calls change what others see, so what holds at each of them holds at every moment.
class Stepper {
  public:
    // A process that was started stopped goes on.
    explicit Stepper(TestProcess& process);

    // Lets it go on until right before its system call number `count`, counted from the next one,
    // or from the next that has the number `first` (SYS_*). False when `isOver`, or the process has
    // ended, before there are so many; true when it waits there, until the next call or leave().
    bool goTo(int count, std::optional<long> first, const std::function<bool()>& isOver);

    // Lets it go on untraced.
    void leave();

  private:
    [[nodiscard]] std::optional<long> enteredCall() const;

    TestProcess& process_;
    // At a system call that goTo() was asked for.
    bool waits_ = false;
};

}  // namespace halvo::testing
