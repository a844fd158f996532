// The answer to a status request.
#pragma once

#include <optional>

#include "HalvoHelperCore/Hash.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

struct HelperStatus {
    // The caller has a live commitment.
    bool holding{};
    // When it will end; absent without one.
    std::optional<WallDate> until;
    // The helper has locked the app and owes the unlock.
    bool locked{};

    bool operator==(const HelperStatus&) const = default;

    // Nothing holds.
    static const HelperStatus idle;
};

inline constexpr HelperStatus HelperStatus::idle{};

}  // namespace halvo

template <>
struct std::hash<halvo::HelperStatus> {
    std::size_t operator()(const halvo::HelperStatus& value) const {
        return halvo::hashOf(value.holding, value.until.transform(halvo::secondsSince1970),
                             value.locked);
    }
};
