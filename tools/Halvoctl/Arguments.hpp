// The words of a command line.
#pragma once

#include <expected>
#include <optional>
#include <span>
#include <string>
#include <variant>

namespace halvo::control {

extern const char* const helpText;
extern const char* const statusHelpText;
extern const char* const doctorHelpText;
extern const char* const releaseHelpText;

struct ShowHelp {
    const char* text;

    bool operator==(const ShowHelp&) const = default;
};

struct ShowVersion {
    bool operator==(const ShowVersion&) const = default;
};

struct ShowStatus {
    bool asJSON{};

    bool operator==(const ShowStatus&) const = default;
};

struct Examine {
    bool asJSON{};
    std::optional<std::string> app;

    bool operator==(const Examine&) const = default;
};

struct Release {
    // The bundle that is not at its place is gone for good, and no lock with it is left.
    bool isBundleGone{};
    // The helper stays stopped, and the app cannot call it.
    bool staysStopped{};

    bool operator==(const Release&) const = default;
};

using Command = std::variant<ShowHelp, ShowVersion, ShowStatus, Examine, Release>;

// The command that the words after the program's own name ask for; or what is wrong with them, as a
// sentence.
std::expected<Command, std::string> parseArguments(std::span<const std::string> words);

}  // namespace halvo::control
