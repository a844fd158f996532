// What the command-line programs have in common.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}  // namespace CLI

namespace halvo::tools {

// Those of sysexits(3), but for `problem`.
namespace ExitStatus {

inline constexpr int fine = 0;
// What was looked at is not what it should be.
inline constexpr int problem = 1;
inline constexpr int usage = 64;
// The system refused, or something did not end in time.
inline constexpr int system = 71;
inline constexpr int outputLost = 74;
inline constexpr int noPermission = 77;
// The helper's own Info.plist is missing or wrong.
inline constexpr int config = 78;

}  // namespace ExitStatus

// How a program ends.
struct Outcome {
    int status = ExitStatus::fine;
    // For standard output and standard error: nothing, or whole lines. UTF-8, and nothing in it
    // that a terminal obeys.
    std::string output;
    std::string errors;

    bool operator==(const Outcome&) const = default;
};

// Hands `parser` the arguments `words`, which may give an empty value either way ("--style=" or
// "--style ''"); its callbacks run. Returns how the program ends when a text was asked for (--help,
// --version) or after a usage error, which names the first unknown command or option if there is
// one; else nothing. Any thread. Throws what the callbacks throw but CLI::ParseError.
std::optional<Outcome> parse(CLI::App& parser, const std::vector<std::string>& words);

// The main() of the program `name`: calls `run` with the arguments, writes the outcome, and returns
// the exit status: `outputLost` when it could not be written, `system` when memory ran out. SIGPIPE
// is ignored from then on.
int runProgram(const std::string& name, int count, char** arguments,
               const std::function<Outcome(const std::vector<std::string>&)>& run);

}  // namespace halvo::tools
