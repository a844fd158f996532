// Opens the app on this machine.
#pragma once

#include <string>

#include "HalvoHelper/OpeningStreak.hpp"
#include "HalvoHelperCore/AppOpener.hpp"

namespace halvo {

// Starts the helper's own executable in its open-as-user mode and does not wait for it. The child
// has an empty environment and is reaped without anybody waiting. (Its umask is the open-as-user
// mode's to set.) Main queue only; one source per system.
//
// On macOS NSTask starts it through `launchctl asuser`, in the login session of the person, with
// every signal at its default and none blocked. Where not root alone decides what lies at the
// helper's path, a checked copy of it is started instead (macOS/HelperCopy.hpp), and without one
// nothing. On Linux with systemd (sd_booted(3)) systemd-run(1) starts it, in a unit of its own, and
// has the helper's standard error to say why it cannot. The child inherits nothing else either: no
// descriptor beyond 0 to 2 (which are /dev/null), no signal mask or disposition, no session, "/" as
// its folder; and from the first opening on the kernel reaps the children of this process
// (SA_NOCLDWAIT, sigaction(2)), while SIGCHLD keeps its default disposition.
//
// Openings that do not bring the app are counted and told as OpeningStreak says. On Linux, where
// the person's own systemd manager does as that person tells it, each that comes soon after one
// that brought nothing goes the other way: directly, then by that manager again, in turns.
class LiveOpener final : public AppOpener {
  public:
    // `helperExecutable`: the path of the helper's own executable. On macOS takes away the copy
    // that an earlier process may have left.
    explicit LiveOpener(std::string helperExecutable);

    // Does nothing when there is nothing at `appPath`. A child that cannot be started, or on
    // macOS may not be, logs "Couldn't open Halvo: %{public}s".
    void open(const std::string& appPath, std::uint32_t uid, bool afterQuit) override;

  private:
    std::string helperExecutable_;
    OpeningStreak streak_;
};

}  // namespace halvo
