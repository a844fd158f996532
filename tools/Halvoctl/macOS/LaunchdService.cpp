#include "tools/Halvoctl/macOS/LaunchdService.hpp"

#include "HalvoHelper/macOS/HelperCopy.hpp"
#include "tools/Halvoctl/ReleaseLock.hpp"

namespace halvo::control {
namespace {

constexpr const char* launchctl = "/bin/launchctl";
constexpr Seconds askLimit{10};
// launchd gives the job 20 seconds to end.
constexpr Seconds stopLimit{30};

}  // namespace

LaunchdService::LaunchdService(const HelperIdentity& identity, HelperProcesses& processes,
                               Programs& programs)
    : identity_(identity),
      job_("system/" + identity.helperBundleID()),
      processes_(processes),
      programs_(programs) {}

std::vector<pid_t> LaunchdService::running() { return processes_.running(); }

std::vector<pid_t> LaunchdService::stopped() { return stoppedOf(processes_); }

std::expected<bool, std::string> LaunchdService::isLoaded() {
    const auto printed = programs_.run({launchctl, "print", job_}, {askLimit, {}});
    if (!printed) {
        return std::unexpected(printed.error());
    }
    return printed->status == 0;
}

std::string LaunchdService::whatStarts() {
    const auto loaded = isLoaded();
    if (!loaded) {
        return "nothing is known of what starts it: " + loaded.error();
    }
    return *loaded ? "it starts when the app calls, and at boot"
                   : "nothing starts it until the app registers it anew, or the next boot";
}

std::string LaunchdService::startCommand() const { return "launchctl kickstart " + job_; }

std::string LaunchdService::restartCommand() const { return "launchctl kickstart -k " + job_; }

std::expected<void, std::string> LaunchdService::stop(const Progress& progress) {
    const auto loaded = isLoaded();
    if (!loaded) {
        return std::unexpected(loaded.error() + ". Try again when launchd answers.");
    }
    if (*loaded) {
        const auto out = programs_.run({launchctl, "bootout", job_},
                                       {stopLimit, [&progress] {
                                            progress(
                                                "Waiting for launchd to stop the helper, at "
                                                "most 30 seconds.");
                                        }});
        if (!out) {
            return std::unexpected(out.error() + ". Try again.");
        }
        // It may report that the end is still under way; what counts is what is so.
        const auto remains = isLoaded();
        isOut_ = remains.has_value() && !*remains;
        if (!isOut_) {
            return std::unexpected("launchd did not stop the helper: launchctl bootout " + job_ +
                                   " ended with " + std::to_string(out->status) + ". Try again.");
        }
    }
    auto ended = endAll(processes_, progress);
    if (ended) {
        // One that was killed leaves it.
        HelperCopy::remove(identity_);
    }
    return ended;
}

std::expected<std::string, std::string> LaunchdService::resume(const Progress&) {
    return isOut_ ? "The helper is back at the next boot, or when the app registers it anew." : "";
}

std::string releaseLockPath(const HelperIdentity& identity) {
    return "/var/run/" + identity.helperBundleID() + ".release.lock";
}

std::unique_ptr<Service> liveService(const HelperIdentity& identity, const std::string&,
                                     HelperProcesses& processes, Programs& programs) {
    return std::make_unique<LaunchdService>(identity, processes, programs);
}

}  // namespace halvo::control
