#include "tools/Halvoctl/macOS/LaunchdService.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <utility>

#include "HalvoHelper/ArgumentVector.hpp"
#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoHelper/macOS/HelperCopy.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "tools/HalvoRecords/TerminalText.hpp"

namespace halvo::control {
namespace {

using records::printable;

// Starts a program as described for runAndWait(). Returns 0 or an errno.
int spawn(const std::vector<std::string>& words, pid_t& child) {
    const ArgumentVector arguments(words);
    const ArgumentVector environment({"PATH=/usr/bin:/bin:/usr/sbin:/sbin", "LC_ALL=C"});
    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    sigset_t none{};
    sigset_t all{};
    sigemptyset(&none);
    sigfillset(&all);
    constexpr short flags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    // 0, or the errno of a call that failed.
    int code =
        std::max({posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDWR, 0),
                  posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDOUT_FILENO),
                  posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDERR_FILENO),
                  posix_spawnattr_setsigmask(&attributes, &none),
                  posix_spawnattr_setsigdefault(&attributes, &all),
                  posix_spawnattr_setflags(&attributes, flags)});
    if (code == 0) {
        code = posix_spawn(&child, words.front().c_str(), &actions, &attributes, arguments.data(),
                           environment.data());
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return code;
}

class LaunchdService final : public Service {
  public:
    LaunchdService(const Machine& machine, Run run) : machine_(machine), run_(std::move(run)) {
        startCommand = "launchctl kickstart " + job_;
        restartCommand = "launchctl kickstart -k " + job_;
        releaseLock = "/var/run/" + machine.identity.helperBundleID() + ".release.lock";
    }

    std::string whatStarts() override {
        const auto printed = printJob();
        if (!printed) {
            return "nothing is known of what starts it: " + printed.error();
        }
        return *printed == 0
                   ? "it starts when the app calls, and at boot"
                   : "nothing starts it until the app registers it anew, or the next boot";
    }

    // Removes the job from launchd, which would start the helper again after SIGTERM alone.
    std::expected<void, std::string> stop() override {
        const auto printed = printJob();
        if (!printed) {
            return std::unexpected(printed.error() + ". Try again when launchd answers.");
        }
        if (*printed == 0) {
            // launchd kills the job after 20 seconds.
            const auto out =
                launchctl("bootout", Seconds{30},
                          "Waiting for launchd to stop the helper, at most 30 seconds.");
            if (!out) {
                return std::unexpected(out.error() + ". Try again.");
            }
            // bootout may also report that the job is still ending.
            isOut_ = printJob().value_or(0) != 0;
            if (!isOut_) {
                return std::unexpected("launchd did not stop the helper: launchctl bootout " +
                                       job_ + " ended with " + std::to_string(*out) +
                                       ". Try again.");
            }
        }
        auto ended = endAll(machine_.processes, machine_.waiter);
        if (ended) {
            // A helper that was killed leaves its copy.
            HelperCopy::remove(machine_.identity);
        }
        return ended;
    }

    // Only the app's registration (SMAppService) and the next boot load the job again.
    std::expected<std::string, std::string> resume() override {
        return isOut_ ? "The helper is back at the next boot, or when the app registers it anew."
                      : "";
    }

    // What launchd knows of the job is part of whatStarts().
    Checks examine() override {
        const std::string& helper = machine_.helper;
        // Only from the bundle downwards: /Applications is writable for the group admin.
        const std::size_t bundle = helper.rfind("/Contents/");
        const std::string top =
            bundle == std::string::npos ? folderOf(helper) : helper.substr(0, bundle);
        return {checkHelperFiles({helper, folderOf(helper) + "/halvoctl"}, top,
                                 "A user who can change the helper can keep it from starting, and "
                                 "one who can change halvoctl becomes root when an administrator "
                                 "runs it."),
                checkOpening(helper, machine_.identity)};
    }

  private:
    std::expected<int, std::string> launchctl(const char* command, Seconds limit,
                                              const std::string& line) {
        return run_(machine_.waiter, {"/bin/launchctl", command, job_}, limit, line);
    }

    // 0 if launchd has the job.
    std::expected<int, std::string> printJob() { return launchctl("print", Seconds{10}, ""); }

    const Machine& machine_;
    Run run_;
    std::string job_ = "system/" + machine_.identity.helperBundleID();
    // stop() removed the job.
    bool isOut_ = false;
};

}  // namespace

std::expected<int, std::string> runAndWait(Waiter& waiter, const std::vector<std::string>& words,
                                           Seconds limit, const std::string& line) {
    pid_t child = 0;
    if (const int code = spawn(words, child); code != 0) {
        return std::unexpected(words.front() + " cannot be started: " + errorText(code));
    }
    int status = 0;
    const auto hasEnded = [&] { return waitpid(child, &status, WNOHANG) == child; };
    if (!waiter.wait(hasEnded, limit, line)) {
        kill(-child, SIGKILL);
        waitpid(child, &status, 0);
        return std::unexpected(words.front() + " takes too long; it was stopped");
    }
    constexpr int signalled = 128;
    return WIFEXITED(status) ? WEXITSTATUS(status) : signalled + WTERMSIG(status);
}

std::unique_ptr<Service> launchdService(const Machine& machine, Run run) {
    return std::make_unique<LaunchdService>(machine, std::move(run));
}

std::unique_ptr<Service> liveService(const Machine& machine) {
    return launchdService(machine, runAndWait);
}

Check checkOpening(const std::string& helper, const HelperIdentity& identity) {
    const auto problem = RootOwnedPath::problem(helper);
    if (!problem) {
        return isOk("opening", "by the helper's own executable, which is root's alone");
    }
    const std::string shown = printable(*problem);
    const auto checked = checkCodeSignature(helper, identity.helperRequirement());
    const std::string folder = HelperCopy::folder(identity);
    const auto flaw = RootOwnedPath::examine(folder, RootOwnedPath::Item::folder);
    return firstOf(
        "opening",
        {{!checked,
          printable(checked ? "" : checked.error()) + "; so the app is not opened again, since " +
              shown,
          "Install the app again."},
         {flaw && flaw->code != ENOENT,
          printable(flaw.value_or(FileError{}).message) + "; so the app is not opened again",
          "rm -r " + shellWord(folder)}},
        "through a checked copy of the helper in " + printable(folder) + ", since " + shown);
}

std::string clearCommand(const std::string& path) { return "chflags noschg " + shellWord(path); }

}  // namespace halvo::control
