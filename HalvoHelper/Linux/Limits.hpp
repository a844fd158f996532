// How much one caller, or all together, may take of the helper. Only admitted connections count;
// a refused one costs nothing that stays.
#pragma once

#include <cstddef>
#include <string>

#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

namespace Limits {

// Connections open at once. The app needs one for each of its processes.
inline constexpr std::size_t connections = 64;

// Of these, those of one user: others are served whatever one account does.
inline constexpr std::size_t connectionsOfUser = 16;

// How long a caller may take to authenticate before it is disconnected.
inline constexpr Seconds authentication{10};

// How long a caller may say nothing before it is disconnected, not counting the machine's sleep.
// The app speaks every 2 s; one that is stopped must not keep its place, nor find what it was told
// long ago still good.
inline constexpr Seconds silence{30};

// Replies waiting for a caller that does not read them. Past that it is disconnected.
inline constexpr std::size_t queuedReplies = 64;

// Bytes of replies that the kernel keeps for such a caller besides; SO_SNDBUF, socket(7).
inline constexpr int sendBuffer = 64 * 1024;

// Bytes of the path in a begin; path_resolution(7). A message may have 128 MiB, and to copy that
// would end a helper that may not have so much memory.
inline constexpr std::size_t appPath = 4096;

// Callers waiting to be accepted; listen(2).
inline constexpr int backlog = 128;

// Lines about refused callers within one span of time; the rest is only counted.
inline constexpr std::size_t refusalLines = 10;
inline constexpr Seconds refusalSpan{60};

}  // namespace Limits

// Writes at most Limits::refusalLines lines in any Limits::refusalSpan and counts the rest, which
// the first line after the span tells. Main queue only.
class RefusalLog {
  public:
    // Notes at the time `now` (of any clock that nobody can set) that a caller was turned away, and
    // `why`.
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
