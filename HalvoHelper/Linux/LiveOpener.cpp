#include "HalvoHelper/LiveOpener.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <csignal>
#include <utility>

#include "HalvoHelper/ArgumentVector.hpp"
#include "HalvoHelper/Linux/OpenAsUser.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {
namespace {

// Starts `command` with what LiveOpener says of its child; posix_spawn(3). 0, or the errno: also of
// the calls before, which fail only without memory, since the child would then start with less
// taken away from it than it should.
int start(const OpenAsUser::Command& command, bool keepsErrorOutput) {
    const ArgumentVector arguments(command.arguments);
    const ArgumentVector environment(command.environment);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&actions);
    constexpr auto flags =
        static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
    int error = 0;
    for (const int result :
         {posix_spawnattr_setsigmask(&attributes, &none),
          posix_spawnattr_setsigdefault(&attributes, &all),
          posix_spawnattr_setflags(&attributes, flags),
          posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDWR, 0),
          posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDOUT_FILENO),
          keepsErrorOutput
              ? 0
              : posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDERR_FILENO),
          posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1),
          posix_spawn_file_actions_addchdir_np(&actions, "/")}) {
        error = error == 0 ? result : error;
    }
    pid_t child = 0;
    if (error == 0) {
        error = posix_spawn(&child, command.path.c_str(), &actions, &attributes, arguments.data(),
                            environment.data());
    }
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return error;
}

}  // namespace

LiveOpener::LiveOpener(std::string helperExecutable)
    : helperExecutable_(std::move(helperExecutable)) {}

void LiveOpener::open(const std::string& appPath, std::uint32_t uid, bool afterQuit) {
    if (!itemExists(appPath)) {
        return;
    }
    const bool booted = sd_booted() > 0;
    // What the app says when it is run in a unit of the system's manager, and in one of the user's.
    const std::string journal =
        "journalctl -u 'halvo-open-*' -u user@" + std::to_string(uid) + ".service";
    const long failed = streak_.next(appPath, uid, sinceBoot(), booted ? journal : "none are kept");
    // What the signal itself does stays the default: nothing.
    struct sigaction reaping{};
    reaping.sa_handler = SIG_DFL;
    reaping.sa_flags = SA_NOCLDWAIT;
    sigaction(SIGCHLD, &reaping, nullptr);
    const bool directly = failed % 2 == 1;
    const OpenAsUser::Request request{uid, appPath, afterQuit, directly};
    // What systemd-run(1) has to say goes where the helper's own errors go, to the journal.
    const int error = start(booted ? OpenAsUser::systemCommand(helperExecutable_, request,
                                                               OpenAsUser::randomUnitSuffix())
                                   : OpenAsUser::helperCommand(helperExecutable_, request),
                            booted);
    if (error != 0) {
        HALVO_LOG_ERROR(helperLog, "Couldn't open Halvo: %{public}s", errorText(error).c_str());
    }
}

}  // namespace halvo
