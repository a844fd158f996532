// How the program ends.
#pragma once

#include <string>

namespace halvo::control {

// Those of sysexits(3), but for `problem`.
namespace ExitStatus {

inline constexpr int fine = 0;
// doctor found a problem.
inline constexpr int problem = 1;
inline constexpr int wrongWords = 64;
// The system refused, or something did not end in time.
inline constexpr int system = 71;
inline constexpr int outputLost = 74;
inline constexpr int noPermission = 77;
// The helper's own Info.plist is missing or wrong.
inline constexpr int config = 78;

}  // namespace ExitStatus

struct Outcome {
    int status = ExitStatus::fine;
    // For standard output and standard error: nothing, or whole lines. UTF-8, and nothing in it
    // that a terminal obeys.
    std::string output;
    std::string errors;

    bool operator==(const Outcome&) const = default;
};

}  // namespace halvo::control
