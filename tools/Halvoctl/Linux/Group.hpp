// The app's private group.
#pragma once

#include "HalvoHelper/Linux/AccountFiles.hpp"
#include "tools/Halvoctl/Check.hpp"

namespace halvo::control {

// Whoever could take the group on would pass for the app, and so the helper refuses it.
Check checkGroup(const GroupFacts& facts);

}  // namespace halvo::control
