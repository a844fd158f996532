// Limits on what one caller, or all together, may use of the helper. Only admitted connections
// count; a refused one leaves nothing behind.
#pragma once

#include <cstddef>
#include <string>

#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

namespace Limits {

// Connections open at once. The app needs one for each of its processes.
inline constexpr std::size_t connections = 64;

// Of these, those of one user, so that one account cannot lock out the others.
inline constexpr std::size_t connectionsOfUser = 16;

// How long a caller may take to authenticate before it is disconnected.
inline constexpr Seconds authentication{10};

// How long a caller may be silent before it is disconnected, not counting the machine's sleep. The
// app sends a request every 2 s; one that is stopped must not occupy a connection, nor act on an
// old status when it continues.
inline constexpr Seconds silence{30};

// Replies queued for a caller that does not read them. Beyond that it is disconnected.
inline constexpr std::size_t queuedReplies = 64;

// Bytes of replies that the kernel buffers for such a caller besides; SO_SNDBUF, socket(7).
inline constexpr int sendBuffer = 64 * 1024;

// Bytes of the path in a begin; path_resolution(7). A message may have 128 MiB, a copy of which
// would exceed the memory limit of the unit.
inline constexpr std::size_t appPath = 4096;

// Callers waiting to be accepted; listen(2).
inline constexpr int backlog = 128;

// Log lines about refused callers within one span of time; the rest are only counted.
inline constexpr std::size_t refusalLines = 10;
inline constexpr Seconds refusalSpan{60};

}  // namespace Limits

// Logs at most Limits::refusalLines lines in any Limits::refusalSpan and counts the rest, whose
// number the first line after the span gives. Main queue only.
class RefusalLog {
  public:
    // Notes that a caller was refused at `now` (on a clock that cannot be set), and `why`.
    void refused(Seconds now, const std::string& why) {
        if (refused_ == 0 || now - spanStart_ >= Limits::refusalSpan) {
            if (refused_ > Limits::refusalLines) {
                HALVO_LOG_ERROR(helperLog, "Refused %{public}ld more callers",
                                static_cast<long>(refused_ - Limits::refusalLines));
            }
            spanStart_ = now;
            refused_ = 0;
        }
        if (++refused_ <= Limits::refusalLines) {
            HALVO_LOG_ERROR(helperLog, "Refused a caller: %{public}s", why.c_str());
        }
    }

  private:
    Seconds spanStart_{};
    // Since then.
    std::size_t refused_ = 0;
};

}  // namespace halvo
