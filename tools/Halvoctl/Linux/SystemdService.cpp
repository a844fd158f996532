#include "tools/Halvoctl/Linux/SystemdService.hpp"

#include <systemd/sd-daemon.h>

#include <utility>

#include "tools/Halvoctl/ReleaseLock.hpp"

namespace halvo::control {
namespace {

// systemd gives the service time to end, and kills it after that; then systemctl returns.
constexpr Seconds stopLimit{30};
constexpr Seconds startLimit{10};

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

// How `run` of systemctl failed, if it did.
std::string problemOf(const std::expected<Finished, std::string>& run) {
    if (!run) {
        return run.error();
    }
    if (run->status == 0) {
        return "";
    }
    return run->output.empty() ? "it ended with " + std::to_string(run->status)
                               : firstLine(run->output);
}

}  // namespace

SystemdService::SystemdService(HelperIdentity identity, std::string executable, bool isBooted,
                               HelperProcesses& processes, Programs& programs)
    : identity_(std::move(identity)),
      executable_(std::move(executable)),
      isBooted_(isBooted),
      processes_(processes),
      programs_(programs) {}

std::vector<pid_t> SystemdService::running() { return processes_.running(); }

std::vector<pid_t> SystemdService::stopped() { return stoppedOf(processes_); }

std::string SystemdService::restartCommand() const {
    return isBooted_ ? "systemctl restart " + serviceUnit(identity_) : "";
}

std::string SystemdService::startCommand() const {
    return isBooted_ ? "systemctl start " + serviceUnit(identity_) : executable_;
}

std::string SystemdService::whatStarts() {
    if (!isBooted_) {
        return "nothing starts it, since systemd does not run here; start it by hand: " +
               executable_;
    }
    const auto units = readUnits(identity_, programs_);
    if (!units) {
        return "nothing is known of what starts it: " + units.error();
    }
    if (units->service.isRestarting()) {
        return "it starts again in a moment, since it ended (" + units->service.result +
               "); if it stays so: journalctl --unit=" + serviceUnit(identity_);
    }
    if (units->socket.isActive()) {
        return units->resume.enabled == "enabled"
                   ? "it starts when the app calls, and at boot while a commitment is stored"
                   : "it starts when the app calls";
    }
    return "nothing starts it, since " + socketUnit(identity_) +
           " is not active: systemctl enable --now " + socketUnit(identity_);
}

std::expected<void, std::string> SystemdService::stop(const Progress& progress) {
    if (isBooted_) {
        const auto units = readUnits(identity_, programs_);
        if (!units) {
            return std::unexpected(units.error() + ". Try again when systemd answers.");
        }
        socket_ = units->socket;
        // The socket with the service: the app calls every 2 seconds, which would start it again.
        std::vector<std::string> words{systemctl, "stop", "--"};
        const std::size_t none = words.size();
        for (const auto& [name, unit] : {std::pair{socketUnit(identity_), units->socket},
                                         std::pair{serviceUnit(identity_), units->service}}) {
            if (unit.isLoaded() || unit.isUp()) {
                words.push_back(name);
            }
        }
        const std::string problem =
            words.size() > none
                ? problemOf(programs_.run(words, {stopLimit,
                                                  [&progress] {
                                                      progress(
                                                          "Waiting for systemd to stop the "
                                                          "helper, at most 30 seconds.");
                                                  }}))
                : "";
        if (!problem.empty()) {
            return std::unexpected("systemd did not stop the helper: " + problem +
                                   ". Look into systemctl status " + serviceUnit(identity_) +
                                   ", and try again.");
        }
    }
    // One that was started by hand, or that runs where there is no systemd.
    return endAll(processes_, progress);
}

std::expected<std::string, std::string> SystemdService::resume(const Progress& progress) {
    const std::string name = socketUnit(identity_);
    if (!socket_.isLoaded()) {
        return socket_.isUp() ? "The app cannot call the helper any more: " + name + " is " +
                                    socket_.load + ", and was stopped."
                              : "";
    }
    if (!socket_.isActive()) {
        return "The app cannot call the helper: " + name +
               " was stopped before, and stays so. To start it: systemctl start " + name;
    }
    const std::string problem = problemOf(programs_.run(
        {systemctl, "start", "--", name}, {startLimit, [&progress] {
                                               progress(
                                                   "Waiting for systemd to start the "
                                                   "helper's socket, at most 10 seconds.");
                                           }}));
    if (!problem.empty()) {
        return std::unexpected("The helper's socket could not be started again: " + problem +
                               ". Start it: systemctl start " + name);
    }
    return "";
}

std::string releaseLockPath(const HelperIdentity& identity) {
    return "/run/" + identity.helperBundleID() + ".release.lock";
}

std::unique_ptr<Service> liveService(const HelperIdentity& identity, const std::string& executable,
                                     HelperProcesses& processes, Programs& programs) {
    return std::make_unique<SystemdService>(identity, executable, sd_booted() > 0, processes,
                                            programs);
}

}  // namespace halvo::control
