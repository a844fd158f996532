#include "tools/Halvoctl/Linux/Checks.hpp"

#include <fcntl.h>
#include <linux/capability.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string_view>
#include <system_error>

#include "HalvoHelper/Linux/CallerRules.hpp"
#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "tools/HalvoRecords/Wording.hpp"
#include "tools/Halvoctl/Doctor.hpp"
#include "tools/Halvoctl/Linux/Group.hpp"
#include "tools/Halvoctl/Linux/Sandbox.hpp"
#include "tools/Halvoctl/ShellWord.hpp"

namespace halvo::control {
namespace {

using records::printable;

std::optional<struct stat> statusOf(const std::string& path) {
    struct stat status{};
    return lstat(path.c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
}

// One unit, which must be loaded, and unless `isEnabled` is to be left open, enabled.
Check checkUnit(const std::string& name, const Unit& unit, bool mustBeEnabled, bool mustBeActive) {
    const std::string finding = name + " is " + printable(unit.load);
    if (unit.load == "masked") {
        return isProblem("systemd", finding, "systemctl unmask " + name);
    }
    if (!unit.isLoaded()) {
        return isProblem("systemd", finding, "Install the helper's package again.");
    }
    if (unit.active == "failed") {
        return isProblem("systemd", name + " has failed: " + printable(unit.result),
                         "Look into systemctl status " + name +
                             ", mend what it names, then: systemctl reset-failed " + name);
    }
    if (unit.isRestarting()) {
        return isProblem(
            "systemd", name + " ended, and systemd starts it again: " + printable(unit.result),
            "Look again. If it stays so, the journal says why: journalctl --unit=" + name);
    }
    if (mustBeEnabled && unit.enabled != "enabled") {
        return isProblem("systemd", name + " is not enabled", "systemctl enable " + name);
    }
    if (mustBeActive && !unit.isActive()) {
        return isProblem("systemd", name + " is not active", "systemctl start " + name);
    }
    return isOk("systemd", name + " is " +
                               (unit.enabled.empty() ? "" : printable(unit.enabled) + ", ") +
                               printable(unit.active));
}

// Whether a socket listens that was bound to `path`; proc_net(5). Calling it would start the
// helper. Of what cannot be read, nothing is said.
bool isListening(const std::string& path) {
    std::ifstream sockets("/proc/net/unix");
    if (!sockets) {
        return true;
    }
    // __SO_ACCEPTCON of the kernel's <linux/net.h>, as it is printed.
    constexpr std::string_view accepts = " 00010000 ";
    for (std::string line; std::getline(sockets, line);) {
        if (line.ends_with(" " + path) && line.contains(accepts)) {
            return true;
        }
    }
    return false;
}

bool mayLockHere() { return prctl(PR_CAPBSET_READ, CAP_LINUX_IMMUTABLE, 0, 0, 0) == 1; }

}  // namespace

Checks checkUnits(const HelperIdentity& identity, const std::expected<Units, std::string>& units) {
    if (!units) {
        return {
            isProblem("systemd", printable(units.error()), "Look whether systemctl works at all.")};
    }
    return {checkUnit(socketUnit(identity), units->socket, true, true),
            checkUnit(serviceUnit(identity), units->service, false, false),
            checkUnit(resumeUnit(identity), units->resume, true, false)};
}

Check checkSocket(const std::string& path, bool isExpected, const std::string& remedy) {
    const std::string name = "socket";
    const auto status = statusOf(path);
    if (!status) {
        return isExpected ? isProblem(name, "there is none at " + path, remedy)
                          : isNotApplicable(name, "the helper makes " + path + " when it runs");
    }
    if (!S_ISSOCK(status->st_mode)) {
        return isProblem(name, path + " is no socket", "Remove it, then: " + remedy);
    }
    constexpr mode_t permissions = 0777;
    constexpr mode_t everybody = 0666;
    if (status->st_uid != 0 || (status->st_mode & permissions) != everybody) {
        return isProblem(name, path + " is not root's with mode 666, as everybody may call",
                         remedy);
    }
    return isListening(path) ? isOk(name, path)
                             : isProblem(name, "nobody listens at " + path, remedy);
}

std::optional<unsigned> groupOfApp(const std::string& app) {
    const auto executable = Bundle(app).executablePath();
    const auto status = executable ? statusOf(*executable) : std::nullopt;
    return status ? privateGroup(*status) : std::nullopt;
}

Check checkAppFiles(const std::string& app) {
    const std::string name = "app's files";
    const Bundle bundle(app);
    const auto executable = bundle.executablePath();
    if (!executable) {
        return isProblem(name, printable(app) + " has no executable that its Info.plist names",
                         "Install the app again.");
    }
    for (const std::string& path : {*executable, bundle.infoPath()}) {
        if (const auto problem = RootOwnedPath::problem(path)) {
            return isProblem(
                name, printable(*problem) + ", so the helper refuses the app",
                "Install the app as root, in folders of root that nobody else can write.");
        }
    }
    if (!groupOfApp(app)) {
        return isProblem(
            name, printable(*executable) + " is not set-group-id, so the helper refuses the app",
            "Give it a group of its own, and the bit: chgrp GROUP " + shellWord(*executable) +
                " && chmod 2755 " + shellWord(*executable));
    }
    struct statvfs mounted{};
    if (statvfs(executable->c_str(), &mounted) == 0 && (mounted.f_flag & ST_NOSUID) != 0) {
        return isProblem(name,
                         printable(*executable) +
                             " lies on a file system mounted with nosuid, where "
                             "the kernel ignores the set-group-id bit",
                         "Mount it without nosuid, or install the app elsewhere.");
    }
    return isOk(name, "root's alone, the executable set-group-id");
}

Check checkFlagSupport(const std::string& app, bool mayLock) {
    const std::string name = "file system";
    const std::string without = "The commitment holds without the lock there. ";
    const Descriptor folder(
        open(app.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!folder.isOpen()) {
        return isProblem(name, printable(app) + ": " + std::generic_category().message(errno),
                         "Install the app again.");
    }
    int flags = 0;
    if (ioctl(folder.get(), FS_IOC_GETFLAGS, &flags) != 0) {
        return isProblem(name,
                         "that of " + printable(app) + " has no immutable flag (" +
                             std::generic_category().message(errno) + ")",
                         without + "Install the app on ext4, btrfs, xfs or a tmpfs of Linux 6.6.");
    }
    struct statvfs mounted{};
    if (fstatvfs(folder.get(), &mounted) == 0 && (mounted.f_flag & ST_RDONLY) != 0) {
        return isProblem(name, "that of " + printable(app) + " is mounted read-only",
                         without + "Mount it so that it can be written.");
    }
    if (!mayLock) {
        return isProblem(name, "root may not set the immutable flag here",
                         without + "Give this container the capability CAP_LINUX_IMMUTABLE.");
    }
    return isOk(name, "has the immutable flag");
}

Check checkLog(const std::string& path) {
    return statusOf(path)
               ? isOk("log", "journalctl SUBSYSTEM=app.halvo CATEGORY=Helper")
               : isNotApplicable("log",
                                 "there is no journal; the helper writes to its standard error");
}

Check checkUserManager(const std::string& path) {
    const auto status = statusOf(path);
    return status && S_ISSOCK(status->st_mode)
               ? isOk("user manager", "their own systemd is there, and opens the app")
               : isNotApplicable(
                     "user manager",
                     "they have no systemd of their own; the helper opens the app itself");
}

HelperFiles helperFiles(const Machine& machine) {
    const std::string folder = machine.helper.substr(0, machine.helper.find_last_of('/'));
    return {{machine.helper, folder + "/halvoctl", folder + "/Info.plist"}, "/"};
}

// A helper in the unit's sandbox can lock nowhere else; else anywhere.
std::vector<std::string> otherApplications(Machine& machine) {
    const auto sandbox = sd_booted() > 0 ? readSandbox(machine.identity, machine.programs)
                                         : std::unexpected("systemd does not run here");
    return sandbox ? lockableFolders(*sandbox) : homeApplications();
}

Checks examineService(Machine& machine) {
    const bool isBooted = sd_booted() > 0;
    Checks checks =
        isBooted
            ? checkUnits(machine.identity, readUnits(machine.identity, machine.programs))
            : Checks{isNotApplicable("systemd", "does not run here; start the helper by hand: " +
                                                    printable(machine.helper))};
    checks.push_back(checkSocket(HelperBus::socketPath(machine.identity.helperBundleID()),
                                 isBooted || !machine.service.running().empty(),
                                 isBooted ? "systemctl restart " + socketUnit(machine.identity)
                                          : "Stop the helper and start it again."));
    checks.push_back(checkLog("/run/systemd/journal/socket"));
    return checks;
}

Checks examineApp(Machine& machine, const std::string& app) {
    Checks checks{checkAppFiles(app)};
    if (const auto gid = groupOfApp(app)) {
        const auto facts = readGroup(*gid);
        checks.push_back(facts ? checkGroup(*facts)
                               : isProblem("app's group", printable(facts.error()),
                                           "The helper must read it too: mend that file."));
    }
    checks.push_back(checkFlagSupport(app, !machine.isRoot || mayLockHere()));
    // Of what it does not lock anywhere, the app's place says so.
    if (sd_booted() > 0 && AppLocation::isLockablePath(app)) {
        checks.push_back(
            checkSandbox(machine.identity, app, readSandbox(machine.identity, machine.programs)));
    }
    return checks;
}

Checks examineSession(Machine&, std::uint32_t uid) {
    return {checkUserManager("/run/user/" + std::to_string(uid) + "/systemd/private")};
}

}  // namespace halvo::control
