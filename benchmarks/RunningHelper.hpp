// The real helper's process.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "benchmarks/Child.hpp"
#include "benchmarks/InstalledApp.hpp"

namespace halvo::benchmark {

// Starts HalvoHelper, and ends it as the system would (SIGTERM).
class RunningHelper {
  public:
    explicit RunningHelper(const Places& places, std::optional<int> processor = {});
    // By way of `launcher`, a command that becomes the program that its last word names.
    RunningHelper(const Places& places, std::vector<std::string> launcher);
    RunningHelper(const RunningHelper&) = delete;
    RunningHelper& operator=(const RunningHelper&) = delete;
    ~RunningHelper();

    // Where it serves, some time after its start.
    static std::string socket();

    [[nodiscard]] const Child& process() const { return process_; }

  private:
    Child process_;
};

}  // namespace halvo::benchmark
