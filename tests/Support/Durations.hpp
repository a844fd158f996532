// The spans of time that tests count in.
#pragma once

#include "HalvoPlatform/Time.hpp"

namespace halvo::testing {

inline constexpr Seconds minute{60};
inline constexpr Seconds hour{3600};
inline constexpr Seconds day{86400};

}  // namespace halvo::testing
