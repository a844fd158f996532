#include "HalvoPlatform/Time.hpp"

#include "HalvoPlatform/Fatal.hpp"

namespace halvo {

WallDate wallNow() {
    return std::chrono::time_point_cast<Seconds>(std::chrono::system_clock::now());
}

std::int64_t wholeSeconds(Seconds span) {
    const double seconds = span.count();
    // 2^63 is exact as a double and the first value that no longer fits.
    constexpr double limit = 9223372036854775808.0;
    const bool fits = seconds >= -limit && seconds < limit;  // not-a-number fits nowhere
    if (!fits) {
        fatal("A span of seconds cannot be converted to a whole number");
    }
    return static_cast<std::int64_t>(seconds);  // truncates
}

}  // namespace halvo
