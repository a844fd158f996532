// The command line, output and exit status of the command-line programs.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}  // namespace CLI

namespace halvo::tools {

// As in <sysexits.h>, except for `problem`.
namespace ExitStatus {

inline constexpr int fine = 0;
// A check failed.
inline constexpr int problem = 1;
inline constexpr int usage = 64;
// The system refused, or an operation took too long.
inline constexpr int system = 71;
inline constexpr int outputLost = 74;
inline constexpr int noPermission = 77;
// The helper's Info.plist is missing or invalid.
inline constexpr int config = 78;

}  // namespace ExitStatus

// The result of a program.
struct Outcome {
    int status = ExitStatus::fine;
    // For standard output and standard error: whole lines of UTF-8 without other control
    // characters.
    std::string output;
    std::string errors;

    bool operator==(const Outcome&) const = default;
};

// Parses the arguments `words` with `parser`, whose callbacks run. An empty value may be written
// either way ("--style=" or "--style ''"). Returns the outcome of --help and --version, or of a
// usage error, which names the first unknown command or option if there is one; otherwise nothing.
// Throws what the callbacks throw, except for CLI::ParseError. Any thread.
std::optional<Outcome> parse(CLI::App& parser, const std::vector<std::string>& words);

// The main() of the program `name`: ignores SIGPIPE, calls `run` with the arguments, and writes the
// outcome. Returns its exit status, `outputLost` if it could not be written, or `system` if `run`
// threw.
int runProgram(const std::string& name, int count, char** arguments,
               const std::function<Outcome(const std::vector<std::string>&)>& run);

}  // namespace halvo::tools
