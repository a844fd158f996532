// The helper's second, short-lived mode: opens the app as a user.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace halvo::OpenAsUser {

// The word that selects the mode, the one that marks an opening after a quit, and the one that
// leaves the user's own systemd manager out of it (on macOS it changes nothing).
inline constexpr const char* modeWord = "--open-as-user";
inline constexpr const char* afterQuitWord = "--after-quit";
inline constexpr const char* directlyWord = "--directly";

// What the mode was asked to do.
struct Request {
    std::uint32_t uid{};
    std::string appPath;
    bool afterQuit{};
    bool directly{};

    bool operator==(const Request&) const = default;
};

// `command` and the words after the helper's path that ask for `request`.
std::vector<std::string> withWords(std::vector<std::string> command, const Request& request);

// The request in the words that follow the mode's; nothing when there are too few, the user is not
// a decimal number of 32 bits (one "+" in front allowed) or is root, or the path is no bundle path.
std::optional<Request> parse(std::span<const std::string> words);

// The program that the mode becomes.
struct Command {
    // The first is the path of the program. Those that tell the app why it is opened follow.
    std::vector<std::string> arguments;
    // As "NAME=value", besides HOME, USER, LOGNAME and PATH.
    std::vector<std::string> environment;
    // After so many seconds SIGALRM ends it (alarm(2), which survives execve(2)); 0: never.
    unsigned secondsAtMost{};
};

// What the mode becomes once it is the user of `request`. One source per system, LiveOpener: on
// macOS open(1). On Linux, when the user's own systemd manager answers within two seconds and the
// request does not leave it out, systemd-run(1), for half a minute at most, by which that manager
// runs the app inside the session; else the app's executable.
Command commandFor(const Request& request);

// Runs the mode with the words that follow its own. Ends in execve(2) or exit(3), without a word in
// the log: 64 (sysexits.h) for bad words or an unknown user, 77 when the privileges cannot be
// dropped for good, 71 when the program cannot be run.
[[noreturn]] void run(std::span<const std::string> words);

}  // namespace halvo::OpenAsUser
