// The log's lines about callers that were turned away: anybody can cause them, so they are bounded.
#pragma once

#include <cstddef>
#include <string>

#include "HalvoPlatform/Time.hpp"

namespace halvo {

// Writes at most Limits::refusalLines lines in any Limits::refusalSpan and counts the rest, which
// the first line after the span tells. Main queue only.
class RefusalLog {
  public:
    // Notes at the time `now` (of any clock that nobody can set) that a caller was turned away, and
    // `why`.
    void refused(Seconds now, const std::string& why);

  private:
    Seconds spanStart_{};
    std::size_t lines_ = 0;
    long untold_ = 0;
};

}  // namespace halvo
