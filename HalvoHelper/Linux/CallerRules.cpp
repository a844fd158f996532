#include "HalvoHelper/Linux/CallerRules.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

#include "HalvoHelper/Linux/LineFile.hpp"
#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Linux/InfoFile.hpp"

// Newer than the C library's headers.
#ifndef SO_PEERPIDFD
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): as the headers have it.
#define SO_PEERPIDFD 77
#endif

namespace halvo {
namespace {

// What the kernel writes behind the path of a file that is no longer there; proc_pid_exe(5).
constexpr std::string_view deletedMark = " (deleted)";

// More bundles than anybody has of one app at a time.
constexpr std::size_t infosKept = 8;

std::string failed(const std::string& what, int code) { return what + ": " + errorText(code); }

// A process by its number.
std::string fileOf(pid_t process, const char* name) {
    return "/proc/" + std::to_string(process) + "/" + name;
}

// The path that the link `link` in /proc names.
std::optional<std::string> targetOf(const std::string& link) {
    std::array<char, PATH_MAX> buffer{};
    const ssize_t length = readlink(link.c_str(), buffer.data(), buffer.size());
    if (length < 0) {
        return std::nullopt;
    }
    if (length == 0 || static_cast<std::size_t>(length) >= buffer.size()) {
        errno = ENAMETOOLONG;
        return std::nullopt;
    }
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}

// The lines of the file, with their ends. False, with the errno, when it cannot be read to its
// end and `use` has not said, by true, that it has seen enough.
template <class Use>
bool forEachLine(const std::string& path, Use use) {
    LineFile file = openLines(path);
    if (file == nullptr) {
        return false;
    }
    char* raw = nullptr;
    std::size_t room = 0;
    bool enough = false;
    ssize_t length = 0;
    while (!enough && (length = getline(&raw, &room, file.get())) >= 0) {
        enough = use(std::string_view(raw, static_cast<std::size_t>(length)));
    }
    const int code = errno;
    const bool isWhole = enough || std::feof(file.get()) != 0;
    std::unique_ptr<char, decltype(&std::free)>(raw, &std::free).reset();
    file.reset();
    errno = code;
    return isWhole;
}

// Takes the first word off `line`.
std::string_view takeWord(std::string_view& line) {
    const std::string_view word = line.substr(0, line.find_first_of(" \t\n"));
    line.remove_prefix(std::min(line.size(), word.size() + 1));
    return word;
}

// What keeps the kernel from honouring the set-group-id bit of files on the mount with the number
// `mount`. Process 1 is asked, whose mounts are the machine's: in the unit's sandbox every mount is
// nosuid, and a caller may have mounts of its own, from which the kernel gives nobody else
// anything.
std::optional<std::string> problemOfMount(std::uint64_t mount) {
    const std::string number = std::to_string(mount);
    std::optional<bool> isHonoured;
    // Only the first six of a line's words are the kernel's alone to choose the form of; the
    // source may be anything.
    const bool wasRead = forEachLine("/proc/1/mountinfo", [&](std::string_view line) {
        if (takeWord(line) != number) {
            return false;
        }
        for (int others = 0; others < 4; ++others) {
            takeWord(line);
        }
        const std::string options = "," + std::string(takeWord(line)) + ",";
        isHonoured = options.find(",nosuid,") == std::string::npos;
        return true;
    });
    if (!wasRead) {
        return failed("the machine's mounts cannot be read in /proc/1/mountinfo", errno);
    }
    if (!isHonoured) {
        return "its executable lies on no mount of the machine's, by /proc/1/mountinfo";
    }
    if (!*isHonoured) {
        return "its executable lies on a file system mounted with nosuid, where the kernel gives "
               "nobody its group";
    }
    return std::nullopt;
}

// The process's real group; credentials(7).
std::optional<gid_t> realGroupOf(pid_t process) {
    constexpr std::string_view field = "Gid:\t";
    std::optional<gid_t> group;
    const bool wasRead = forEachLine(fileOf(process, "status"), [&](std::string_view line) {
        if (line.starts_with(field)) {
            group = static_cast<gid_t>(std::strtoul(line.data() + field.size(), nullptr, 10));
        }
        return group.has_value();
    });
    if (wasRead && !group) {
        errno = ENODATA;
    }
    return group;
}

// The supplementary groups that the process had when it connected; SO_PEERGROUPS.
std::optional<std::vector<gid_t>> peerGroups(int connection) {
    std::vector<gid_t> groups;
    while (true) {
        auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        const int result = getsockopt(connection, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
        if (result != 0 && (errno != ERANGE || size <= groups.size() * sizeof(gid_t))) {
            return std::nullopt;
        }
        groups.resize(size / sizeof(gid_t));
        if (result == 0) {
            return groups;
        }
    }
}

std::expected<ucred, std::string> credentialsOf(int connection) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return std::unexpected(failed("its credentials cannot be read", errno));
    }
    if (credentials.pid <= 0) {
        return std::unexpected("its credentials cannot be read");
    }
    return credentials;
}

// Not open where the kernel is too old to have any.
std::expected<Descriptor, std::string> pidfdOf(int connection) {
    int number = -1;
    socklen_t size = sizeof number;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERPIDFD, &number, &size) == 0) {
        return Descriptor(number);
    }
    if (errno != ENOPROTOOPT) {
        return std::unexpected(failed("it cannot be told whether it still lives", errno));
    }
    return Descriptor();
}

// Whether the process behind `pidfd` has not ended; pidfd_open(2).
bool isAlive(const Descriptor& pidfd) {
    pollfd ended{pidfd.get(), POLLIN, 0};
    return poll(&ended, 1, 0) == 0;
}

// Of the file that `file` holds, if it lies where it may.
std::expected<struct statx, std::string> statusOf(const Descriptor& file) {
    struct statx status{};
    // AT_STATX_DONT_SYNC: without asking the file's own, possibly stalling, server.
    if (statx(file.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_INO | STATX_MNT_ID,
              &status) != 0) {
        return std::unexpected(failed("its executable cannot be examined", errno));
    }
    if ((status.stx_mask & STATX_MNT_ID) == 0) {
        return std::unexpected(
            "it cannot be told on which mount its executable lies; that needs Linux 5.8");
    }
    if (auto problem = problemOfMount(status.stx_mnt_id)) {
        return std::unexpected(*std::move(problem));
    }
    return status;
}

// What keeps the item at `path` from being root's alone and the file with `status`; sets `file`.
std::optional<std::string> problemOfFile(const std::string& path, const struct statx& status,
                                         struct stat& file) {
    if (const auto problem = RootOwnedPath::examine(path)) {
        return problem->failure == 0 ? "somebody besides root can change " + path
                                     : path + " cannot be examined: " + problem->what;
    }
    if (lstat(path.c_str(), &file) != 0) {
        return failed(path + " cannot be examined", errno);
    }
    if (makedev(status.stx_dev_major, status.stx_dev_minor) != file.st_dev ||
        status.stx_ino != file.st_ino) {
        return "what it runs is not the file at " + path;
    }
    return std::nullopt;
}

}  // namespace

std::optional<gid_t> privateGroup(const struct stat& executable) {
    return (executable.st_mode & S_ISGID) != 0 ? std::optional(executable.st_gid) : std::nullopt;
}

CallerRules::CallerRules(HelperIdentity identity, std::string accounts)
    : identity_(std::move(identity)), groups_(std::move(accounts)) {
    infos_.reserve(infosKept);
}

std::expected<Caller, std::string> CallerRules::check(int connection) {
    const auto credentials = credentialsOf(connection);
    if (!credentials) {
        return std::unexpected(credentials.error());
    }
    const auto pidfd = pidfdOf(connection);
    if (!pidfd) {
        return std::unexpected(pidfd.error());
    }
    // The file itself, by a link that leads to it without any path being walked. Held from here on,
    // with its mount, so that it stays the same one whatever the process becomes meanwhile.
    const Descriptor running(open(fileOf(credentials->pid, "exe").c_str(), O_PATH | O_CLOEXEC));
    if (!running.isOpen()) {
        return std::unexpected(failed("its executable cannot be read", errno));
    }
    const auto status = statusOf(running);
    if (!status) {
        return std::unexpected(status.error());
    }
    const auto executable = targetOf("/proc/self/fd/" + std::to_string(running.get()));
    if (!executable) {
        return std::unexpected(failed("the path of its executable cannot be read", errno));
    }
    if (executable->ends_with(deletedMark)) {
        return std::unexpected(
            withoutFile(executable->substr(0, executable->size() - deletedMark.size())));
    }
    struct stat file{};
    auto problem = problemOfFile(*executable, *status, file);
    if (!problem && privateGroup(file) != credentials->gid) {
        problem = "it does not run with the private group of " + *executable;
    }
    if (!problem) {
        problem = problemOfGroup(connection, *credentials, *executable);
    }
    if (!problem) {
        problem = problemOfBundle(*executable);
    }
    if (!problem && pidfd->isOpen() && !isAlive(*pidfd)) {
        problem = "it ended meanwhile";
    }
    if (problem) {
        return std::unexpected(*std::move(problem));
    }
    return Caller{credentials->uid, *executable};
}

// What keeps the caller's effective group from being one that it has from `executable` alone.
std::optional<std::string> CallerRules::problemOfGroup(int connection, const ucred& credentials,
                                                       const std::string& executable) {
    const gid_t group = credentials.gid;
    if (auto problem = groups_.problem(group)) {
        return problem;
    }
    const auto others = peerGroups(connection);
    const auto real = others ? realGroupOf(credentials.pid) : std::nullopt;
    if (!real) {
        return failed("its groups cannot be read", errno);
    }
    if (*real == group || std::ranges::find(*others, group) != others->end()) {
        return "it has the private group of " + executable + " by itself";
    }
    return std::nullopt;
}

// Of a caller whose executable is no longer at `path`.
std::string CallerRules::withoutFile(const std::string& path) {
    return !RootOwnedPath::examine(path) && !problemOfBundle(path)
               ? "the app was replaced since it started; quit it and start it anew"
               : "its executable was replaced or removed since it started";
}

// What keeps `executable` from lying in a bundle of the app.
std::optional<std::string> CallerRules::problemOfBundle(const std::string& executable) {
    const auto path = AppLocation::bundlePath(executable);
    const auto found = path ? identityIn(Bundle(*path).infoPath())
                            : std::expected<std::optional<HelperIdentity>, int>(std::nullopt);
    if (!found) {
        return failed("its Info.plist cannot be read", found.error());
    }
    return *found == identity_
               ? std::nullopt
               : std::optional(executable + " is not in a bundle of this app and team");
}

// The app's identity as the Info.plist declares it, if that is root's alone. The errno when that
// cannot be told; nothing also when there is none.
std::expected<std::optional<HelperIdentity>, int> CallerRules::identityIn(
    const std::string& infoPath) {
    if (const auto problem = RootOwnedPath::examine(infoPath)) {
        const bool isMissing = problem->failure == ENOENT || problem->failure == ENOTDIR;
        if (problem->failure != 0 && !isMissing) {
            return std::unexpected(problem->failure);
        }
        return std::nullopt;
    }
    const auto file = FileStamp::of(infoPath.c_str());
    const auto known = file ? std::ranges::find(infos_, *file, &Info::file) : infos_.end();
    if (known != infos_.end()) {
        return known->identity;
    }
    const auto info = readInfoFile(infoPath);
    if (!info) {
        return std::unexpected(info.error().code);
    }
    auto identity = HelperIdentity::ofBundle(*info);
    if (file && file->isSettled()) {
        if (infos_.size() < infosKept) {
            infos_.push_back({*file, identity});
        } else {
            infos_[oldestInfo_++ % infosKept] = {*file, identity};
        }
    }
    return identity;
}

}  // namespace halvo
