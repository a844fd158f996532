// The rule that the app keeps for the person: a commitment never gets shorter.
#pragma once

#include <optional>

#include "HalvoHelperCore/HelperStatus.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

// The end to ask the helper for when `held` is what holds and the person wants `wanted`; nothing
// when what holds ends no earlier. The helper itself would take an earlier end.
std::optional<WallDate> laterEnd(const HelperStatus& held, WallDate wanted);

}  // namespace halvo
