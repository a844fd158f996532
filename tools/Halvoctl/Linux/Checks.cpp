#include "tools/Halvoctl/Linux/Checks.hpp"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <string_view>
#include <system_error>

#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "tools/HalvoRecords/Wording.hpp"
#include "tools/Halvoctl/Doctor.hpp"
#include "tools/Halvoctl/Observation.hpp"

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

std::string adviceFor(GroupFlaw::Kind kind, const std::string& group) {
    switch (kind) {
        case GroupFlaw::Kind::roots:
            return "Give the app a group of its own: groupadd --system NAME, chgrp NAME, chmod "
                   "2755.";
        case GroupFlaw::Kind::unknown:
            return "Whoever makes that group next could pass for the app. Install the app again, "
                   "or "
                   "put the group into /etc/group.";
        case GroupFlaw::Kind::members:
            return "Take them out: gpasswd --delete USER " + group;
        case GroupFlaw::Kind::owners:
            return "Give the app a group that is nobody's.";
        case GroupFlaw::Kind::administrators:
            return "They can make anybody a member. Take them out: gpasswd --administrators '' " +
                   group;
        case GroupFlaw::Kind::password:
            return "Lock it: gpasswd --restrict " + group;
    }
    return "";
}

bool isWithin(const std::string& path, std::string folder) {
    if (!folder.ends_with('/')) {
        folder += '/';
    }
    return (path + "/").starts_with(folder);
}

// `path` as a unit file has it; systemd.unit(5), "Specifiers", and systemd.syntax(7), "Quoting".
std::string unitWord(const std::string& path) {
    std::string word;
    for (const char c : printable(path)) {
        word += c == '%' ? "%%" : std::string(1, c);
    }
    return word.contains(' ') ? "\"" + word + "\"" : word;
}

}  // namespace

Check noAnswer(const std::string& name, const std::string& problem) {
    return isProblem(name, problem, "Look whether systemctl works at all.");
}

Checks checkUnits(const HelperIdentity& identity, const std::expected<Units, std::string>& units) {
    if (!units) {
        return {noAnswer("systemd", units.error())};
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

std::optional<gid_t> groupOfApp(const std::string& app) {
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

Check checkGroup(const GroupFacts& facts) {
    const std::string name = "app's group";
    const std::string group = printable(facts.name.value_or(""));
    if (const auto flaw = flawOf(facts)) {
        return isProblem(name, printable(flaw->finding) + ", so the helper refuses the app",
                         adviceFor(flaw->kind, group));
    }
    return isOk(name, group + " (" + std::to_string(facts.gid) + ") is nobody's" +
                          (facts.hasShadow ? "" : ", as far as can be seen without root"));
}

Check checkSandbox(const HelperIdentity& identity, const std::string& app, const Sandbox& sandbox) {
    const std::string name = "sandbox";
    const std::string service = serviceUnit(identity);
    const std::string place = folderOf(app);
    if (!sandbox.isStrict ||
        std::ranges::any_of(sandbox.writable,
                            [&place](const std::string& each) { return isWithin(place, each); })) {
        return isOk(name, "the helper can lock what lies in " + printable(place));
    }
    const std::string finding =
        service + " may not write to " + printable(place) + ", so the helper cannot lock there";
    // ProtectHome= and PrivateTmp= put others in their place.
    constexpr std::array<const char*, 5> hidden{"/home", "/root", "/run/user", "/tmp", "/var/tmp"};
    for (const char* each : hidden) {
        if (isWithin(place, each)) {
            return isProblem(name, finding,
                             std::string("What lies below ") + each +
                                 " it cannot see at all. Install the app into /Applications.");
        }
    }
    const std::string word = unitWord(place);
    const std::string optional = word.starts_with('"') ? "\"-" + word.substr(1) : "-" + word;
    return isProblem(
        name, finding,
        "systemctl edit " + service + ", with the lines [Service], ReadWritePaths=" + optional +
            ", [Unit], RequiresMountsFor=" + word + "; then systemctl restart " + service);
}

std::vector<std::string> lockableFolders(const Sandbox& sandbox) {
    if (!sandbox.isStrict) {
        return homeApplications();
    }
    std::vector<std::string> folders = sandbox.writable;
    for (std::string& each : folders) {
        each += each.ends_with("/Applications") ? "" : "/Applications";
    }
    return folders;
}

HelperFiles helperFiles(const std::string& helper) {
    const std::string folder = folderOf(helper);
    return {{helper, folder + "/halvoctl", folder + "/Info.plist"}, "/"};
}

std::string clearCommand(const std::string& path) { return "chattr -i " + shellWord(path); }

}  // namespace halvo::control
