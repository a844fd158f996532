#include "tools/Halvoctl/Linux/SystemdService.hpp"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <systemd/sd-daemon.h>

#include <utility>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "tools/HalvoRecords/Wording.hpp"
#include "tools/Halvoctl/Linux/Checks.hpp"

namespace halvo::control {
namespace {

using records::printable;

bool mayLockHere() { return prctl(PR_CAPBSET_READ, CAP_LINUX_IMMUTABLE, 0, 0, 0) == 1; }

}  // namespace

SystemdService::SystemdService(HelperIdentity identity, std::string executable,
                               std::unique_ptr<Systemd> systemd, HelperProcesses& processes,
                               Waiter& waiter)
    : identity_(std::move(identity)),
      executable_(std::move(executable)),
      systemd_(std::move(systemd)),
      processes_(processes),
      waiter_(waiter) {}

const std::expected<Units, std::string>& SystemdService::units() {
    if (!units_) {
        units_ = systemd_->units(identity_);
    }
    return *units_;
}

std::string SystemdService::restartCommand() const {
    return systemd_ ? "systemctl restart " + serviceUnit(identity_) : "";
}

std::string SystemdService::startCommand() const {
    return systemd_ ? "systemctl start " + serviceUnit(identity_) : executable_;
}

std::string SystemdService::whatStarts() {
    if (!systemd_) {
        return "nothing starts it, since systemd does not run here; start it by hand: " +
               executable_;
    }
    if (!units()) {
        return "nothing is known of what starts it: " + units().error();
    }
    if (units()->service.isRestarting()) {
        return "it starts again in a moment, since it ended (" + units()->service.result +
               "); if it stays so: journalctl --unit=" + serviceUnit(identity_);
    }
    if (units()->socket.isActive()) {
        return units()->resume.enabled == "enabled"
                   ? "it starts when the app calls, and at boot while a commitment is stored"
                   : "it starts when the app calls";
    }
    return "nothing starts it, since " + socketUnit(identity_) +
           " is not active: systemctl enable --now " + socketUnit(identity_);
}

std::expected<void, std::string> SystemdService::stop() {
    if (systemd_) {
        if (!units()) {
            return std::unexpected(units().error() + ". Try again when systemd answers.");
        }
        // The socket with the service: the app calls every 2 seconds, which would start it again.
        std::vector<std::string> names;
        for (const auto& [name, unit] : {std::pair{socketUnit(identity_), units()->socket},
                                         std::pair{serviceUnit(identity_), units()->service}}) {
            if (unit.isLoaded() || unit.isUp()) {
                names.push_back(name);
            }
        }
        // systemd gives the service time to end, and kills it after that.
        const auto stopped =
            names.empty()
                ? std::expected<void, std::string>()
                : systemd_->stop(names, Seconds{30},
                                 "Waiting for systemd to stop the helper, at most 30 seconds.");
        if (!stopped) {
            return std::unexpected("systemd did not stop the helper: " + stopped.error() +
                                   ". Look into systemctl status " + serviceUnit(identity_) +
                                   ", and try again.");
        }
    }
    // One that was started by hand, or that runs where there is no systemd.
    return endAll(processes_, waiter_);
}

std::expected<std::string, std::string> SystemdService::resume() {
    const std::string name = socketUnit(identity_);
    const Unit socket = systemd_ && units() ? units()->socket : Unit{};
    if (!socket.isLoaded()) {
        return socket.isUp() ? "The app cannot call the helper any more: " + name + " is " +
                                   socket.load + ", and was stopped."
                             : "";
    }
    if (!socket.isActive()) {
        return "The app cannot call the helper: " + name +
               " was stopped before, and stays so. To start it: systemctl start " + name;
    }
    const auto started =
        systemd_->start({name}, Seconds{10},
                        "Waiting for systemd to start the helper's socket, at most 10 seconds.");
    if (!started) {
        return std::unexpected("The helper's socket could not be started again: " +
                               started.error() + ". Start it: systemctl start " + name);
    }
    return "";
}

std::vector<std::string> SystemdService::otherApplications() {
    return systemd_ && units() ? lockableFolders(units()->sandbox) : homeApplications();
}

Checks SystemdService::examine() {
    Checks checks =
        systemd_
            ? checkUnits(identity_, units())
            : Checks{isNotApplicable("systemd", "does not run here; start the helper by hand: " +
                                                    printable(executable_))};
    checks.push_back(checkSocket(HelperBus::socketPath(identity_.helperBundleID()),
                                 systemd_ || !processes_.running().empty(),
                                 systemd_ ? "systemctl restart " + socketUnit(identity_)
                                          : "Stop the helper and start it again."));
    checks.push_back(checkLog("/run/systemd/journal/socket"));
    return checks;
}

Checks SystemdService::examineApp(const std::string& app, bool isRoot) {
    Checks checks{checkAppFiles(app)};
    if (const auto gid = groupOfApp(app)) {
        const auto facts = readGroup(*gid);
        checks.push_back(facts ? checkGroup(*facts)
                               : isProblem("app's group", printable(facts.error()),
                                           "The helper must read it too: mend that file."));
    }
    checks.push_back(checkFlagSupport(app, !isRoot || mayLockHere()));
    // Of what it does not lock anywhere, the app's place says so.
    if (systemd_ && AppLocation::isLockablePath(app)) {
        checks.push_back(units() ? checkSandbox(identity_, app, units()->sandbox)
                                 : noAnswer("sandbox", units().error()));
    }
    return checks;
}

Checks SystemdService::examineSession(std::uint32_t uid) {
    return {checkUserManager("/run/user/" + std::to_string(uid) + "/systemd/private")};
}

std::string releaseLockPath(const HelperIdentity& identity) {
    return "/run/" + identity.helperBundleID() + ".release.lock";
}

std::unique_ptr<Service> liveService(const HelperIdentity& identity, const std::string& executable,
                                     HelperProcesses& processes, Waiter& waiter) {
    auto systemd = sd_booted() > 0 ? std::make_unique<LiveSystemd>(waiter) : nullptr;
    return std::make_unique<SystemdService>(identity, executable, std::move(systemd), processes,
                                            waiter);
}

}  // namespace halvo::control
