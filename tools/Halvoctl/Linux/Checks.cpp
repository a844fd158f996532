#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>

#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "tools/HalvoRecords/TerminalText.hpp"
#include "tools/Halvoctl/Linux/SystemdService.hpp"

namespace halvo::control {
namespace {

using records::printable;

// lstat(2) of `path`; all zero when it fails.
struct stat lstatOf(const std::string& path) {
    struct stat status{};
    return lstat(path.c_str(), &status) == 0 ? status : decltype(status){};
}

// A unit must be loaded; some must also be enabled, and active.
Check checkUnit(const Unit& unit, bool mustBeEnabled, bool mustBeActive) {
    const std::string& name = unit.name;
    const std::string result = printable(unit.result);
    const std::string finding = name + " is " + printable(unit.load);
    return firstOf(
        "systemd",
        {{unit.load == "masked", finding, "systemctl unmask " + name},
         {!unit.isLoaded(), finding, "Install the helper's package again."},
         {unit.active == "failed", name + " has failed: " + result,
          "Look into systemctl status " + name +
              ", fix what it names, then: systemctl reset-failed " + name},
         {unit.isRestarting(), name + " ended, and systemd starts it again: " + result,
          "Look again. If it stays so, the journal says why: journalctl --unit=" + name},
         {mustBeEnabled && unit.enabled != "enabled", name + " is not enabled",
          "systemctl enable " + name},
         {mustBeActive && !unit.isActive(), name + " is not active", "systemctl start " + name}},
        name + " is " + (unit.enabled.empty() ? "" : printable(unit.enabled) + ", ") +
            printable(unit.active));
}

// Whether a socket bound to `path` listens (proc_net(5)), without connecting, which would start the
// helper. If that cannot be read, it counts as listening.
bool isListening(const std::string& path) {
    std::ifstream sockets("/proc/net/unix");
    bool isFound = !sockets;
    for (std::string line; !isFound && std::getline(sockets, line);) {
        // __SO_ACCEPTCON of the kernel's <linux/net.h>, as it is printed.
        isFound = line.ends_with(" " + path) && line.contains(" 00010000 ");
    }
    return isFound;
}

bool isWithin(const std::string& path, const std::string& folder) {
    return (path + "/").starts_with(folder.ends_with('/') ? folder : folder + "/");
}

// `mark` and `path` as one word of a unit file; systemd.unit(5), "Specifiers", and
// systemd.syntax(7), "Quoting".
std::string unitWord(const std::string& mark, const std::string& path) {
    std::string word = mark;
    for (const char c : printable(path)) {
        word += c == '%' ? "%%" : std::string(1, c);
    }
    return word.contains(' ') ? "\"" + word + "\"" : word;
}

}  // namespace

Checks checkUnits(const Units& units) {
    return {checkUnit(units.socket, true, true), checkUnit(units.service, false, false),
            checkUnit(units.resume, true, false)};
}

Check checkSocket(const std::string& path, bool isExpected, const std::string& remedy) {
    const mode_t mode = lstatOf(path).st_mode;
    if (mode == 0 && !isExpected) {
        return isNotApplicable("socket", "the helper makes " + path + " when it runs");
    }
    constexpr mode_t permissions = 0777;
    constexpr mode_t allUsers = 0666;
    return firstOf(
        "socket",
        {{mode == 0, "there is none at " + path, remedy},
         {!S_ISSOCK(mode), path + " is not a socket", "Remove it, then: " + remedy},
         {lstatOf(path).st_uid != 0 || (mode & permissions) != allUsers,
          path + " is not owned by root with mode 0666, which lets all users call", remedy},
         {!isListening(path), "no process listens at " + path, remedy}},
        path);
}

Checks checkAppFiles(const std::string& app) {
    const std::string refused = ", so the helper refuses the app";
    const Bundle bundle(app);
    const std::string executable = bundle.executablePath().value_or("");
    const std::string shown = printable(executable);
    const std::string word = shellWord(executable);
    const auto flaw = RootOwnedPath::problem(executable);
    const auto problem = flaw ? flaw : RootOwnedPath::problem(bundle.infoPath());
    struct statvfs mounted{};
    // May block on a file system that an ordinary user has mounted.
    if (!problem) {
        statvfs(executable.c_str(), &mounted);
    }
    const auto gid = privateGroup(lstatOf(executable));
    Checks checks{firstOf(
        "app's files",
        {{executable.empty(), printable(app) + " has no executable that its Info.plist names",
          "Install the app again."},
         {problem.has_value(), printable(problem.value_or("")) + refused,
          "Install the app as root, in folders that only root can write to."},
         {!gid, shown + " is not set-group-id" + refused,
          "Give it a group of its own, and the bit: chgrp GROUP " + word + " && chmod 2755 " +
              word},
         {(mounted.f_flag & ST_NOSUID) != 0,
          shown + " lies on a file system mounted with nosuid, where the kernel ignores the "
                  "set-group-id bit",
          "Mount it without nosuid, or install the app elsewhere."}},
        "root's alone, the executable set-group-id")};
    if (gid) {
        checks.push_back(checkGroup(readGroup(*gid)));
    }
    return checks;
}

Check checkFlagSupport(const std::string& app, bool mayLock) {
    const std::string shown = printable(app);
    const std::string without = "The commitment holds without the lock there. ";
    const Descriptor folder(
        open(app.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    const int openError = errno;
    int flags = 0;
    const bool hasFlags = ioctl(folder.get(), FS_IOC_GETFLAGS, &flags) == 0;
    const int flagError = errno;
    struct statvfs mounted{};
    fstatvfs(folder.get(), &mounted);
    return firstOf(
        "file system",
        {{!folder.isOpen(), shown + ": " + errorText(openError), "Install the app again."},
         {!hasFlags,
          "the file system of " + shown + " does not support the immutable flag (" +
              errorText(flagError) + ")",
          without + "Install the app on ext4, btrfs, xfs or a tmpfs of Linux 6.6."},
         {(mounted.f_flag & ST_RDONLY) != 0,
          "the file system of " + shown + " is mounted read-only",
          without + "Mount it so that it can be written."},
         {!mayLock, "root may not set the immutable flag here",
          without + "Give this container the capability CAP_LINUX_IMMUTABLE."}},
        "has the immutable flag");
}

Check checkOptionalSocket(const std::string& name, const std::string& path,
                          const std::string& present, const std::string& absent) {
    return S_ISSOCK(lstatOf(path).st_mode) ? isOk(name, present) : isNotApplicable(name, absent);
}

Check checkGroup(const std::expected<GroupFacts, std::string>& facts) {
    const std::string name = "app's group";
    if (!facts) {
        return isProblem(name, printable(facts.error()),
                         "The helper must read it too: repair that file.");
    }
    const std::string group = printable(facts->name.value_or(""));
    if (const auto flaw = flawOf(*facts)) {
        // In the order of GroupFlaw::Kind.
        const std::array<std::string, 6> advice{
            "Give the app a group of its own: groupadd --system NAME, chgrp NAME, chmod 2755.",
            "A new group may get this number, and its members could pass for the app. Install the "
            "app again, or put the group into /etc/group.",
            "Remove them: gpasswd --delete USER " + group,
            "Give the app a group of its own.",
            "They can add members. Remove them: gpasswd --administrators '' " + group,
            "Lock it: gpasswd --restrict " + group};
        return isProblem(name, printable(flaw->finding) + ", so the helper refuses the app",
                         advice.at(static_cast<std::size_t>(flaw->kind)));
    }
    return isOk(name, group + " (" + std::to_string(facts->gid) + ") is the app's alone" +
                          (facts->hasShadow ? "" : ", as far as can be seen without root"));
}

Check checkSandbox(const Units& units, const std::string& app) {
    const std::string& service = units.service.name;
    const std::string place = folderOf(app);
    const std::string shown = printable(place);
    const auto holdsPlace = [&place](const std::string& each) { return isWithin(place, each); };
    const auto& writable = units.writable;
    const bool mayWrite = !writable || std::ranges::any_of(*writable, holdsPlace);
    // ProtectHome= and PrivateTmp= mount other folders over these.
    const std::array<std::string, 5> hidden{"/home", "/root", "/run/user", "/tmp", "/var/tmp"};
    const auto* above = std::ranges::find_if(hidden, holdsPlace);
    return firstOf(
        "sandbox",
        {{!mayWrite, service + " may not write to " + shown + ", so the helper cannot lock there",
          above != hidden.end()
              ? "What lies below " + *above +
                    " it cannot see at all. Install the app into /Applications."
              : "systemctl edit " + service + ", with the lines [Service], ReadWritePaths=" +
                    unitWord("-", place) + ", [Unit], RequiresMountsFor=" + unitWord("", place) +
                    "; then systemctl restart " + service}},
        "the helper can lock what lies in " + shown);
}

std::string clearCommand(const std::string& path) { return "chattr -i " + shellWord(path); }

}  // namespace halvo::control
