// The system's clocks.
#pragma once

#include <string_view>

#include "HalvoHelperCore/HelperClock.hpp"

namespace halvo {

// Reads the boot's name once per process and the two clocks at every reading: the one that counts
// from boot, through sleep, and that nobody can set; then the wall clock. Any thread; allocates
// nothing after the first reading.
class SystemHelperClock final : public HelperClock {
  public:
    ClockReading reading() override;
};

// What the boot is called when the system does not tell.
inline constexpr const char* unknownBootID = "unknown";

// The text of the boot's name in the buffer `bytes` that the system filled: all up to the first
// zero byte, or all of it; "unknown" when that is not UTF-8.
BootID bootIDFrom(std::string_view bytes);

// The name of this boot, from the system at every call; "unknown" when it does not tell. One per
// system: on Linux /proc/sys/kernel/random/boot_id (random(4)) without its newline, on macOS the
// value "kern.bootsessionuuid" of sysctl(3).
BootID readBootID();

}  // namespace halvo
