// The helper's second, short-lived mode: opens the app as a user.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace halvo::OpenAsUser {

// The options: the one that selects the mode, the one that marks an opening after a quit, and the
// one that bypasses the user's own systemd manager (without effect on macOS).
inline constexpr const char* modeWord = "--open-as-user";
inline constexpr const char* afterQuitWord = "--after-quit";
inline constexpr const char* directlyWord = "--directly";

// What the mode has to do.
struct Request {
    std::uint32_t uid{};
    std::string appPath;
    bool afterQuit{};
    bool directly{};

    bool operator==(const Request&) const = default;
};

// `command` followed by the arguments of the mode for `request`.
std::vector<std::string> withWords(std::vector<std::string> command, const Request& request);

// The request in `words`, the arguments behind modeWord. Nothing when there are too few, the user
// is not a decimal number of 32 bits (one leading "+" allowed) or is root, or the path is no bundle
// path.
std::optional<Request> parse(std::span<const std::string> words);

// The program that the mode becomes.
struct Command {
    // The first is the path of the program. run() appends those that tell the app why it is opened.
    std::vector<std::string> arguments;
    // As "NAME=value", besides HOME, USER, LOGNAME and PATH.
    std::vector<std::string> environment;
    // After so many seconds SIGALRM ends it (alarm(2), which survives execve(2)); 0: never.
    unsigned secondsAtMost{};
};

// The program that the mode executes once it is the user of `request`. On macOS open(1). On Linux,
// when the user's own systemd manager replies within two seconds and the request does not bypass
// it, systemd-run(1), for half a minute at most, by which that manager runs the app inside the
// session; else the app's executable. One source per system, LiveOpener.
Command commandFor(const Request& request);

// Runs the mode with `words`, the arguments behind modeWord. Ends in execve(2) or exit(3), and logs
// nothing: 64 (sysexits.h) for a usage error or an unknown user, 77 when the privileges cannot be
// dropped for good, 71 when the program cannot be executed. A user without a name or home directory
// is fatal (Fatal.hpp).
[[noreturn]] void run(std::span<const std::string> words);

}  // namespace halvo::OpenAsUser
