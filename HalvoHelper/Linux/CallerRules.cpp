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

// A process by its number.
std::string fileOf(pid_t process, const char* name) {
    return "/proc/" + std::to_string(process) + "/" + name;
}

// The path that the link `link` in /proc names, or the errno.
std::expected<std::string, int> targetOf(const std::string& link) {
    std::array<char, PATH_MAX> buffer{};
    const ssize_t length = readlink(link.c_str(), buffer.data(), buffer.size());
    if (length < 0) {
        return std::unexpected(errno);
    }
    if (length == 0 || static_cast<std::size_t>(length) >= buffer.size()) {
        return std::unexpected(ENAMETOOLONG);
    }
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}

// The options of the mount `number` as process 1 sees it, as "rw,nosuid"; empty where it sees none;
// or the errno. In pieces: who can mount anything at a path of their own can make a line as long as
// they like. Of a line's words the first six are the kernel's alone to choose the form of.
std::expected<std::string, int> mountOptions(std::uint64_t number) {
    const Descriptor mounts(open("/proc/1/mountinfo", O_RDONLY | O_CLOEXEC));
    std::string id;
    std::string options;
    int word = 0;
    std::array<char, 4096> piece{};
    while (mounts.isOpen()) {
        const ssize_t count = read(mounts.get(), piece.data(), piece.size());
        if (count == 0) {
            return "";
        }
        if (count < 0 && errno != EINTR) {
            break;
        }
        for (const char c :
             std::span(piece).first(static_cast<std::size_t>(std::max<ssize_t>(count, 0)))) {
            if (c == '\n') {
                if (id == std::to_string(number)) {
                    return options;
                }
                id.clear();
                options.clear();
                word = 0;
            } else if (c == ' ') {
                ++word;
            } else if (word == 0) {
                id += c;
            } else if (word == 5) {
                options += c;
            }
        }
    }
    return std::unexpected(errno);
}

// What keeps the kernel from honouring the set-group-id bit of the file that `file` holds. Process
// 1 is asked, whose mounts are the machine's: in the unit's sandbox every mount is nosuid, and a
// caller may have mounts of its own, from which the kernel gives nobody else anything.
Problem problemOfMount(const struct statx& file) {
    if ((file.stx_mask & STATX_MNT_ID) == 0) {
        return "it cannot be told on which mount its executable lies; that needs Linux 5.8";
    }
    const auto options = mountOptions(file.stx_mnt_id);
    if (!options) {
        return failed("the machine's mounts cannot be read in /proc/1/mountinfo", options.error());
    }
    if (options->empty()) {
        return "its executable lies on no mount of the machine's, by /proc/1/mountinfo";
    }
    return ("," + *options + ",").contains(",nosuid,")
               ? Problem(
                     "its executable lies on a file system mounted with nosuid, where the kernel "
                     "gives nobody its group")
               : std::nullopt;
}

// What keeps the caller's effective group from being one that it has from `executable` alone: its
// real group (credentials(7)), or one of the supplementary groups that it had when it connected
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
               ? Problem("it has the private group of " + executable + " by itself")
               : std::nullopt;
}

// What keeps the item at `path` from being root's alone, the file with `status`, and set-group-id
// to `group`.
Problem problemOfFile(const std::string& path, const struct statx& status, gid_t group) {
    if (const auto problem = RootOwnedPath::examine(path)) {
        return problem->failure == 0 ? "somebody besides root can change " + path
                                     : path + " cannot be examined: " + problem->what;
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
               : Problem(failed("it cannot be told whether it still lives", errno));
}

// What shows that the process behind `pidfd`, if there is one, has ended; pidfd_open(2).
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

// Whether somebody could know a password that fits. "x" in the group file stands for the shadow; to
// none at all no program lets anybody in who is no member, newgrp(1).
bool isPassword(const std::string& field) {
    return !field.empty() && field != "x" && !field.starts_with('!') && !field.starts_with('*');
}

// Gives `use` each entry of the file at `path`, as `next` (fgetgrent(3) and its like) reads them.
// The errno of what failed, or 0.
template <class Next, class Use>
int forEachEntry(const std::string& path, Next next, Use use) {
    Descriptor descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::FILE* raw = descriptor.isOpen() ? fdopen(descriptor.get(), "r") : nullptr;
    if (raw == nullptr) {
        return errno;
    }
    [[maybe_unused]] const int owned = descriptor.release();  // by the file
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(raw, &std::fclose);
    while (const auto* entry = next(raw)) {
        use(*entry);
    }
    // Nothing is also what these give when they fail.
    return std::feof(raw) != 0 ? 0 : errno;
}

constexpr std::array<const char*, 3> files{"/group", "/gshadow", "/passwd"};

// The errno of what failed, or 0.
int readShadow(const std::string& path, GroupFacts& facts) {
    return forEachEntry(path, fgetsgent, [&](const sgrp& shadow) {
        if (facts.name && *facts.name == shadow.sg_namp) {
            facts.shadowPassword = shadow.sg_passwd == nullptr ? "" : shadow.sg_passwd;
            append(facts.members, shadow.sg_mem);
            append(facts.administrators, shadow.sg_adm);
        }
    });
}

}  // namespace

std::expected<GroupFacts, std::string> readGroup(gid_t gid, const std::string& folder) {
    GroupFacts facts;
    facts.gid = gid;
    facts.hasShadow = geteuid() == 0;
    std::string path = folder + files[0];
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
        path = folder + files[1];
        code = readShadow(path, facts);
        code = code == ENOENT ? 0 : code;
    }
    if (code == 0) {
        path = folder + files[2];
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
          List{Kind::owners, " is the own group of ", facts.owners},
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

std::optional<std::string> PrivateGroups::problem(gid_t gid) {
    Stamps stamps;
    std::ranges::transform(files, stamps.begin(), [this](const char* file) {
        return FileStamp::of((folder_ + file).c_str());
    });
    if (gid_ == gid && stamps_ == stamps) {
        return problem_;
    }
    gid_.reset();
    const auto facts = readGroup(gid, folder_);
    if (!facts) {
        return "it cannot be told whose the group " + std::to_string(gid) + " is: " + facts.error();
    }
    const auto flaw = flawOf(*facts);
    problem_ = flaw ? std::optional(flaw->finding) : std::nullopt;
    if (std::ranges::all_of(stamps,
                            [](const auto& stamp) { return !stamp || stamp->isSettled(); })) {
        gid_ = gid;
        stamps_ = stamps;
    }
    return problem_;
}

std::optional<gid_t> privateGroup(const struct stat& executable) {
    return (executable.st_mode & S_ISGID) != 0 ? std::optional(executable.st_gid) : std::nullopt;
}

CallerRules::CallerRules(HelperIdentity identity, std::string accounts)
    : identity_(std::move(identity)), groups_(std::move(accounts)) {}

std::expected<HelperPeer, std::string> CallerRules::check(int connection) {
    ucred caller{};
    socklen_t size = sizeof caller;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &caller, &size) != 0) {
        return std::unexpected(failed("its credentials cannot be read", errno));
    }
    // Of a process in another PID namespace, which is not below this one, there is no number.
    if (caller.pid <= 0) {
        return std::unexpected("its credentials cannot be read");
    }
    Descriptor pidfd;
    if (auto problem = problemOfPidfd(connection, pidfd)) {
        return std::unexpected(*std::move(problem));
    }
    // The file itself, by a link that leads to it without any path being walked. Held from here on,
    // with its mount, so that it stays the same one whatever the process becomes meanwhile.
    const Descriptor running(open(fileOf(caller.pid, "exe").c_str(), O_PATH | O_CLOEXEC));
    if (!running.isOpen()) {
        return std::unexpected(failed("its executable cannot be read", errno));
    }
    struct statx status{};
    // AT_STATX_DONT_SYNC: without asking the file's own, possibly stalling, server.
    if (statx(running.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_INO | STATX_MNT_ID,
              &status) != 0) {
        return std::unexpected(failed("its executable cannot be examined", errno));
    }
    if (auto problem = problemOfMount(status)) {
        return std::unexpected(*std::move(problem));
    }
    const auto executable = targetOf("/proc/self/fd/" + std::to_string(running.get()));
    if (!executable) {
        return std::unexpected(
            failed("the path of its executable cannot be read", executable.error()));
    }
    // What the kernel writes behind the path of a file that is no longer there; proc_pid_exe(5).
    constexpr std::string_view deletedMark = " (deleted)";
    if (executable->ends_with(deletedMark)) {
        const std::string path = executable->substr(0, executable->size() - deletedMark.size());
        return std::unexpected(
            !RootOwnedPath::examine(path) && !problemOfBundle(path)
                ? "the app was replaced since it started; quit it and start it anew"
                : "its executable was replaced or removed since it started");
    }
    Problem problem;
    const auto isNone = [&problem](Problem found) {
        problem = std::move(found);
        return !problem;
    };
    if (isNone(problemOfFile(*executable, status, caller.gid)) &&
        isNone(groups_.problem(caller.gid)) &&
        isNone(problemOfGroup(connection, caller, *executable)) &&
        isNone(problemOfBundle(*executable)) && isNone(problemOfLife(pidfd))) {
        return HelperPeer::ofProcess(caller.uid, *executable);
    }
    return std::unexpected(problem.value_or(""));
}

// What keeps `executable` from lying in a bundle of the app, whose Info.plist is root's alone.
std::optional<std::string> CallerRules::problemOfBundle(const std::string& executable) {
    std::string isOther = executable + " is not in a bundle of this app and team";
    const std::string cannotBeRead = "its Info.plist cannot be read";
    const auto path = AppLocation::bundlePath(executable);
    if (!path) {
        return isOther;
    }
    const std::string infoPath = Bundle(*path).infoPath();
    if (const auto problem = RootOwnedPath::examine(infoPath)) {
        const int code = problem->failure;
        return code == 0 || code == ENOENT || code == ENOTDIR ? isOther
                                                              : failed(cannotBeRead, code);
    }
    const auto file = FileStamp::of(infoPath.c_str());
    Info& known = infos_[infoPath];
    if (!file || file != known.file) {
        const auto info = readInfoFile(infoPath);
        if (!info) {
            return failed(cannotBeRead, info.error().code);
        }
        known = {file && file->isSettled() ? file : std::nullopt, HelperIdentity::ofBundle(*info)};
    }
    return known.identity == identity_ ? std::nullopt : std::optional(isOther);
}

}  // namespace halvo
