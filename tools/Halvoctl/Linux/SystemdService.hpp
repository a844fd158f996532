// The helper under systemd (org.freedesktop.systemd1(5)), or started by hand where that does not
// run, and what doctor looks at on Linux.
#pragma once

#include "HalvoHelper/Linux/CallerRules.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {

struct Unit {
    std::string name;
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
};

// The helper's units.
struct Units {
    Unit socket;
    Unit service;
    // Starts the service at boot while a commitment is stored.
    Unit resume;
    // The folders of the service's ReadWritePaths=, without the "-" and "+" in front; absent where
    // ProtectSystem= is not "strict", and it can write everywhere (systemd.exec(5)).
    std::optional<std::vector<std::string>> writable;
};

// What systemd says of them, or why it says nothing, as a sentence without a full stop.
using Answer = std::expected<Units, std::string>;

// A bus on which systemd is reached.
struct BusAddress {
    // Of a Unix socket.
    std::string path;
    // A message broker's; else systemd itself is the other side.
    bool isBroker{};
};

// The service, which asks systemd once about the units, within `limit`, on the first of `buses`
// that answers. Without any systemd is not the machine's init system (sd_booted(3)).
std::unique_ptr<Service> systemdService(const Machine& machine, std::vector<BusAddress> buses,
                                        Seconds limit = Seconds{10});

// ------------------------------------------------------------------------------ parts of doctor

Checks checkUnits(const Answer& units);

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

// Whether the helper can lock the bundle at `app` from within the sandbox of its unit.
Check checkSandbox(const Answer& units, const std::string& app);

// The journal's socket at `path`.
Check checkLog(const std::string& path);

// The socket at `path` of a person's own systemd manager.
Check checkUserManager(const std::string& path);

}  // namespace halvo::control
