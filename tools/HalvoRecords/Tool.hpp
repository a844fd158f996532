// What the program does, apart from the process that it runs in.
#pragma once

#include <istream>
#include <span>
#include <string>

#include "HalvoPlatform/Time.hpp"

namespace halvo::records {

namespace ExitStatus {

inline constexpr int fine = 0;
// A file is not what it should be.
inline constexpr int notFine = 1;
// Those of sysexits(3): a usage error, and output that could not be written.
inline constexpr int usageError = 64;
inline constexpr int outputLost = 74;

}  // namespace ExitStatus

// How the program ends and what it says until then.
struct Outcome {
    int status = ExitStatus::fine;
    // For standard output and standard error: nothing, or whole lines. UTF-8, and whatever files
    // and words hold, nothing in it that a terminal obeys.
    std::string output;
    std::string errors;

    bool operator==(const Outcome&) const = default;
};

// Does what `words`, those after the program's own name, ask for at the date `now`; reads `input`
// where they name standard input. Writes to no file, but the folder of an app group is made when it
// is asked for and missing. Any thread, as long as no other changes the environment (getenv(3)).
// Throws std::bad_alloc alone.
Outcome run(std::span<const std::string> words, std::istream& input, WallDate now);

}  // namespace halvo::records
