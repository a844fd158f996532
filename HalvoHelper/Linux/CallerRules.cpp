#include "HalvoHelper/Linux/CallerRules.hpp"

#include <fcntl.h>
#include <grp.h>
#include <gshadow.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <span>
#include <string_view>
#include <tuple>
#include <utility>

#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/Linux/InfoFile.hpp"
#include "HalvoPlatform/Paths.hpp"

// Newer than the C library's headers.
#ifndef SO_PEERPIDFD
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): as the headers have it.
#define SO_PEERPIDFD 77
#endif

namespace halvo {
namespace {

// What keeps a caller out, as a text for the log; nothing when nothing does.
using Problem = std::optional<std::string>;

std::string failed(const std::string& what, int code) { return what + ": " + errorText(code); }

// The file `name` of a process in /proc.
std::string fileOf(pid_t process, const char* name) {
    return "/proc/" + std::to_string(process) + "/" + name;
}

using TextFile = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

// The file at `path`, to be read; null with errno set when it cannot be opened.
TextFile openText(const std::string& path) {
    return {std::fopen(path.c_str(), "re"), &std::fclose};
}

// The options of the mount `number` as process 1 sees it, as "rw,nosuid"; empty where it sees none;
// or the errno. fscanf(3) keeps nothing of what it skips: a user who can mount anything makes the
// paths in a line as long as they like. The form of a line's first six words is the kernel's alone.
std::expected<std::string, int> mountOptions(std::uint64_t number) {
    const TextFile mounts = openText("/proc/1/mountinfo");
    std::array<char, 21> id{};
    std::array<char, 4096> options{};
    // Words end at a space alone: the kernel leaves the other white space that %s knows in a path.
    constexpr const char* line = " %20[^ ] %*[^ ] %*[^ ] %*[^ ] %*[^ ] %4095[^ ]%*[^\n]";
    while (mounts != nullptr && std::fscanf(mounts.get(), line, id.data(), options.data()) == 2) {
        if (id.data() == std::to_string(number)) {
            return options.data();
        }
    }
    if (mounts == nullptr || std::ferror(mounts.get()) != 0) {
        return std::unexpected(errno);
    }
    return "";
}

// What keeps the kernel from honouring the set-group-id bit of `file`. The mounts are those of
// process 1, the machine's: in the unit's sandbox every mount is nosuid, and a caller may have a
// mount namespace of its own, in which no process outside gets a group.
Problem problemOfMount(const struct statx& file) {
    if ((file.stx_mask & STATX_MNT_ID) == 0) {
        return "the mount of its executable is unknown: statx() gives no mount ID before Linux 5.8";
    }
    const auto options = mountOptions(file.stx_mnt_id);
    if (!options) {
        return failed("the machine's mounts cannot be read in /proc/1/mountinfo", options.error());
    }
    if (options->empty()) {
        return "its executable's mount is not in /proc/1/mountinfo";
    }
    return ("," + *options + ",").contains(",nosuid,")
               ? Problem(
                     "its executable lies on a file system mounted with nosuid, where the kernel "
                     "ignores the set-group-id bit")
               : std::nullopt;
}

// Whether the caller has its effective group from elsewhere than `executable`: as its real group
// (credentials(7)), or as one of the supplementary groups that it had when it connected
// (SO_PEERGROUPS).
Problem problemOfGroup(int connection, const ucred& caller, const std::string& executable) {
    const std::string cannotBeRead = "its groups cannot be read";
    // NOLINTNEXTLINE(*-member-init): 256 KiB, of which only what the kernel writes is touched.
    std::array<gid_t, NGROUPS_MAX> others;
    socklen_t size = sizeof others;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERGROUPS, others.data(), &size) != 0) {
        return failed(cannotBeRead, errno);
    }
    constexpr std::size_t longest = 1024UL * 1024;
    const auto status = readFile(fileOf(caller.pid, "status"), longest);
    constexpr std::string_view field = "\nGid:\t";
    const std::size_t at = status ? status->find(field) : std::string::npos;
    if (at == std::string::npos) {
        return failed(cannotBeRead, status ? ENODATA : status.error().code);
    }
    const unsigned long real = std::strtoul(status->c_str() + at + field.size(), nullptr, 10);
    const std::span groups(others.data(), size / sizeof(gid_t));
    return real == caller.gid || std::ranges::find(groups, caller.gid) != groups.end()
               ? Problem("the private group of " + executable +
                         " is its real or a supplementary group")
               : std::nullopt;
}

// What keeps the item at `path` from being root's alone, the same file as that of `status`, and
// set-group-id to `group`.
Problem problemOfFile(const std::string& path, const struct statx& status, gid_t group) {
    if (const auto problem = RootOwnedPath::examine(path)) {
        return problem->code == 0 ? path + " can be changed by users other than root"
                                  : path + " cannot be examined: " + problem->message;
    }
    struct stat file{};
    if (lstat(path.c_str(), &file) != 0) {
        return failed(path + " cannot be examined", errno);
    }
    if (makedev(status.stx_dev_major, status.stx_dev_minor) != file.st_dev ||
        status.stx_ino != file.st_ino) {
        return "what it runs is not the file at " + path;
    }
    return privateGroup(file) == group
               ? std::nullopt
               : Problem("it does not run with the private group of " + path);
}

// Sets `pidfd`, which stays closed where the kernel is too old to give one.
Problem problemOfPidfd(int connection, Descriptor& pidfd) {
    int number = -1;
    socklen_t size = sizeof number;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERPIDFD, &number, &size) == 0) {
        pidfd = Descriptor(number);
        return std::nullopt;
    }
    return errno == ENOPROTOOPT
               ? std::nullopt
               : Problem(failed("cannot check whether the process still exists", errno));
}

// Whether the process of `pidfd`, if that is open, has ended; pidfd_open(2).
Problem problemOfLife(const Descriptor& pidfd) {
    pollfd ended{pidfd.get(), POLLIN, 0};
    return pidfd.isOpen() && poll(&ended, 1, 0) != 0 ? Problem("it ended meanwhile") : std::nullopt;
}

void append(std::vector<std::string>& list, char* const* names) {
    for (; names != nullptr && *names != nullptr; ++names) {
        if (std::ranges::find(list, *names) == list.end()) {
            list.emplace_back(*names);
        }
    }
}

std::string listed(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

// Whether a password can match the field. "x" in the group file refers to the shadow; with an empty
// field newgrp(1) admits members only.
bool isPassword(const std::string& field) {
    return !field.empty() && field != "x" && !field.starts_with('!') && !field.starts_with('*');
}

// Gives `use` each entry of the file at `path`, as `next` (fgetgrent(3) and its like) reads them.
// Returns 0 or the errno.
template <class Next, class Use>
int forEachEntry(const std::string& path, Next next, Use use) {
    const TextFile file = openText(path);
    if (file == nullptr) {
        return errno;
    }
    while (const auto* entry = next(file.get())) {
        use(*entry);
    }
    // `next` gives null at the end and on failure.
    return std::feof(file.get()) != 0 ? 0 : errno;
}

// Returns 0 or the errno.
int readShadow(const std::string& path, GroupFacts& facts) {
    return forEachEntry(path, fgetsgent, [&](const sgrp& shadow) {
        if (facts.name && *facts.name == shadow.sg_namp) {
            facts.shadowPassword = shadow.sg_passwd == nullptr ? "" : shadow.sg_passwd;
            append(facts.members, shadow.sg_mem);
            append(facts.administrators, shadow.sg_adm);
        }
    });
}

// What keeps the group `gid` from being private, by the account files in `folder`.
Problem problemOfAccounts(gid_t gid, const std::string& folder) {
    const auto facts = readGroup(gid, folder);
    if (!facts) {
        return "cannot look up group " + std::to_string(gid) + ": " + facts.error();
    }
    const auto flaw = flawOf(*facts);
    return flaw ? Problem(flaw->finding) : std::nullopt;
}

}  // namespace

std::expected<GroupFacts, std::string> readGroup(gid_t gid, const std::string& folder) {
    GroupFacts facts;
    facts.gid = gid;
    facts.hasShadow = geteuid() == 0;
    std::string path = folder + "/group";
    int code = forEachEntry(path, fgetgrent, [&](const group& entry) {
        if (entry.gr_gid != gid) {
            return;
        }
        if (!facts.name) {
            facts.name = entry.gr_name;
            facts.password = entry.gr_passwd == nullptr ? "" : entry.gr_passwd;
        }
        append(facts.members, entry.gr_mem);
    });
    if (code == 0 && facts.hasShadow) {
        path = folder + "/gshadow";
        code = readShadow(path, facts);
        code = code == ENOENT ? 0 : code;
    }
    if (code == 0) {
        path = folder + "/passwd";
        code = forEachEntry(path, fgetpwent, [&](const passwd& entry) {
            if (entry.pw_gid == gid) {
                facts.owners.emplace_back(entry.pw_name);
            }
        });
    }
    if (code != 0) {
        return std::unexpected(path + ": " + errorText(code));
    }
    return facts;
}

std::optional<GroupFlaw> flawOf(const GroupFacts& facts) {
    using Kind = GroupFlaw::Kind;
    const std::string number = "the group " + std::to_string(facts.gid);
    if (facts.gid == 0) {
        return GroupFlaw{Kind::roots, number + " is root's"};
    }
    if (!facts.name) {
        return GroupFlaw{Kind::unknown, number + " has no name"};
    }

    const std::string group = "the group " + *facts.name;
    using List = std::tuple<Kind, const char*, const std::vector<std::string>&>;
    for (const auto& [kind, what, names] :
         {List{Kind::members, " has members: ", facts.members},
          List{Kind::owners, " is the primary group of ", facts.owners},
          List{Kind::administrators, " has administrators: ", facts.administrators}}) {
        if (!names.empty()) {
            return GroupFlaw{kind, group + what + listed(names)};
        }
    }
    if (isPassword(facts.password) || isPassword(facts.shadowPassword)) {
        return GroupFlaw{Kind::password, group + " has a password"};
    }
    return std::nullopt;
}

std::optional<gid_t> privateGroup(const struct stat& executable) {
    return (executable.st_mode & S_ISGID) != 0 ? std::optional(executable.st_gid) : std::nullopt;
}

std::expected<HelperPeer, std::string> CallerRules::check(int connection) {
    ucred caller{};
    socklen_t size = sizeof caller;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &caller, &size) != 0) {
        return std::unexpected(failed("its credentials cannot be read", errno));
    }
    // A process outside this PID namespace and its descendants has no number in it.
    if (caller.pid <= 0) {
        return std::unexpected("its credentials cannot be read");
    }
    Descriptor pidfd;
    if (auto problem = problemOfPidfd(connection, pidfd)) {
        return std::unexpected(*std::move(problem));
    }
    // The magic link leads to the file itself without a path being walked. The descriptor pins the
    // file and its mount, so that they stay the same whatever the process executes meanwhile.
    const Descriptor running(open(fileOf(caller.pid, "exe").c_str(), O_PATH | O_CLOEXEC));
    if (!running.isOpen()) {
        return std::unexpected(failed("its executable cannot be read", errno));
    }
    struct statx status{};
    // AT_STATX_DONT_SYNC: does not wait for the server of a FUSE file system, which may stall.
    if (statx(running.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_INO | STATX_MNT_ID,
              &status) != 0) {
        return std::unexpected(failed("its executable cannot be examined", errno));
    }
    if (auto problem = problemOfMount(status)) {
        return std::unexpected(*std::move(problem));
    }
    const auto executable = linkTarget("/proc/self/fd/" + std::to_string(running.get()));
    if (!executable) {
        return std::unexpected(
            failed("the path of its executable cannot be read", executable.error()));
    }
    // What the kernel appends to the path of a file that was removed; proc_pid_exe(5).
    constexpr std::string_view deletedMark = " (deleted)";
    if (executable->ends_with(deletedMark)) {
        const std::string path = executable->substr(0, executable->size() - deletedMark.size());
        return std::unexpected(
            !RootOwnedPath::problem(path) && !problemOfBundle(path)
                ? "the app was replaced since it started; quit it and start it anew"
                : "its executable was replaced or removed since it started");
    }
    const auto problem =
        problemOfFile(*executable, status, caller.gid)
            .or_else([&] { return problemOfAccounts(caller.gid, accounts_); })
            .or_else([&] { return problemOfGroup(connection, caller, *executable); })
            .or_else([&] { return problemOfBundle(*executable); })
            .or_else([&] { return problemOfLife(pidfd); });
    if (problem) {
        return std::unexpected(*problem);
    }
    return HelperPeer::ofProcess(caller.uid, *executable);
}

// What keeps `executable` from lying in a bundle of the app, whose Info.plist is root's alone.
std::optional<std::string> CallerRules::problemOfBundle(const std::string& executable) {
    std::string isOther = executable + " is not in a bundle of this app and team";
    const std::string cannotBeRead = "its Info.plist cannot be read";
    const auto bundle = AppLocation::bundlePath(executable);
    if (!bundle) {
        return isOther;
    }
    const std::string path = Bundle(*bundle).infoPath();
    if (const auto problem = RootOwnedPath::examine(path)) {
        const int code = problem->code;
        return code == 0 || code == ENOENT ? isOther : failed(cannotBeRead, code);
    }
    const auto file = FileStamp::of(path.c_str());
    Info& known = infos_[path];
    if (!file || file != known.file) {
        const auto info = readInfoFile(path);
        if (!info) {
            return failed(cannotBeRead, info.error().code);
        }
        auto identity = HelperIdentity::ofBundle(*info);
        // libplist without memory gives less than the file has: no identity is not remembered.
        const bool lasts = file && file->isSettled() && identity;
        known = {lasts ? file : std::nullopt, std::move(identity)};
    }
    return known.identity == identity_ ? std::nullopt : Problem(isOther);
}

}  // namespace halvo
