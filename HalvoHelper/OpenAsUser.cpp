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

std::optional<std::uint32_t> parseUserID(const std::string& word) {
    const char* first = word.data() + (word.starts_with('+') ? 1 : 0);
    const char* last = word.data() + word.size();
    std::uint32_t uid = 0;
    const auto [end, error] = std::from_chars(first, last, uid);
    return error == std::errc{} && end == last ? std::optional(uid) : std::nullopt;
}

// initgroups(3), whose group is an int on macOS and a gid_t elsewhere.
template <class Group>
bool setGroupsOf(int (*call)(const char*, Group), const std::string& user, gid_t group) {
    return call(user.c_str(), static_cast<Group>(group)) == 0;
}

// Becomes the user `uid`, called `name`, with the primary group `gid`, for good, and proves it: the
// groups go first, because only root may set them; then the identities are read back; then becoming
// root again must fail. Returns false at the first step that fails.
bool dropPrivileges(uid_t uid, gid_t gid, const std::string& name) {
    return setgid(gid) == 0 && setGroupsOf(initgroups, name, gid) && setuid(uid) == 0 &&
           getuid() == uid && geteuid() == uid && getgid() == gid && setuid(0) != 0;
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
    // Single-threaded: until the next look-up the static buffer of getpwuid(3) is unchanged.
    const passwd* user = request ? getpwuid(request->uid) : nullptr;
    if (!request || user == nullptr) {
        std::exit(EX_USAGE);
    }
    if (user->pw_name == nullptr || user->pw_dir == nullptr) {
        fatal("A user without a name or a home directory");
    }
    const std::string name = user->pw_name;
    const std::string home = user->pw_dir;
    if (!dropPrivileges(request->uid, user->pw_gid, name)) {
        std::exit(EX_NOPERM);
    }
    Command command = commandFor(*request);
    if (request->afterQuit) {
        command.arguments.insert(command.arguments.end(), {LaunchReason::relaunchArgument, "YES"});
    }
    command.environment.insert(
        command.environment.begin(),
        {"HOME=" + home, "USER=" + name, "LOGNAME=" + name, "PATH=/usr/bin:/bin:/usr/sbin:/sbin"});
    // Where the program is the app itself, it creates files as in any other session of the user.
    constexpr mode_t usual = 022;
    umask(usual);
    const ArgumentVector arguments(command.arguments);
    const ArgumentVector environment(command.environment);
    alarm(command.secondsAtMost);
    execve(command.arguments.front().c_str(), arguments.data(), environment.data());
    std::exit(EX_OSERR);
}

}  // namespace halvo::OpenAsUser
