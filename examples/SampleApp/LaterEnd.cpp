#include "examples/SampleApp/LaterEnd.hpp"

namespace halvo {

std::optional<WallDate> laterEnd(const HelperStatus& held, WallDate wanted) {
    const bool keep = held.holding && held.until && *held.until >= wanted;
    return keep ? std::nullopt : std::optional(wanted);
}

}  // namespace halvo
