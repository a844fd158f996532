// The log's lines about callers that were turned away: anybody can cause them, so they are bounded.
#pragma once

#include <cstddef>
#include <string>

#include "HalvoHelper/Linux/Limits.hpp"
#include "HalvoPlatform/Log.hpp"

namespace halvo {

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
