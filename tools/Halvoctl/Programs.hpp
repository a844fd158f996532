// Programs of the system that are asked, and waited for no longer than can be borne.
#pragma once

#include <expected>
#include <functional>
#include <string>
#include <vector>

#include "HalvoPlatform/Time.hpp"

namespace halvo::control {

// How long something may take, and what to say meanwhile.
struct Patience {
    Seconds limit{};
    // Called once, when it has taken a second. May be empty.
    std::function<void()> slow;
};

// How a program ended, and what it wrote to its standard output and standard error.
struct Finished {
    // The exit status, or 128 and the number of the signal that ended it, as shells have it.
    int status{};
    // At most 64 KiB; what comes after that is dropped.
    std::string output;

    bool operator==(const Finished&) const = default;
};

class Programs {
  public:
    virtual ~Programs() = default;

    // Runs the program at the absolute path `words[0]` with all of `words` as its arguments, and
    // waits for its end. Fails, with a sentence without a full stop that names the program, when it
    // cannot be started or takes longer than `patience` allows; it is killed then.
    virtual std::expected<Finished, std::string> run(const std::vector<std::string>& words,
                                                     const Patience& patience) = 0;
};

// The system's own. The program gets an empty environment but for PATH and LC_ALL=C, nothing to
// read, the usual signals, and a process group of its own: what is typed at the terminal does not
// reach it, and what it has started is killed with it. One thread at a time.
class LivePrograms final : public Programs {
  public:
    std::expected<Finished, std::string> run(const std::vector<std::string>& words,
                                             const Patience& patience) override;
};

}  // namespace halvo::control
