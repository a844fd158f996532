#include "tools/Halvoctl/macOS/LaunchdService.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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

// Starts a program as liveLaunchctl() says. Gives 0 or an errno.
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
    // 0, or the errno of one that failed.
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
    LaunchdService(const Machine& machine, Launchctl launchctl)
        : machine_(machine), launchctl_(std::move(launchctl)) {
        startCommand = "launchctl kickstart " + job_;
        restartCommand = "launchctl kickstart -k " + job_;
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

    // Takes the job out of launchd: SIGTERM alone would have it start the helper again.
    std::expected<void, std::string> stop() override {
        const auto printed = printJob();
        if (!printed) {
            return std::unexpected(printed.error() + ". Try again when launchd answers.");
        }
        if (*printed == 0) {
            // launchd gives the job 20 seconds to end.
            const auto out =
                launchctl_({"bootout", job_}, Seconds{30},
                           "Waiting for launchd to stop the helper, at most 30 seconds.");
            if (!out) {
                return std::unexpected(out.error() + ". Try again.");
            }
            // It may report that the end is still under way; what counts is what is so.
            isOut_ = printJob().value_or(0) != 0;
            if (!isOut_) {
                return std::unexpected("launchd did not stop the helper: launchctl bootout " +
                                       job_ + " ended with " + std::to_string(*out) +
                                       ". Try again.");
            }
        }
        auto ended = endAll(machine_.processes, machine_.waiter);
        if (ended) {
            // One that was killed leaves it.
            HelperCopy::remove(machine_.identity);
        }
        return ended;
    }

    // Brings nothing back: only the app's registration (SMAppService) and the next boot do.
    std::expected<std::string, std::string> resume() override {
        return isOut_ ? "The helper is back at the next boot, or when the app registers it anew."
                      : "";
    }

    // What launchd has is said where the helper does not run.
    Checks examine() override { return {checkOpening(machine_.helper, machine_.identity)}; }

  private:
    // 0 when launchd has the job.
    std::expected<int, std::string> printJob() {
        return launchctl_({"print", job_}, Seconds{10}, "");
    }

    const Machine& machine_;
    Launchctl launchctl_;
    std::string job_ = "system/" + machine_.identity.helperBundleID();
    // stop() took the job out.
    bool isOut_ = false;
};

}  // namespace

Launchctl liveLaunchctl(Waiter& waiter, const std::string& program) {
    return
        [&waiter, program = program](std::vector<std::string> words, Seconds limit,
                                     const std::string& line) -> std::expected<int, std::string> {
            words.insert(words.begin(), program);
            pid_t child = 0;
            if (const int code = spawn(words, child); code != 0) {
                return std::unexpected(program + " cannot be started: " + errorText(code));
            }
            int status = 0;
            const auto hasEnded = [&] { return waitpid(child, &status, WNOHANG) == child; };
            if (!waiter.wait(hasEnded, limit, line)) {
                kill(-child, SIGKILL);
                waitpid(child, &status, 0);
                return std::unexpected(program + " takes too long; it was stopped");
            }
            constexpr int signalled = 128;
            return WIFEXITED(status) ? WEXITSTATUS(status) : signalled + WTERMSIG(status);
        };
}

std::unique_ptr<Service> launchdService(const Machine& machine, const Launchctl& launchctl) {
    return std::make_unique<LaunchdService>(machine, launchctl);
}

std::string releaseLockPath(const HelperIdentity& identity) {
    return "/var/run/" + identity.helperBundleID() + ".release.lock";
}

std::unique_ptr<Service> liveService(const Machine& machine) {
    return launchdService(machine, liveLaunchctl(machine.waiter));
}

// From the bundle downwards: /Applications itself belongs to the administrators there.
HelperFiles helperFiles(const std::string& helper) {
    const std::string folder = folderOf(helper);
    const std::size_t bundle = helper.rfind("/Contents/");
    return {
        {helper, folder + "/halvoctl"},
        bundle == std::string::npos ? folder : helper.substr(0, bundle),
        "Whoever can change the helper can keep it from starting, and whoever can change halvoctl "
        "becomes root when an administrator runs it."};
}

Check checkOpening(const std::string& helper, const HelperIdentity& identity) {
    const auto problem = RootOwnedPath::problem(helper);
    if (!problem) {
        return isOk("opening", "by the helper's own executable, which is root's alone");
    }
    const std::string shown = printable(*problem);
    const auto checked = checkCodeSignature(helper, identity.helperRequirement());
    const std::string folder = HelperCopy::folder(identity);
    struct stat status{};
    const auto wrong = lstat(folder.c_str(), &status) == 0
                           ? RootOwnedPath::problem(folder, RootOwnedPath::Item::folder)
                           : std::nullopt;
    return firstOf(
        "opening",
        {{!checked,
          printable(checked ? "" : checked.error()) + "; so the app is not opened again, since " +
              shown,
          "Install the app again."},
         {wrong.has_value(), printable(wrong.value_or("")) + "; so the app is not opened again",
          "rm -r " + shellWord(folder)}},
        "through a checked copy of the helper in " + printable(folder) + ", since " + shown);
}

std::string clearCommand(const std::string& path) { return "chflags noschg " + shellWord(path); }

}  // namespace halvo::control
