#include "HalvoHelper/OpenAsUser.hpp"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>

#include "HalvoHelper/ArgumentVector.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Fatal.hpp"
#include "HalvoShared/LaunchReason.hpp"

namespace halvo::OpenAsUser {
namespace {

// A user as the password file has it.
struct User {
    uid_t uid{};
    gid_t gid{};
    std::string name;
    std::string home;
};

std::optional<User> lookUp(uid_t uid) {
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

std::optional<std::uint32_t> parseUserID(const std::string& word) {
    const char* first = word.data() + (word.starts_with('+') ? 1 : 0);
    const char* last = word.data() + word.size();
    std::uint32_t uid = 0;
    const auto [end, error] = std::from_chars(first, last, uid);
    return error == std::errc{} && end == last ? std::optional(uid) : std::nullopt;
}

// initgroups(3), whose group is an int on macOS and a gid_t elsewhere.
template <class Group>
bool setGroupsOf(int (*call)(const char*, Group), const User& user) {
    return call(user.name.c_str(), static_cast<Group>(user.gid)) == 0;
}

// Becomes `user` for good, and proves it: the groups go first, because only root may set them; then
// the identities are read back; then becoming root again must fail. False at the first thing that
// is not as it must be.
bool dropPrivileges(const User& user) {
    return setgid(user.gid) == 0 && setGroupsOf(initgroups, user) && setuid(user.uid) == 0 &&
           getuid() == user.uid && geteuid() == user.uid && getgid() == user.gid && setuid(0) != 0;
}

}  // namespace

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

void run(std::span<const std::string> words) {
    const auto request = parse(words);
    const auto user = request ? lookUp(request->uid) : std::nullopt;
    if (!user) {
        std::exit(EX_USAGE);
    }
    if (!dropPrivileges(*user)) {
        std::exit(EX_NOPERM);
    }
    Command command = commandFor(*request);
    if (request->afterQuit) {
        command.arguments.insert(command.arguments.end(), {LaunchReason::relaunchArgument, "YES"});
    }
    command.environment.insert(command.environment.begin(),
                               {"HOME=" + user->home, "USER=" + user->name, "LOGNAME=" + user->name,
                                "PATH=/usr/bin:/bin:/usr/sbin:/sbin"});
    // Where the program is the app itself, its files are made as in any other session of the
    // person.
    constexpr mode_t usual = 022;
    umask(usual);
    const ArgumentVector arguments(command.arguments);
    const ArgumentVector environment(command.environment);
    alarm(command.secondsAtMost);
    execve(command.arguments.front().c_str(), arguments.data(), environment.data());
    std::exit(EX_OSERR);
}

}  // namespace halvo::OpenAsUser
