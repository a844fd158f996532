// What the app says, apart from where it says it.
#pragma once

#include <string>

#include "HalvoClient/HelperClient.hpp"
#include "HalvoHelperCore/HelperStatus.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

// "1:02:03", or "2:03" below an hour. Counts the second that has begun, so that 0:00 means over.
std::string timeLeft(Seconds span);

// "Fri 14:32:07" in the person's time zone.
std::string clockTime(WallDate date);

// What holds, without the time left, which changes all the time.
std::string holding(const HelperStatus& status);

// What is the matter with the helper and what to do about it.
std::string advice(const HelperFailure& failure);

// The end to show for a commitment whose end was shown as `shown`. The helper works it out anew
// each time and may differ by a hair, which is no change.
WallDate steadyEnd(WallDate shown, WallDate reported);

}  // namespace halvo
