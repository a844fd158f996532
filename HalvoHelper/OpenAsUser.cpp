#include "HalvoHelper/OpenAsUser.hpp"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <utility>

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

void append(std::vector<std::string>& list, const std::vector<std::string>& more) {
    list.insert(list.end(), more.begin(), more.end());
}

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
    const ArgumentVector arguments(command.arguments);
    const ArgumentVector environment(command.environment);
    alarm(command.secondsAtMost);
    execve(command.path.c_str(), arguments.data(), environment.data());
    std::exit(exitCannotExecute);
}

}  // namespace halvo::OpenAsUser
