// Following a program from system call to system call.
#pragma once

#include <functional>
#include <optional>

#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {

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
