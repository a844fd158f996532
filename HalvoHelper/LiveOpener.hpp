// Opens the app on this machine.
#pragma once

#include <cstdint>
#include <string>

#include "HalvoHelperCore/AppOpener.hpp"
#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

// Counts how often in a row the app was opened and did not stay. The engine asks for an opening 15
// seconds after the last at the earliest, and as soon as it may while the app does not run; so a
// request soon after the last means that the app did not start, or has ended already. Main queue
// only.
class OpeningStreak {
  public:
    // How soon is soon: HelperEngine::Timing's reopenGap and silence, and slack for a busy machine.
    static constexpr Seconds soon{40};

    // Notes that the app at `appPath` is about to be opened for `uid`, at `now` since boot. Returns
    // how many openings of that app for that user, one soon after another, failed before this one.
    // At the 2nd, 4th, 8th and so on, logs that number with `whereItsMessagesAre`, the command that
    // shows the app's own log: "Opened Halvo %{public}ld times in a row, and it didn't stay; its
    // own messages: %{public}s".
    long next(const std::string& appPath, std::uint32_t uid, Seconds now,
              const std::string& whereItsMessagesAre) {
        const bool isAgain =
            failed_ >= 0 && appPath == appPath_ && uid == uid_ && now - last_ < soon;
        failed_ = isAgain ? failed_ + 1 : 0;
        appPath_ = appPath;
        uid_ = uid;
        last_ = now;
        // Twelve lines a day at most, although the engine may ask four times a minute.
        if (failed_ >= 2 && (failed_ & (failed_ - 1)) == 0) {
            HALVO_LOG_ERROR(
                helperLog,
                "Opened Halvo %{public}ld times in a row, and it didn't stay; its own messages: "
                "%{public}s",
                failed_, whereItsMessagesAre.c_str());
        }
        return failed_;
    }

  private:
    std::string appPath_;
    std::uint32_t uid_{};
    Seconds last_{};
    long failed_ = -1;  // before the first opening
};

// Starts the helper's own executable in its open-as-user mode and does not wait for it. The child
// has an empty environment and is reaped without a wait. (The open-as-user mode sets its umask.)
// Main queue only; one source per system.
//
// On macOS NSTask starts it through `launchctl asuser`, in the login session of the user, with
// every signal at its default and none blocked. Where the helper's path is not root's alone, a
// checked copy of it is started instead (macOS/HelperCopy.hpp), and without one nothing. On Linux
// with systemd (sd_booted(3)) systemd-run(1) starts it, in a unit of its own, with the helper's
// standard error for its errors. The child inherits nothing else either: no descriptor beyond 0 to
// 2 (which are /dev/null), no signal mask or disposition, no session, "/" as its working directory;
// and from the first opening on the kernel reaps the children of this process (SA_NOCLDWAIT,
// sigaction(2)), while SIGCHLD keeps its default disposition.
//
// Openings that fail are counted and logged as OpeningStreak says. On Linux, where the user
// controls their own systemd manager, each that comes soon after one that failed goes the other
// way: directly, then by that manager again, in turns.
class LiveOpener final : public AppOpener {
  public:
    // `helperExecutable`: the path of the helper's own executable. On macOS removes the copy that
    // an earlier process may have left.
    explicit LiveOpener(std::string helperExecutable);

    // Does nothing when no item exists at `appPath`. A child that cannot be started, or on macOS
    // may not be, logs "Couldn't open Halvo: %{public}s".
    void open(const std::string& appPath, std::uint32_t uid, bool afterQuit) override;

  private:
    std::string helperExecutable_;
    OpeningStreak streak_;
};

}  // namespace halvo
