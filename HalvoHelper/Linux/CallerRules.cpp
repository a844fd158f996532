#include "HalvoHelper/Linux/CallerRules.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>

#include "HalvoHelper/RootsAlone.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Descriptor.hpp"

// Newer than the C library's headers.
#ifndef SO_PEERPIDFD
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): as the headers have it.
#define SO_PEERPIDFD 77
#endif

namespace halvo {
namespace {

std::optional<struct stat> statusOf(const std::string& path) {
    struct stat status{};
    return lstat(path.c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
}

std::optional<std::string> executableOf(const std::string& link) {
    std::array<char, PATH_MAX> buffer{};
    const ssize_t length = readlink(link.c_str(), buffer.data(), buffer.size());
    if (length < 1 || static_cast<std::size_t>(length) >= buffer.size()) {
        return std::nullopt;
    }
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}

// Whether `link`, which leads to a process's executable without any path being walked, leads to the
// file with `status`. AT_STATX_DONT_SYNC: without asking the file's own, possibly stalling, server.
bool leadsTo(const std::string& link, const struct stat& status) {
    struct statx running{};
    return statx(AT_FDCWD, link.c_str(), AT_STATX_DONT_SYNC, STATX_INO, &running) == 0 &&
           makedev(running.stx_dev_major, running.stx_dev_minor) == status.st_dev &&
           running.stx_ino == status.st_ino;
}

// Whether the process behind `pidfd` has not ended; pidfd_open(2).
bool isAlive(const Descriptor& pidfd) {
    pollfd ended{pidfd.get(), POLLIN, 0};
    return poll(&ended, 1, 0) == 0;
}

}  // namespace

std::optional<gid_t> privateGroup(const struct stat& executable) {
    return (executable.st_mode & S_ISGID) != 0 ? std::optional(executable.st_gid) : std::nullopt;
}

std::optional<HelperIdentity> identityOf(const std::string& executable) {
    const auto path = AppLocation::bundlePath(executable);
    if (!path) {
        return std::nullopt;
    }
    const Bundle bundle(*path);
    if (RootsAlone::problem(bundle.infoPath())) {
        return std::nullopt;
    }
    const auto info = bundle.info();
    return HelperIdentity::app(info, info ? infoString(*info, "CFBundleIdentifier") : std::nullopt);
}

std::expected<Caller, std::string> checkCaller(int connection, const HelperIdentity& identity) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 ||
        credentials.pid <= 0) {
        return std::unexpected("its credentials cannot be read");
    }
    int number = -1;
    size = sizeof number;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERPIDFD, &number, &size) != 0) {
        if (errno != ENOPROTOOPT) {  // so an older kernel says that it has none
            return std::unexpected("it cannot be told whether it still lives");
        }
        number = -1;
    }
    const Descriptor pidfd(number);

    const std::string link = "/proc/" + std::to_string(credentials.pid) + "/exe";
    const auto executable = executableOf(link);
    if (!executable) {
        return std::unexpected("its executable cannot be read");
    }
    // The kernel's mark for a file that is no longer at its path; proc_pid_exe(5).
    if (executable->ends_with(" (deleted)")) {
        return std::unexpected("its executable was replaced or removed since it started");
    }
    if (RootsAlone::problem(*executable)) {
        return std::unexpected("somebody besides root can change " + *executable);
    }
    const auto file = statusOf(*executable);
    if (!file || !leadsTo(link, *file)) {
        return std::unexpected("what it runs is not the file at " + *executable);
    }
    if (privateGroup(*file) != credentials.gid) {
        return std::unexpected("it does not run with the private group of " + *executable);
    }
    if (identityOf(*executable) != identity) {
        return std::unexpected(*executable + " is not in a bundle of this app and team");
    }
    if (pidfd.isOpen() && !isAlive(pidfd)) {
        return std::unexpected("it ended meanwhile");
    }
    return Caller{credentials.uid, *executable};
}

}  // namespace halvo
