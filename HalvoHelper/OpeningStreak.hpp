// How often in a row the app was opened and did not stay.
#pragma once

#include <cstdint>
#include <string>

#include "HalvoPlatform/Time.hpp"

namespace halvo {

// What the opener knows of the openings before. The engine asks for one 15 seconds after the last
// at the earliest, and as soon as it may while the app is not there; so being asked again soon says
// that the last opening did not bring the app, or that it is gone already. Never throws but for
// want of memory. Main queue only.
class OpeningStreak {
  public:
    // How soon "soon" is: reopenGap of HelperEngine::Timing and its silence, and a machine that is
    // busy.
    static constexpr Seconds soon{40};

    // Notes that the app at `appPath` is about to be opened for `uid`, at `now` since boot. Gives
    // how many openings of that app for that user before this one did not bring it, one soon after
    // another. At the 2nd, 4th, 8th and so on, logs that number with `whereItsMessagesAre`, which
    // says how to read what the app itself has to say: "Opened Halvo %{public}ld times in a row,
    // and it didn't stay; its own messages: %{public}s".
    long next(const std::string& appPath, std::uint32_t uid, Seconds now,
              const std::string& whereItsMessagesAre);

  private:
    std::string appPath_;
    std::uint32_t uid_{};
    Seconds last_{};
    long failed_ = -1;  // before the first opening
};

}  // namespace halvo
