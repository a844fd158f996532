#include "HalvoHelper/OpenAsUser.hpp"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>

#include "HalvoHelper/ArgumentVector.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Fatal.hpp"
#include "HalvoShared/LaunchReason.hpp"

namespace halvo::OpenAsUser {
namespace {

// initgroups(3), whose group is an int on macOS and a gid_t elsewhere.
template <class Group>
bool setGroupsOf(int (*call)(const char*, Group), const std::string& name, std::uint32_t gid) {
    return call(name.c_str(), static_cast<Group>(gid)) == 0;
}

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

bool Privileges::setGroup(std::uint32_t gid) { return setgid(gid) == 0; }

bool Privileges::setSupplementaryGroups(const std::string& name, std::uint32_t gid) {
    return setGroupsOf(initgroups, name, gid);
}

bool Privileges::setUser(std::uint32_t uid) { return setuid(uid) == 0; }

std::uint32_t Privileges::realUser() { return getuid(); }

std::uint32_t Privileges::effectiveUser() { return geteuid(); }

std::uint32_t Privileges::realGroup() { return getgid(); }

std::vector<std::string> withWords(std::vector<std::string> command, const Request& request) {
    command.insert(command.end(), {modeWord, std::to_string(request.uid), request.appPath});
    if (request.afterQuit) {
        command.emplace_back(afterQuitWord);
    }
    if (request.directly) {
        command.emplace_back(directlyWord);
    }
    return command;
}

std::optional<std::uint32_t> parseUserID(const std::string& word) {
    const char* first = word.data() + (word.starts_with('+') ? 1 : 0);
    const char* last = word.data() + word.size();
    std::uint32_t uid = 0;
    const auto [end, error] = std::from_chars(first, last, uid);
    return error == std::errc{} && end == last ? std::optional(uid) : std::nullopt;
}

std::optional<Request> parse(std::span<const std::string> words) {
    const auto uid = words.size() < 2 ? std::nullopt : parseUserID(words[0]);
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

std::vector<std::string> withAppArguments(std::vector<std::string> command, bool afterQuit) {
    if (afterQuit) {
        command.insert(command.end(), {LaunchReason::relaunchArgument, "YES"});
    }
    return command;
}

std::vector<std::string> environment(const User& user) {
    return {"HOME=" + user.home, "USER=" + user.name, "LOGNAME=" + user.name,
            "PATH=/usr/bin:/bin:/usr/sbin:/sbin"};
}

bool dropPrivileges(Privileges& privileges, const User& user) {
    return privileges.setGroup(user.gid) &&
           privileges.setSupplementaryGroups(user.name, user.gid) && privileges.setUser(user.uid) &&
           privileges.realUser() == user.uid && privileges.effectiveUser() == user.uid &&
           privileges.realGroup() == user.gid && !privileges.setUser(0);
}

void run(std::span<const std::string> words) {
    const auto request = parse(words);
    const auto user = request ? lookUp(request->uid) : std::nullopt;
    if (!user) {
        std::exit(exitUsage);
    }
    Privileges privileges;
    if (!dropPrivileges(privileges, *user)) {
        std::exit(exitNoPermission);
    }
    const Command command = commandFor(*request, *user);
    // Where the program is the app itself, its files are made as in any other session of the
    // person.
    constexpr mode_t usual = 022;
    umask(usual);
    const ArgumentVector arguments(command.arguments);
    const ArgumentVector environment(command.environment);
    alarm(command.secondsAtMost);
    execve(command.path.c_str(), arguments.data(), environment.data());
    std::exit(exitCannotExecute);
}

}  // namespace halvo::OpenAsUser
