#include "tools/Halvoctl/macOS/LaunchdService.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <system_error>
#include <utility>

#include "HalvoHelper/ArgumentVector.hpp"
#include "HalvoHelper/macOS/HelperCopy.hpp"

namespace halvo::control {
namespace {

constexpr Seconds askLimit{10};
// launchd gives the job 20 seconds to end.
constexpr Seconds stopLimit{30};

// Starts a program as LiveLaunchctl says. Gives 0 or an errno.
int spawn(const std::vector<std::string>& words, pid_t& child) {
    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    sigset_t none{};
    sigset_t all{};
    sigemptyset(&none);
    sigfillset(&all);
    constexpr short flags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    // 0, or the errno of one that failed.
    int code = std::max(
        {posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDWR, 0),
         posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDOUT_FILENO),
         posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDERR_FILENO),
         posix_spawnattr_setpgroup(&attributes, 0), posix_spawnattr_setsigmask(&attributes, &none),
         posix_spawnattr_setsigdefault(&attributes, &all),
         posix_spawnattr_setflags(&attributes, flags)});
    if (code == 0) {
        const ArgumentVector arguments(words);
        const ArgumentVector environment({"PATH=/usr/bin:/bin:/usr/sbin:/sbin", "LC_ALL=C"});
        code = posix_spawn(&child, words.front().c_str(), &actions, &attributes, arguments.data(),
                           environment.data());
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return code;
}

}  // namespace

std::expected<int, std::string> LiveLaunchctl::run(const std::vector<std::string>& words,
                                                   Seconds limit, const std::string& line) {
    std::vector<std::string> all{program_};
    all.insert(all.end(), words.begin(), words.end());
    pid_t child = 0;
    if (const int code = spawn(all, child); code != 0) {
        return std::unexpected(program_ +
                               " cannot be started: " + std::generic_category().message(code));
    }
    int status = 0;
    const auto hasEnded = [&] { return waitpid(child, &status, WNOHANG) == child; };
    if (!waiter_.wait(hasEnded, limit, line)) {
        kill(-child, SIGKILL);
        waitpid(child, &status, 0);
        return std::unexpected(program_ + " takes too long; it was stopped");
    }
    constexpr int signalled = 128;
    return WIFEXITED(status) ? WEXITSTATUS(status) : signalled + WTERMSIG(status);
}

LaunchdService::LaunchdService(const HelperIdentity& identity, std::string executable,
                               std::unique_ptr<Launchctl> launchctl, HelperProcesses& processes,
                               Waiter& waiter)
    : identity_(identity),
      executable_(std::move(executable)),
      job_("system/" + identity.helperBundleID()),
      launchctl_(std::move(launchctl)),
      processes_(processes),
      waiter_(waiter) {}

std::expected<bool, std::string> LaunchdService::isLoaded() {
    const auto status = launchctl_->run({"print", job_}, askLimit, "");
    if (!status) {
        return std::unexpected(status.error());
    }
    return *status == 0;
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

std::expected<void, std::string> LaunchdService::stop() {
    const auto loaded = isLoaded();
    if (!loaded) {
        return std::unexpected(loaded.error() + ". Try again when launchd answers.");
    }
    if (*loaded) {
        const auto out =
            launchctl_->run({"bootout", job_}, stopLimit,
                            "Waiting for launchd to stop the helper, at most 30 seconds.");
        if (!out) {
            return std::unexpected(out.error() + ". Try again.");
        }
        // It may report that the end is still under way; what counts is what is so.
        const auto remains = isLoaded();
        isOut_ = remains.has_value() && !*remains;
        if (!isOut_) {
            return std::unexpected("launchd did not stop the helper: launchctl bootout " + job_ +
                                   " ended with " + std::to_string(*out) + ". Try again.");
        }
    }
    auto ended = endAll(processes_, waiter_);
    if (ended) {
        // One that was killed leaves it.
        HelperCopy::remove(identity_);
    }
    return ended;
}

std::expected<std::string, std::string> LaunchdService::resume() {
    return isOut_ ? "The helper is back at the next boot, or when the app registers it anew." : "";
}

std::vector<std::string> LaunchdService::otherApplications() { return homeApplications(); }

Checks LaunchdService::examine() { return {checkOpening(executable_, identity_)}; }

Checks LaunchdService::examineApp(const std::string&, bool) { return {}; }

Checks LaunchdService::examineSession(std::uint32_t) { return {}; }

std::string releaseLockPath(const HelperIdentity& identity) {
    return "/var/run/" + identity.helperBundleID() + ".release.lock";
}

std::unique_ptr<Service> liveService(const HelperIdentity& identity, const std::string& executable,
                                     HelperProcesses& processes, Waiter& waiter) {
    return std::make_unique<LaunchdService>(
        identity, executable, std::make_unique<LiveLaunchctl>(waiter), processes, waiter);
}

}  // namespace halvo::control
