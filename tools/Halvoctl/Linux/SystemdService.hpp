// The helper's systemd units (org.freedesktop.systemd1(5)), or a helper started by hand where
// systemd is not the init system; and what doctor checks on Linux only.
#pragma once

#include "HalvoHelper/Linux/CallerRules.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {

// The properties of one unit, as systemd names their values.
struct Unit {
    std::string name;
    // "loaded", "not-found", "masked", ...
    std::string load;
    // "active", "inactive", "failed", ...
    std::string active;
    // "enabled", "disabled", "static", ...; empty without a unit file.
    std::string enabled;
    // "success", or why it failed.
    std::string result;
    // "running", "listening", "auto-restart", ...
    std::string sub;

    [[nodiscard]] bool isLoaded() const { return load == "loaded"; }

    [[nodiscard]] bool isActive() const { return active == "active" || active == "activating"; }

    // Whether it has to be stopped. A unit whose file was removed or masked may still be active.
    [[nodiscard]] bool isUp() const {
        return !active.empty() && active != "inactive" && active != "failed";
    }

    // Whether it ended and systemd is about to start it again; it counts as active meanwhile.
    [[nodiscard]] bool isRestarting() const { return sub.starts_with("auto-restart"); }
};

// The helper's units.
struct Units {
    Unit socket;
    Unit service;
    // Starts the service at boot while a commitment is stored.
    Unit resume;
    // The service's ReadWritePaths=, without "-" and "+" in front; absent unless ProtectSystem= is
    // "strict": then it can write everywhere (systemd.exec(5)).
    std::optional<std::vector<std::string>> writable;
};

// The Unix socket on which systemd is reached.
struct BusAddress {
    std::string path;
    // A message broker listens there, not systemd itself.
    bool isBroker{};
};

// The service, which asks systemd on `bus` once about the units, within `limit`. Without a bus
// systemd is not the machine's init system (sd_booted(3)).
std::unique_ptr<Service> systemdService(const Machine& machine, std::optional<BusAddress> bus,
                                        Seconds limit = Seconds{10});

// ------------------------------------------------------------------------------- checks of doctor

Checks checkUnits(const Units& units);

// The socket at `path`. `isExpected`: without it, a missing socket is no problem. `remedy`: what
// makes a new one.
Check checkSocket(const std::string& path, bool isExpected, const std::string& remedy);

// The files of the bundle at `app` by which the helper admits it, and their mount; then, for a
// set-group-id executable, its group (checkGroup()).
Checks checkAppFiles(const std::string& app);

// The app's private group, of which `facts` may be an error. The helper refuses an app with a group
// that other processes could have.
Check checkGroup(const std::expected<GroupFacts, std::string>& facts);

// Whether the file system of the bundle at `app` has the immutable flag and is writable. `mayLock`:
// root has CAP_LINUX_IMMUTABLE (capabilities(7)).
Check checkFlagSupport(const std::string& app, bool mayLock);

// Whether the helper can lock the bundle at `app` from within the sandbox of its unit.
Check checkSandbox(const Units& units, const std::string& app);

// A socket that need not exist. `present`, `absent`: the finding if it does, and if it does not.
Check checkOptionalSocket(const std::string& name, const std::string& path,
                          const std::string& present, const std::string& absent);

}  // namespace halvo::control
