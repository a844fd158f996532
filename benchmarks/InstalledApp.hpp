// The app, as an installer would leave it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "benchmarks/Child.hpp"

namespace halvo::benchmark {

// Where the benchmark's programs and its one folder on a disk are.
struct Places {
    std::string helper;
    std::string programs;
    std::string disk;
};

// StatusClient as the app that the helper admits, in /Applications of the private machine. It stays
// there; the machine goes.
class InstalledApp {
  public:
    // Throws outside a private machine.
    explicit InstalledApp(const Places& places);

    [[nodiscard]] std::string bundle() const { return "/Applications/Halvo.app"; }

    [[nodiscard]] std::string executable() const { return bundle() + "/Contents/MacOS/Halvo"; }

    // Who sits at the screen.
    [[nodiscard]] std::uint32_t person() const { return person_; }

    // Starts it as that person, on one processor if given. It takes orders; see StatusClient.cpp.
    [[nodiscard]] std::unique_ptr<Child> start(std::optional<int> processor = {}) const;

  private:
    std::uint32_t person_;
};

}  // namespace halvo::benchmark
