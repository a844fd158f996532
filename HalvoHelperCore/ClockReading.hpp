// One look at the clocks.
#pragma once

#include "HalvoHelperCore/BootID.hpp"
#include "HalvoHelperCore/Hash.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

struct ClockReading {
    // Which boot of the machine; another one after every boot.
    BootID bootID;
    // Time since that boot. Nobody can set it, and it counts while the machine sleeps.
    Seconds sinceBoot{};
    // The wall clock, which anybody may set.
    WallDate wall;

    bool operator==(const ClockReading&) const = default;
};

}  // namespace halvo

template <>
struct std::hash<halvo::ClockReading> {
    std::size_t operator()(const halvo::ClockReading& value) const {
        return halvo::hashOf(value.bootID, value.sinceBoot.count(),
                             halvo::secondsSince1970(value.wall));
    }
};
