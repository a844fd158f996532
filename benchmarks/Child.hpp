// A program that a benchmark starts, and ends.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HalvoPlatform/Descriptor.hpp"

namespace halvo::benchmark {

// CLOCK_MONOTONIC in nanoseconds, the same in every process of the machine.
std::int64_t monotonicNow();

// The processor number `index` of those that this process may use, or nothing when there are fewer.
std::optional<int> processor(int index);

// Binds the process `pid` (0: this one) to one processor. False when the system refuses.
bool pin(pid_t pid, int processor);

// Where the programs' standard error goes.
inline constexpr const char* errorLog = "/tmp/errors.log";

// A running program. Killed, if it still runs, and waited for at the end.
class Child {
  public:
    struct How {
        // The program's path and its arguments.
        std::vector<std::string> words;
        // Whom it runs as; without, as whoever runs this process.
        std::optional<std::uint32_t> user;
        // The one processor that it may use.
        std::optional<int> processor;
    };

    // Starts it, with its standard input and output connected to here.
    explicit Child(const How& how);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();

    [[nodiscard]] pid_t pid() const { return pid_; }

    // When it was about to become its program, on the clock of monotonicNow(). To be asked once the
    // program has answered.
    [[nodiscard]] std::int64_t startedAt() const { return *startedAt_; }

    // Sends `line` to its standard input.
    void tell(const std::string& line);

    // The next line of its standard output. One that is not there within half a minute cannot be
    // measured, and throws.
    std::string hear();

    // Waits for its end. Gives its exit status, or -1 when a signal ended it.
    int wait();

    // Sends it `signal`, and waits.
    int end(int signal);

  private:
    pid_t pid_ = -1;
    // Memory that the child shares.
    std::int64_t* startedAt_;
    std::string name_;
    Descriptor input_;
    Descriptor output_;
    std::string heard_;
};

}  // namespace halvo::benchmark
