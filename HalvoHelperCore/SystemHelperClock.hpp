// The system's clocks.
#pragma once

#include <string_view>

#include "HalvoHelperCore/HelperClock.hpp"

namespace halvo {

// Reads the boot identifier once per process, and both clocks at every reading: sinceBoot() of
// Time.hpp, then the wall clock. Allocates nothing after the first reading. Any thread.
class SystemHelperClock final : public HelperClock {
  public:
    ClockReading reading() override;
};

// The identifier where the system gives none.
inline constexpr const char* unknownBootID = "unknown";

// The identifier in `bytes`, a buffer that the system filled: up to the first zero byte, or all of
// it; unknownBootID when that is not UTF-8.
BootID bootIDFrom(std::string_view bytes);

// The identifier of this boot, from the system at every call; unknownBootID when that fails. On
// Linux /proc/sys/kernel/random/boot_id (random(4)) without its newline, on macOS the value
// "kern.bootsessionuuid" of sysctl(3). One source per system.
BootID readBootID();

}  // namespace halvo
