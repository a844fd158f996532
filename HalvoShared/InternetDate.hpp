// The earlier name of RFC3339.hpp.
#pragma once

#include "HalvoShared/RFC3339.hpp"

namespace halvo {

namespace InternetDate = RFC3339;

}  // namespace halvo
