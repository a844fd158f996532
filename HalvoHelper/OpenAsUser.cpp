#include "HalvoHelper/OpenAsUser.hpp"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <utility>

#include "HalvoHelper/CStrings.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Fatal.hpp"
#include "HalvoShared/LaunchReason.hpp"

namespace halvo::OpenAsUser {
namespace {

void append(std::vector<std::string>& list, const std::vector<std::string>& more) {
    list.insert(list.end(), more.begin(), more.end());
}

// A systemd manager expands "$" in what it is told to run (systemd.service(5)); twice it is one.
// Not so in the first word: there systemd-run(1) looks for that very file.
std::string withoutExpansion(const std::string& argument) {
    std::string result;
    for (const char character : argument) {
        result += character;
        if (character == '$') {
            result += character;
        }
    }
    return result;
}

// `text` with all but ASCII letters and digits, which are safe in a unit's name, as "_".
std::string unitName(const std::string& text) {
    std::string result = text;
    for (char& c : result) {
        const bool safe =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.';
        c = safe ? c : '_';
    }
    return result;
}

// A manager that answers may still leave what asks it to start the app waiting for ever; the next
// opening that is for it comes after 30 seconds. What it was asked to start stays.
constexpr unsigned managerSecondsAtMost = 30;

// initgroups(3), whose group is an int on macOS and a gid_t elsewhere.
template <class Group>
bool setGroupsOf(int (*call)(const char*, Group), const std::string& name, std::uint32_t gid) {
    return call(name.c_str(), static_cast<Group>(gid)) == 0;
}

class ProcessPrivileges final : public Privileges {
  public:
    bool setGroup(std::uint32_t gid) override { return setgid(gid) == 0; }

    bool setSupplementaryGroups(const std::string& name, std::uint32_t gid) override {
        return setGroupsOf(initgroups, name, gid);
    }

    bool setUser(std::uint32_t uid) override { return setuid(uid) == 0; }

    std::uint32_t realUser() override { return getuid(); }

    std::uint32_t effectiveUser() override { return geteuid(); }

    std::uint32_t realGroup() override { return getgid(); }
};

std::optional<User> lookUp(std::uint32_t uid) {
    // Single-threaded: the shared buffer of getpwuid(3) is ours alone.
    const passwd* entry = getpwuid(uid);
    if (entry == nullptr) {
        return std::nullopt;
    }
    if (entry->pw_name == nullptr || entry->pw_dir == nullptr) {
        fatal("A user without a name or a home directory");
    }
    return User{uid, entry->pw_gid, entry->pw_name, entry->pw_dir};
}

}  // namespace

std::vector<std::string> words(const Request& request) {
    std::vector<std::string> list{modeWord, std::to_string(request.uid), request.appPath};
    if (request.afterQuit) {
        list.emplace_back(afterQuitWord);
    }
    if (request.directly) {
        list.emplace_back(directlyWord);
    }
    return list;
}

std::optional<std::uint32_t> parseUserID(const std::string& word) {
    const char* first = word.data() + (word.starts_with('+') ? 1 : 0);
    const char* last = word.data() + word.size();
    std::uint32_t uid = 0;
    const auto [end, error] = std::from_chars(first, last, uid);
    return error == std::errc{} && end == last ? std::optional(uid) : std::nullopt;
}

std::optional<Request> parse(std::span<const std::string> words) {
    if (words.size() < 2) {
        return std::nullopt;
    }
    const auto uid = parseUserID(words[0]);
    if (!uid || *uid == 0 || !AppLocation::isBundlePath(words[1])) {
        return std::nullopt;
    }
    Request request{*uid, words[1]};
    for (const std::string& word : words.subspan(2)) {
        request.afterQuit = request.afterQuit || word == afterQuitWord;
        request.directly = request.directly || word == directlyWord;
    }
    return request;
}

std::vector<std::string> appArguments(bool afterQuit) {
    return afterQuit ? std::vector<std::string>{LaunchReason::relaunchArgument, "YES"}
                     : std::vector<std::string>{};
}

std::vector<std::string> environment(const User& user) {
    return {"HOME=" + user.home, "USER=" + user.name, "LOGNAME=" + user.name,
            "PATH=/usr/bin:/bin:/usr/sbin:/sbin"};
}

Command launchctlCommand(const std::string& helperExecutable, const Request& request) {
    Command command{"/bin/launchctl",
                    {"/bin/launchctl", "asuser", std::to_string(request.uid), helperExecutable},
                    {}};
    append(command.arguments, words(request));
    return command;
}

Command openCommand(const Request& request, const User& user) {
    Command command{
        "/usr/bin/open", {"/usr/bin/open", "-g", "-a", request.appPath}, environment(user)};
    if (request.afterQuit) {
        command.arguments.emplace_back("--args");
        append(command.arguments, appArguments(true));
    }
    return command;
}

Command systemCommand(const std::string& helperExecutable, const Request& request,
                      const std::string& unitSuffix) {
    // Not in the person's slice, whose limits they can use up so that nothing more starts.
    Command command{
        "/usr/bin/systemd-run",
        {"/usr/bin/systemd-run", "--quiet", "--collect", "--no-ask-password",
         "--description=Opens the app for user " + std::to_string(request.uid),
         "--unit=halvo-open-" + unitName(unitSuffix) + ".service",
         // The app may fork and end its first process without being counted as gone.
         "--property=ExitType=cgroup",
         // The app starts with signals as the kernel has them, not as systemd likes.
         "--property=IgnoreSIGPIPE=no",
         // An app that is run here is out of reach of the limits of the person's slice, and
         // has these: many times what an app takes, and no more than the machine bears.
         // Not by number of processes of the user (RLIMIT_NPROC), which that user's
         // other programs can use up.
         "--property=TasksMax=4096", "--property=MemoryMax=50%", "--", helperExecutable},
        {}};
    for (const std::string& word : words(request)) {
        command.arguments.push_back(withoutExpansion(word));
    }
    return command;
}

Command helperCommand(const std::string& helperExecutable, const Request& request) {
    Command command{helperExecutable, {helperExecutable}, {}};
    append(command.arguments, words(request));
    return command;
}

Command managerCommand(const Request& request, const User& user, const std::string& executable,
                       const std::string& appID, const std::string& unitSuffix) {
    Command command{
        "/usr/bin/systemd-run",
        {"/usr/bin/systemd-run", "--user", "--quiet", "--collect",
         // The start fails when the executable cannot be run, instead of later.
         "--service-type=exec", "--slice=app.slice",
         // The app may fork and end its first process without being counted as gone.
         "--property=ExitType=cgroup",
         "--unit=app-halvo-" + unitName(appID) + "@" + unitName(unitSuffix) + ".service", "--",
         executable},
        environment(user),
        managerSecondsAtMost};
    // Where the manager's socket is: systemd-run(1), environment.
    command.environment.push_back("XDG_RUNTIME_DIR=/run/user/" + std::to_string(user.uid));
    append(command.arguments, appArguments(request.afterQuit));
    return command;
}

Command directCommand(const Request& request, const User& user, const std::string& executable) {
    Command command{executable, {executable}, environment(user)};
    append(command.arguments, appArguments(request.afterQuit));
    return command;
}

bool dropPrivileges(Privileges& privileges, const User& user) {
    if (!privileges.setGroup(user.gid) || !privileges.setSupplementaryGroups(user.name, user.gid) ||
        !privileges.setUser(user.uid)) {
        return false;
    }
    if (privileges.realUser() != user.uid || privileges.effectiveUser() != user.uid ||
        privileges.realGroup() != user.gid) {
        return false;
    }
    return !privileges.setUser(0);
}

void run(std::span<const std::string> words) {
    const auto request = parse(words);
    if (!request) {
        std::exit(exitUsage);
    }
    const auto user = lookUp(request->uid);
    if (!user) {
        std::exit(exitUsage);
    }
    ProcessPrivileges privileges;
    if (!dropPrivileges(privileges, *user)) {
        std::exit(exitNoPermission);
    }
    const Command command = commandFor(*request, *user);
    // Where the program is the app itself, its files are made as in any other session of the
    // person.
    constexpr mode_t usual = 022;
    umask(usual);
    const CStrings arguments(command.arguments);
    const CStrings environment(command.environment);
    alarm(command.secondsAtMost);
    execve(command.path.c_str(), arguments.data(), environment.data());
    std::exit(exitCannotExecute);
}

}  // namespace halvo::OpenAsUser
