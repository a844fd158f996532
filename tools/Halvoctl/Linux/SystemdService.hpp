// The helper under systemd (org.freedesktop.systemd1(5)), or started by hand where that does not
// run, and what doctor looks at on Linux.
#pragma once

#include "HalvoHelper/Linux/CallerRules.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {

// The names of the helper's units.
inline std::string socketUnit(const HelperIdentity& identity) {
    return identity.helperBundleID() + ".socket";
}

inline std::string serviceUnit(const HelperIdentity& identity) {
    return identity.helperBundleID() + ".service";
}

// Starts the service at boot while a commitment is stored.
inline std::string resumeUnit(const HelperIdentity& identity) {
    return identity.helperBundleID() + "-resume.service";
}

struct Unit {
    // "loaded", "not-found", "masked", ...
    std::string load;
    // "active", "inactive", "failed", ...
    std::string active;
    // "enabled", "disabled", "static", ...; empty when there is no file.
    std::string enabled;
    // "success", or why it failed.
    std::string result;
    // "running", "listening", "auto-restart", ...
    std::string sub;

    [[nodiscard]] bool isLoaded() const { return load == "loaded"; }

    // It runs, or is about to.
    [[nodiscard]] bool isActive() const { return active == "active" || active == "activating"; }

    // There is something to stop, also of a unit whose file is gone or masked since it was started.
    [[nodiscard]] bool isUp() const {
        return !active.empty() && active != "inactive" && active != "failed";
    }

    // It ended, and systemd starts it again in a moment; active too.
    [[nodiscard]] bool isRestarting() const { return sub.starts_with("auto-restart"); }

    bool operator==(const Unit&) const = default;
};

// What the service's unit says of files; systemd.exec(5). A unit that is not loaded says nothing.
struct Sandbox {
    // ProtectSystem=strict: all is read-only but for `writable`.
    bool isStrict{};
    // The folders of ReadWritePaths=, without the "-" and "+" in front.
    std::vector<std::string> writable;

    bool operator==(const Sandbox&) const = default;
};

// The helper's units.
struct Units {
    Unit socket;
    Unit service;
    Unit resume;
    Sandbox sandbox;
};

// systemd, as it is asked.
struct Systemd {
    enum class Job { stop, start };

    // The units of the helper. Takes at most 10 seconds. Fails with a sentence without a full stop.
    std::function<std::expected<Units, std::string>(const HelperIdentity& identity)> units;

    // Stops, or starts, the units called `names`, and waits until they are inactive, or active: at
    // most for `limit`; says `line` when that takes a second. Fails with a sentence without a full
    // stop.
    std::function<std::expected<void, std::string>(Job job, const std::vector<std::string>& names,
                                                   Seconds limit, const std::string& line)>
        run;
};

// A bus on which systemd is reached.
struct BusAddress {
    // Of a Unix socket.
    std::string path;
    // A message broker's; else systemd itself is the other side.
    bool isBroker{};
};

// The machine's own, which connects for each call. Borrows `waiter`. `buses`: those to try, in
// order. `limit`: of units().
Systemd liveSystemd(Waiter& waiter, const std::vector<BusAddress>& buses, Seconds limit);

// The service, which asks systemd once about the units. `systemd`: nothing where it is not the
// machine's init system (sd_booted(3)).
std::unique_ptr<Service> systemdService(const ServiceParts& parts, std::optional<Systemd> systemd);

// ------------------------------------------------------------------------------ parts of doctor

// What `name` could not be looked at for: systemd did not answer, as `problem` says.
Check noAnswer(const std::string& name, const std::string& problem);

// The helper's units.
Checks checkUnits(const HelperIdentity& identity, const std::expected<Units, std::string>& units);

// The socket at `path`. `isExpected`: systemd listens, or should, or a helper that runs. `remedy`:
// what makes it anew.
Check checkSocket(const std::string& path, bool isExpected, const std::string& remedy);

// The files of the bundle at `app` that the helper judges a caller by, and the mount below them.
Check checkAppFiles(const std::string& app);

// The group that the executable of the bundle at `app` carries, if it carries one.
std::optional<gid_t> groupOfApp(const std::string& app);

// The app's private group. The helper refuses an app whose group others could have.
Check checkGroup(const GroupFacts& facts);

// Whether the file system of the bundle at `app` has the flag, and can be written. `mayLock`: root
// in this machine or container may set it (CAP_LINUX_IMMUTABLE, capabilities(7)).
Check checkFlagSupport(const std::string& app, bool mayLock);

// Whether the helper can lock the bundle at `app` from within `sandbox`.
Check checkSandbox(const HelperIdentity& identity, const std::string& app, const Sandbox& sandbox);

// The folders of `sandbox` in which the helper can lock bundles; without a strict one, those of
// homeApplications().
std::vector<std::string> lockableFolders(const Sandbox& sandbox);

// The journal's socket at `path`.
Check checkLog(const std::string& path);

// The socket at `path` of a person's own systemd manager.
Check checkUserManager(const std::string& path);

}  // namespace halvo::control
