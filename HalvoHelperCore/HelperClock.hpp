// The engine's only source of time.
#pragma once

#include "HalvoHelperCore/ClockReading.hpp"

namespace halvo {

class HelperClock {
  public:
    virtual ~HelperClock() = default;

    // The present moment. Never fails. Any thread.
    virtual ClockReading reading() = 0;
};

}  // namespace halvo
