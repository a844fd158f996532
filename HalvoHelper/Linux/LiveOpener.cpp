#include "HalvoHelper/LiveOpener.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "HalvoHelper/ArgumentVector.hpp"
#include "HalvoHelper/Linux/OpenAsUser.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {
namespace {

enum class ErrorOutput { none, kept };

// What the child changes before it runs the command; posix_spawn(3). These calls fail only without
// memory, and then the child starts with less taken away from it than it should, so all count.
class SpawnPlan {
  public:
    explicit SpawnPlan(ErrorOutput errors) {
        posix_spawnattr_init(&attributes_);
        posix_spawn_file_actions_init(&actions_);
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        note(posix_spawnattr_setsigmask(&attributes_, &none));
        note(posix_spawnattr_setsigdefault(&attributes_, &all));
        note(posix_spawnattr_setflags(
            &attributes_, static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                             POSIX_SPAWN_SETSID)));
        note(posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDWR, 0));
        note(posix_spawn_file_actions_adddup2(&actions_, STDIN_FILENO, STDOUT_FILENO));
        if (errors == ErrorOutput::none) {
            note(posix_spawn_file_actions_adddup2(&actions_, STDIN_FILENO, STDERR_FILENO));
        }
        note(posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
        note(posix_spawn_file_actions_addchdir_np(&actions_, "/"));
    }

    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }

    // Gives 0 or the errno.
    [[nodiscard]] int start(const OpenAsUser::Command& command) const {
        if (error_ != 0) {
            return error_;
        }
        const ArgumentVector arguments(command.arguments);
        const ArgumentVector environment(command.environment);
        pid_t child = 0;
        return posix_spawn(&child, command.path.c_str(), &actions_, &attributes_, arguments.data(),
                           environment.data());
    }

  private:
    void note(int error) { error_ = error_ == 0 ? error : error_; }

    posix_spawnattr_t attributes_{};
    posix_spawn_file_actions_t actions_{};
    int error_ = 0;
};

// What the app says when it is run in a unit of the system's manager, and in one of the user's own.
std::string journalOf(std::uint32_t uid) {
    return "journalctl -u 'halvo-open-*' -u user@" + std::to_string(uid) + ".service";
}

// Without a word about what the signal itself does, which stays the default: nothing.
void letTheKernelReap() {
    struct sigaction action{};
    action.sa_handler = SIG_DFL;
    action.sa_flags = SA_NOCLDWAIT;
    sigaction(SIGCHLD, &action, nullptr);
}

}  // namespace

LiveOpener::LiveOpener(std::string helperExecutable)
    : helperExecutable_(std::move(helperExecutable)) {}

void LiveOpener::open(const std::string& appPath, std::uint32_t uid, bool afterQuit) {
    if (!itemExists(appPath)) {
        return;
    }
    const bool booted = sd_booted() > 0;
    const long failed =
        streak_.next(appPath, uid, sinceBoot(), booted ? journalOf(uid) : "none are kept");
    letTheKernelReap();
    const bool directly = failed % 2 == 1;
    const OpenAsUser::Request request{uid, appPath, afterQuit, directly};
    // What systemd-run(1) has to say goes where the helper's own errors go, to the journal.
    const int error = booted ? SpawnPlan(ErrorOutput::kept)
                                   .start(OpenAsUser::systemCommand(helperExecutable_, request,
                                                                    OpenAsUser::randomUnitSuffix()))
                             : SpawnPlan(ErrorOutput::none)
                                   .start(OpenAsUser::helperCommand(helperExecutable_, request));
    if (error != 0) {
        HALVO_LOG_ERROR(helperLog, "Couldn't open Halvo: %{public}s", errorText(error).c_str());
    }
}

}  // namespace halvo
