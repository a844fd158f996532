// The helper's second, short-lived mode: opens the app as a user, and its other half, which starts
// it.
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

// Exit statuses (sysexits.h).
inline constexpr int exitUsage = 64;
inline constexpr int exitCannotExecute = 71;
inline constexpr int exitNoPermission = 77;

// A program to run: its path, its arguments (the first is its own name) and its environment, and
// what it may take: after so many seconds SIGALRM ends it (alarm(2), which survives execve(2)); 0
// means for as long as it likes.
struct Command {
    std::string path;
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
    unsigned secondsAtMost{};

    bool operator==(const Command&) const = default;
};

// What the mode was asked to do.
struct Request {
    std::uint32_t uid{};
    std::string appPath;
    bool afterQuit{};
    bool directly{};

    bool operator==(const Request&) const = default;
};

// A user as the password file has it.
struct User {
    std::uint32_t uid{};
    std::uint32_t gid{};
    std::string name;
    std::string home;
};

// `command` and the words after the helper's path that ask for `request`.
std::vector<std::string> withWords(std::vector<std::string> command, const Request& request);

// The request in the words that follow the mode's; nothing when there are too few, the user is not
// a decimal number of 32 bits (one "+" in front allowed) or is root, or the path is no bundle path.
std::optional<Request> parse(std::span<const std::string> words);

// The user id in `word` by the rule above, root included.
std::optional<std::uint32_t> parseUserID(const std::string& word);

// `command` and the arguments that tell the app why it is opened; none but after a quit.
std::vector<std::string> withAppArguments(std::vector<std::string> command, bool afterQuit);

// The environment of what is run as `user`: HOME, USER, LOGNAME and PATH, in this order.
std::vector<std::string> environment(const User& user);

// The system calls of the privilege drop, which tests replace. Each of the first three returns
// whether it succeeded; setgid(2), initgroups(3), setuid(2), getuid(2), geteuid(2), getgid(2).
class Privileges {
  public:
    virtual ~Privileges() = default;
    virtual bool setGroup(std::uint32_t gid);
    virtual bool setSupplementaryGroups(const std::string& name, std::uint32_t gid);
    virtual bool setUser(std::uint32_t uid);
    virtual std::uint32_t realUser();
    virtual std::uint32_t effectiveUser();
    virtual std::uint32_t realGroup();
};

// Becomes `user` for good, and proves it: the groups go first, because only root may set them; then
// the identities are read back; then becoming root again must fail. False at the first thing that
// is not as it must be.
bool dropPrivileges(Privileges& privileges, const User& user);

// What the mode becomes once it is `user`. One per system: on macOS open(1); on Linux
// (Linux/OpenAsUser.hpp), but for a request that is for the direct way, it depends on whether the
// user's own systemd manager answers within two seconds.
Command commandFor(const Request& request, const User& user);

// Runs the mode with the words that follow its own. Ends in execve(2) or exit(3), without a word in
// the log: 64 for bad words or an unknown user, 77 when the privileges cannot be dropped for good,
// 71 when the program cannot be run.
[[noreturn]] void run(std::span<const std::string> words);

}  // namespace halvo::OpenAsUser
